#include "loomwork/sync/OTMerge.h"

namespace loomwork {

namespace {

enum class Choice { Nothing, Server, Client, Merged };

// The decision for one entity, by the client's operation (row) and the
// server's (column). A row or column of nullptr is "absent".
Choice choose(const UGEntityOperation* server, const UGEntityOperation* client) {
  if (!client) return server ? Choice::Server : Choice::Nothing;
  if (!UGEntityOperationTypeIsValid(client->type())) return Choice::Nothing;
  if (!server) return Choice::Client;
  if (!UGEntityOperationTypeIsValid(server->type())) return Choice::Nothing;
  UGEntityOperationType s = server->type();
  switch (client->type()) {
    case UGEntityOperationTypeCreate:
      return s == UGEntityOperationTypeIdentity ? Choice::Client : Choice::Server;
    case UGEntityOperationTypeUpdate:
      if (s == UGEntityOperationTypeUpdate) return Choice::Merged;
      return s == UGEntityOperationTypeDelete ? Choice::Server : Choice::Client;
    case UGEntityOperationTypeDelete:
      return Choice::Client;
    default:  // IDENTITY yields to everything.
      return Choice::Server;
  }
}

}  // namespace

Ref<UGMutableTransaction> OTMerge::mergeServerOperationClientOperation(const UGTransaction& serverOperation,
                                                                       const UGTransaction& clientOperation) const {
  Ref<UGMutableTransaction> result = UGMutableTransaction::transactionContainingMutableOperations();
  auto decide = [&](const std::string& uuid, const Ref<UGEntityOperation>& server,
                    const Ref<UGEntityOperation>& client) {
    switch (choose(server.get(), client.get())) {
      case Choice::Nothing:
        break;
      case Choice::Server:
        result->setOperationForUUID(server, uuid);
        break;
      case Choice::Client:
        result->setOperationForUUID(client, uuid);
        break;
      case Choice::Merged:
        result->setOperationForUUID(mergeServerUpdateEntityOperationClientUpdateEntityOperation(server, client), uuid);
        break;
    }
  };
  for (const std::string& uuid : serverOperation) {
    decide(uuid, serverOperation.operationForUUID(uuid), clientOperation.operationForUUID(uuid));
  }
  for (const std::string& uuid : clientOperation) {
    if (!serverOperation.operationForUUID(uuid)) decide(uuid, nullptr, clientOperation.operationForUUID(uuid));
  }
  return result;
}

Ref<UGEntityOperation> OTMerge::mergeServerUpdateEntityOperationClientUpdateEntityOperation(
    const Ref<UGEntityOperation>& serverUpdate, const Ref<UGEntityOperation>& clientUpdate) const {
  // Relation transforms are properties of the entity like any other: an
  // update that changes only a relation is not empty.
  auto carriesNothing = [](const UGEntityOperation& op) {
    return op.properties().empty() && op.relationTransforms().empty();
  };
  if (!serverUpdate || carriesNothing(*serverUpdate)) return clientUpdate;
  if (!clientUpdate || carriesNothing(*clientUpdate)) return serverUpdate;

  std::optional<Date> serverDate = modificationDateForEntityOperation(*serverUpdate);
  std::optional<Date> clientDate = modificationDateForEntityOperation(*clientUpdate);
  Ref<UGMutableEntityOperation> result = serverUpdate->mutableCopy();
  for (const auto& [name, clientValue] : clientUpdate->properties()) {
    std::optional<Value> serverValue = serverUpdate->valueForProperty(name);
    if (!serverValue) {
      result->setValueForProperty(clientValue, name);
    } else {
      result->setValueForProperty(mergePropertyServerValueServerModificationDateClientValueClientModificationDate(
                                      name, *serverValue, serverDate, clientValue, clientDate),
                                  name);
    }
  }
  for (const auto& [name, clientTransform] : clientUpdate->relationTransforms()) {
    Ref<UGListTransform> serverTransform = serverUpdate->transformForRelation(name);
    if (!serverTransform) {
      result->setTransformForRelation(clientTransform, name);
    } else {
      Value winner = mergePropertyServerValueServerModificationDateClientValueClientModificationDate(
          name, Value(serverTransform), serverDate, Value(clientTransform), clientDate);
      // A subclass that answers something other than a transform leaves the
      // server's in place.
      if (Ref<UGListTransform> transform = winner.objectAs<UGListTransform>())
        result->setTransformForRelation(transform, name);
    }
  }
  return result;
}

std::optional<Date> OTMerge::modificationDateForEntityOperation(const UGEntityOperation&) const { return std::nullopt; }

Value OTMerge::mergePropertyServerValueServerModificationDateClientValueClientModificationDate(
    std::string_view, const Value& serverValue, std::optional<Date> serverModificationDate, const Value& clientValue,
    std::optional<Date> clientModificationDate) const {
  if (!clientModificationDate) return serverValue;
  if (!serverModificationDate) return clientValue;
  return serverModificationDate->secondsSince1970 >= clientModificationDate->secondsSince1970 ? serverValue
                                                                                              : clientValue;
}

}  // namespace loomwork
