// NPWNotification: a keyed bag of payloads that travels through a graph of
// nodes, above all the graph transaction that describes a change.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <tsl/ordered_map.h>

#include "loomwork/graph/UGTransaction.h"
#include "loomwork/platform/Object.h"
#include "loomwork/platform/Value.h"

#pragma GCC visibility push(default)
namespace loomwork {

// The key under which a notification holds its graph transaction.
inline constexpr std::string_view GraphTransactionNotificationKey = "GraphTransactionNotificationKey";

// A payload that folds the payload of the same key of a later notification
// into itself when two notifications are composed. UGMutableTransaction
// composes too (by appending the later transaction) without deriving from it.
class NPWComposing {
 public:
  virtual ~NPWComposing();
  virtual void npwComposeWith(const Value& later) = 0;
};

// Composes `later` into `held` when `held` composes (an NPWComposing object,
// or a UGMutableTransaction given a UGTransaction) and returns true; returns
// false, changing nothing, when it does not.
bool NPWComposeObjectWith(const Value& held, const Value& later);

// A notification: a map from key to payload value, in insertion order. The map
// is its whole state. Used by one thread at a time.
class NPWNotification : public Object {
 public:
  using ObjectMap = tsl::ordered_map<std::string, Value>;

  NPWNotification() = default;

  static Ref<NPWNotification> notification() { return make<NPWNotification>(); }
  static Ref<NPWNotification> notificationWithObjectForKey(Value object, std::string_view key);
  // A notification holding the transaction under GraphTransactionNotificationKey.
  static Ref<NPWNotification> notificationWithGraphTransaction(const Ref<UGMutableTransaction>& transaction);

  const ObjectMap& objects() const { return objects_; }

  // The payload for the key, or absent.
  std::optional<Value> notificationObjectForKey(std::string_view key) const;
  // Stores the payload; absent removes the key.
  void setNotificationObjectForKey(std::optional<Value> object, std::string_view key);
  std::optional<Value> objectForKeyedSubscript(std::string_view key) const { return notificationObjectForKey(key); }
  void setObjectForKeyedSubscript(std::optional<Value> object, std::string_view key) {
    setNotificationObjectForKey(std::move(object), key);
  }

  // "key" gives the payload; "key.rest" resolves "rest" as a key path on the
  // payload (loomwork::valueForKeyPath). Absent when a component is missing.
  std::optional<Value> valueForKeyPath(std::string_view keyPath) const;

  // For each key of `later` in its order: a payload held under the key that
  // composes (NPWComposeObjectWith) takes the later payload in and stays the
  // same object; otherwise the later payload replaces it. Keys only the
  // receiver holds are kept.
  void composeWith(const NPWNotification& later);

  // The UGMutableTransaction under GraphTransactionNotificationKey. When there
  // is none a new empty one is stored and returned (so the first read of an
  // empty notification changes it); a plain UGTransaction held there is
  // replaced by its mutableCopy(), any other payload by an empty transaction.
  // Never empty.
  Ref<UGMutableTransaction> graphTransaction();
  // True when graphTransaction() holds an operation for the object's
  // universalGraphUUID whose value for the property is present. Relation
  // transforms are not looked at. False for a null object.
  bool containsUpdateForPropertyOfObject(std::string_view property, const Object* object);

  // "NPWNotification with objects: " and the map's text form.
  std::string description() const override;

 private:
  ObjectMap objects_;
};

}  // namespace loomwork
#pragma GCC visibility pop
