// Object: the root of every reference type of the library.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "loomwork/platform/Types.h"
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
};

// "0x" followed by the address in lower-case hexadecimal.
std::string addressString(const void* address);

}  // namespace loomwork
#pragma GCC visibility pop
