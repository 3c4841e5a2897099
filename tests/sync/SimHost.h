// The host side of a synchronising device, written the way an application
// would write it: an entity model that transactions are applied to and that
// is persisted in the same storage transaction as the controller's state, the
// integration calls, seeds, and the exchange of components, acknowledgements
// and claimed states with the other device.
//
// Host<Storage> runs on OTSQLiteDataSource or on the in-memory MemoryStorage.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "loomwork/sync.h"

namespace loomwork::synctest {

// One entity of the model: its kind and its property values. Ordered to-many
// relations are array properties holding entity UUIDs and to-one relations
// string properties holding one, so the merge treats them as whole values.
struct Entity {
  std::string kind;
  std::map<std::string, Value> properties;
  friend bool operator==(const Entity&, const Entity&) = default;
};
using Model = std::map<std::string, Entity>;

inline std::string describe(const Model& model) {
  std::string text;
  for (const auto& [uuid, entity] : model) {
    text += uuid + " " + entity.kind + " {";
    for (const auto& [name, value] : entity.properties) text += " " + name + "=" + value.description();
    text += " }\n";
  }
  return text;
}

// What the other device receives. A claim says which state the sender has
// reached; an acknowledgement that a component arrived.
struct Message {
  enum Kind { Component, Acknowledgement, Claim, Seed } kind;
  std::string uniqueIdentifier;  // Component, Acknowledgement
  Data data;                     // Component, Seed
  OTState state;                 // Claim
};

// Thrown by a host whose crash countdown runs out: the process "dies" at that
// point, with whatever storage transaction is open left uncommitted.
struct Crash {};

template <class Storage>
class Host : public Storage {
 public:
  template <class... Args>
  explicit Host(Args&&... args) : Storage(std::forward<Args>(args)...) {}

  std::weak_ptr<OTSyncController> controller;
  Model model;
  // Whether entities are written to the storage as they change (off for the
  // in-memory benchmark, which never restarts).
  bool persistsModel = true;
  // Data-source calls until the host crashes; negative: never.
  int crashCountdown = -1;
  // Called after each integration with (state before, state after).
  std::function<void(const OTState&, const OTState&)> onIntegration;

  // MARK: The model

  void loadModel() {
    model.clear();
    for (const auto& [key, value] : this->hostValuesWithPrefix("e/")) {
      const Dictionary* stored = value.tryDictionary();
      if (!stored) continue;
      Entity entity;
      if (auto kind = value["kind"]; kind && kind->isString()) entity.kind = std::string(kind->string());
      if (auto properties = value["properties"]; properties && properties->isDictionary())
        for (const auto& [name, property] : properties->dictionary())
          entity.properties.emplace(std::string(name.string()), property);
      model.emplace(key.substr(2), std::move(entity));
    }
  }

  // Applies a transaction: CREATE makes the entity (over an existing one, its
  // values win), UPDATE changes a present entity and is ignored for an absent
  // one, DELETE removes it.
  void apply(const UGTransaction& transaction) {
    transaction.enumerateEntityOperations([&](const std::string& uuid, const Ref<UGEntityOperation>& operation, bool&) {
      switch (operation->type()) {
        case UGEntityOperationTypeCreate:
        case UGEntityOperationTypeUpdate: {
          auto it = model.find(uuid);
          if (it == model.end()) {
            if (operation->type() == UGEntityOperationTypeUpdate) return;
            it = model.emplace(uuid, Entity{operation->entityName().value_or(""), {}}).first;
          }
          for (const auto& [name, value] : operation->properties()) it->second.properties.insert_or_assign(name, value);
          persist(uuid);
          break;
        }
        case UGEntityOperationTypeDelete:
          if (model.erase(uuid) > 0) persist(uuid);
          break;
        default:
          break;
      }
    });
  }

  // The transaction that creates the whole model from nothing.
  Ref<UGMutableTransaction> contentTransaction() const {
    auto transaction = UGMutableTransaction::transaction();
    for (const auto& [uuid, entity] : model) {
      auto operation = make<UGMutableEntityOperation>(UGEntityOperationTypeCreate, entity.kind);
      for (const auto& [name, value] : entity.properties) operation->setValueForProperty(value, name);
      transaction->setOperationForUUID(operation, uuid);
    }
    return transaction;
  }

  // MARK: What the controller asks of the host

  Ref<UGTransaction> seedForOTSyncController(OTSyncController&) override { return contentTransaction(); }
  bool OTSyncControllerCanIntegrateOperations(OTSyncController&) override { return true; }

  // A received seed is offered only while nothing else can move this device
  // on: when components lead on from the current state, they are the
  // cheaper and exact way.
  Ref<OTPathComponent> availableSeedForSyncController(OTSyncController& controller) override {
    if (!receivedSeed || !controller.currentState()) return nullptr;
    if (!controller.canIntegrateSeedFromState(*receivedSeed, *controller.currentState())) {
      receivedSeed.reset();
      return nullptr;
    }
    if (!controller.requestPathComponentsOnFutureRemoteLineFromState(*controller.currentState()).empty())
      return nullptr;
    return receivedSeed;
  }
  void OTSyncControllerIntegrateReplacementSeed(OTSyncController& controller,
                                                const Ref<UGMutableTransaction>& seed) override {
    maybeCrash();
    const OTState before = controller.currentState().value_or(OTState());
    std::vector<std::string> uuids;
    for (const auto& [uuid, entity] : model) uuids.push_back(uuid);
    model.clear();
    for (const auto& uuid : uuids) persist(uuid);
    apply(*seed);
    receivedSeed.reset();
    integratingFrom = before;
  }
  void OTSyncControllerIntegrateAndConsumeOperation(OTSyncController& controller,
                                                    const Ref<UGMutableTransaction>& operation) override {
    maybeCrash();
    if (!integratingFrom) integratingFrom = controller.currentState().value_or(OTState());
    apply(*operation);
  }
  void OTSyncControllerPerformIntegrationBlock(OTSyncController&, std::function<void()> block) override { block(); }

