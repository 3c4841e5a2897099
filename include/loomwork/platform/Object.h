// Object: the root of every reference type of the library.
#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "loomwork/platform/Types.h"
#include "loomwork/platform/UUID.h"
#include "loomwork/platform/Value.h"

#pragma GCC visibility push(default)
namespace loomwork {

// The base of every reference type. Objects live in std::shared_ptr (Ref<T>);
// weak references are std::weak_ptr, and a child never owns its parent.
//
// Equality defaults to identity. Subclasses that compare by content override
// isEqual() and hash() together. valueForKey() is the reflection hook that
// key paths, sort descriptors and graph queries read properties through; the
// default knows no keys.
//
// An object is used by one thread at a time unless its class says otherwise.
class Object : public std::enable_shared_from_this<Object> {
 public:
  Object() = default;
  Object(const Object&) = delete;
  Object& operator=(const Object&) = delete;
  virtual ~Object();

  // The class name without namespace, such as "UGMutableListTransform".
  virtual std::string className() const;
  // A readable text form; the default is "<ClassName: 0x...>".
  virtual std::string description() const;
  // Identity by default.
  virtual bool isEqual(const Object& other) const;
  // Agrees with isEqual(); the address by default.
  virtual size_t hash() const;
  // The value of a named property, or absent when the object has no such key.
  virtual std::optional<Value> valueForKey(std::string_view key) const;
  // Resolves "a.b.c": the first component through valueForKey(), the rest
  // through the values it yields. Absent as soon as a component is missing.
  std::optional<Value> valueForKeyPath(std::string_view keyPath) const;

  // A random UUID of the object's own in canonical upper-case form, made on
  // the first request and kept for the object's life. Any thread may ask;
  // concurrent first requests agree on one UUID.
  const std::string& globalObjectUUID() const {
    const std::string* text = globalObjectUUID_.text.load(std::memory_order_acquire);
    if (text != nullptr) return *text;
    auto* made = new std::string(newUUIDString());
    if (globalObjectUUID_.text.compare_exchange_strong(text, made, std::memory_order_acq_rel)) return *made;
    delete made;
    return *text;
  }

  // The shared pointer that owns this object, cast to T (empty when the object
  // is not owned by a shared pointer or is not a T).
  template <class T = Object>
  std::shared_ptr<T> ref() {
    return std::dynamic_pointer_cast<T>(weak_from_this().lock());
  }
  template <class T = Object>
  std::shared_ptr<const T> ref() const {
    return std::dynamic_pointer_cast<const T>(weak_from_this().lock());
  }

 private:
  // Holds the globalObjectUUID() text once it has been asked for.
  struct GlobalObjectUUIDSlot {
    GlobalObjectUUIDSlot() = default;
    GlobalObjectUUIDSlot(const GlobalObjectUUIDSlot&) = delete;
    GlobalObjectUUIDSlot& operator=(const GlobalObjectUUIDSlot&) = delete;
    ~GlobalObjectUUIDSlot() { delete text.load(std::memory_order_acquire); }
    std::atomic<const std::string*> text{nullptr};
  };
  mutable GlobalObjectUUIDSlot globalObjectUUID_;
};

// "0x" followed by the address in lower-case hexadecimal.
std::string addressString(const void* address);

}  // namespace loomwork
#pragma GCC visibility pop
