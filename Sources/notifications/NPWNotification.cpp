#include "loomwork/notifications/NPWNotification.h"

#include "loomwork/graph/UniversalGraphObjects.h"

namespace loomwork {

namespace {

// The transaction's key as the map's key type, made once: every segment asks
// for the transaction in every pass.
const std::string& graphTransactionKey() {
  static const std::string key(GraphTransactionNotificationKey);
  return key;
}

}  // namespace

NPWComposing::~NPWComposing() = default;

bool NPWComposeObjectWith(const Value& held, const Value& later) {
  Object* object = held.tryObject();
  if (object == nullptr) return false;
  if (auto* composing = dynamic_cast<NPWComposing*>(object)) {
    composing->npwComposeWith(later);
    return true;
  }
  if (auto* transaction = dynamic_cast<UGMutableTransaction*>(object)) {
    // A later payload that is not a transaction has nothing to append.
    if (auto* other = dynamic_cast<const UGTransaction*>(later.tryObject())) transaction->appendTransaction(*other);
    return true;
  }
  return false;
}

Ref<NPWNotification> NPWNotification::notificationWithObjectForKey(Value object, std::string_view key) {
  auto notification = make<NPWNotification>();
  notification->setNotificationObjectForKey(std::move(object), key);
  return notification;
}

Ref<NPWNotification> NPWNotification::notificationWithGraphTransaction(const Ref<UGMutableTransaction>& transaction) {
  auto notification = make<NPWNotification>();
  if (transaction) notification->objects_.insert_or_assign(graphTransactionKey(), Value(transaction));
  return notification;
}

std::optional<Value> NPWNotification::notificationObjectForKey(std::string_view key) const {
  auto found = objects_.find(std::string(key));
  if (found == objects_.end()) return std::nullopt;
  return found->second;
}

void NPWNotification::setNotificationObjectForKey(std::optional<Value> object, std::string_view key) {
  if (!object) {
    objects_.erase(std::string(key));
    return;
  }
  objects_.insert_or_assign(std::string(key), std::move(*object));
}

std::optional<Value> NPWNotification::valueForKeyPath(std::string_view keyPath) const {
  size_t dot = keyPath.find('.');
  std::optional<Value> payload = objectForKeyedSubscript(keyPath.substr(0, dot));
  if (!payload || dot == std::string_view::npos) return payload;
  return loomwork::valueForKeyPath(*payload, keyPath.substr(dot + 1));
}

void NPWNotification::composeWith(const NPWNotification& later) {
  if (&later == this) {
    // Composing a notification with itself composes each payload with itself.
    const ObjectMap snapshot = objects_;
    for (const auto& [key, value] : snapshot) NPWComposeObjectWith(value, value);
    return;
  }
  for (const auto& [key, value] : later.objects_) {
    auto held = objects_.find(key);
    if (held != objects_.end() && NPWComposeObjectWith(held->second, value)) continue;
    objects_.insert_or_assign(key, value);
  }
}

Ref<UGMutableTransaction> NPWNotification::graphTransaction() {
  auto held = objects_.find(graphTransactionKey());
  if (held != objects_.end()) {
    if (auto transaction = held->second.objectAs<UGMutableTransaction>()) return transaction;
  }
  Ref<UGMutableTransaction> transaction;
  if (held != objects_.end()) {
    if (auto plain = held->second.objectAs<UGTransaction>()) transaction = plain->mutableCopy();
  }
  if (!transaction) transaction = UGMutableTransaction::transaction();
  objects_.insert_or_assign(graphTransactionKey(), Value(transaction));
  return transaction;
}

bool NPWNotification::containsUpdateForPropertyOfObject(std::string_view property, const Object* object) {
  if (object == nullptr) return false;
  Ref<UGEntityOperation> operation = graphTransaction()->operationForUUID(universalGraphUUID(*object));
  return operation && operation->valueForProperty(property).has_value();
}

std::string NPWNotification::description() const {
  Dictionary map;
  for (const auto& [key, value] : objects_) map.insert_or_assign(Value(key), value);
  return "NPWNotification with objects: " + Value(std::move(map)).description();
}

}  // namespace loomwork