  // Crash points inside the controller's storage calls.
  void OTSyncControllerSetValueForKey(OTSyncController& controller, const std::optional<Value>& value,
                                      std::string_view key) override {
    maybeCrash();
    Storage::OTSyncControllerSetValueForKey(controller, value, key);
  }
  void OTSyncControllerRecordPathComponentEnqueueForTransfer(OTSyncController& controller,
                                                             const Ref<OTPathComponent>& component,
                                                             bool enqueue) override {
    maybeCrash();
    Storage::OTSyncControllerRecordPathComponentEnqueueForTransfer(controller, component, enqueue);
  }
  void endTransactionForOTSyncController(OTSyncController& controller) override {
    maybeCrash();  // the last moment before the commit
    Storage::endTransactionForOTSyncController(controller);
    if (integratingFrom) {
      if (onIntegration) onIntegration(*integratingFrom, controller.currentState().value_or(OTState()));
      integratingFrom.reset();
    }
  }

  // MARK: Local changes

  // Applies a local change to the model and stages it, as one storage
  // transaction: after a crash either both happened or neither.
  void commitLocalChange(OTSyncController& controller, const UGTransaction& transaction) {
    controller.performTransaction([&] {
      apply(transaction);
      maybeCrash();
      controller.stageLocalOperation(transaction);
    });
  }

  // The periodic processing, as one storage transaction. The controller
  // records the server's and the client's remainders of a merge one after
  // the other, outside any transaction of its own; a crash between the two
  // would keep the server's remainder (the server then moves on to the merged
  // state) and lose the client's for good. Inside the host's transaction the
  // merge is kept whole or not at all.
  void process(OTSyncController& controller) {
    controller.performTransaction([&] { controller.processInternalStateAllowingHostUpdate(true); });
  }

  // MARK: Exchange with the other device

  // Everything to send now: the queued components (all of them, or only
  // those not sent since the last resend), this device's state, and, on a
  // server that sees the client behind along the server's axis only, a
  // replacement seed when `offerSeed`.
  std::vector<Message> outgoing(OTSyncController& controller, bool resendAll, bool offerSeed) {
    std::vector<Message> messages;
    for (auto& pending : this->pendingTransfers()) {
      if (!resendAll && sent.contains(pending.uniqueIdentifier)) continue;
      sent.insert(pending.uniqueIdentifier);
      messages.push_back({Message::Component, pending.uniqueIdentifier, std::move(pending.data), {}});
    }
    if (const auto& state = controller.currentState()) messages.push_back({Message::Claim, {}, {}, *state});
    if (offerSeed && controller.type() == OTSyncControllerTypeServer && controller.currentState()) {
      const auto claimed = this->claimedRemoteStateForSyncController(controller);
      const OTState current = *controller.currentState();
      if (claimed && claimed->clientIndex() == current.clientIndex() && claimed->serverIndex() < current.serverIndex())
        if (auto seed = controller.generateSeed())
          if (auto bytes = seed->data()) messages.push_back({Message::Seed, {}, std::move(*bytes), {}});
    }
    return messages;
  }

  // Handles one message; returns the reply to send, if any.
  std::optional<Message> receive(const Message& message) {
    switch (message.kind) {
      case Message::Component:
        this->receivePathComponentData(message.data);
        // Acknowledged even when refused: a component of another pairing is
        // never going to be accepted.
        return Message{Message::Acknowledgement, message.uniqueIdentifier, {}, {}};
      case Message::Acknowledgement:
        this->acknowledgeTransfer(message.uniqueIdentifier);
        sent.erase(message.uniqueIdentifier);
        return std::nullopt;
      case Message::Claim: {
        // Claims can arrive out of order; a device's state only grows.
        auto controllerRef = controller.lock();
        std::optional<OTState> claimed =
            controllerRef ? this->claimedRemoteStateForSyncController(*controllerRef) : std::nullopt;
        if (!claimed || (message.state.serverIndex() >= claimed->serverIndex() &&
                         message.state.clientIndex() >= claimed->clientIndex()))
          this->setClaimedRemoteState(message.state);
        return std::nullopt;
      }
      case Message::Seed:
        if (auto seed = OTPathComponent::initWithData(message.data); seed && seed->isSeed()) receivedSeed = seed;
        return std::nullopt;
    }
    return std::nullopt;
  }

  void maybeCrash() {
    if (crashCountdown > 0) --crashCountdown;
    if (crashCountdown == 0) {
      crashCountdown = -1;
      throw Crash{};
    }
  }

 private:
  void persist(const std::string& uuid) {
    if (!persistsModel) return;
    auto it = model.find(uuid);
    if (it == model.end()) {
      this->setHostValueForKey(std::nullopt, "e/" + uuid);
      return;
    }
    Dictionary properties;
    for (const auto& [name, value] : it->second.properties) properties.insert_or_assign(Value(name), value);
    this->setHostValueForKey(Value::dictionary({{"kind", Value(it->second.kind)}, {"properties", Value(properties)}}),
                             "e/" + uuid);
  }

  Ref<OTPathComponent> receivedSeed;
  std::set<std::string> sent;
  std::optional<OTState> integratingFrom;
};

}  // namespace loomwork::synctest
