#include "loomwork/sync/OTSyncController.h"

#include <limits>
#include <string>

#include "loomwork/platform/Log.h"
#include "loomwork/sync/LWIsEqual.h"
#include "loomwork/sync/OTRange.h"

namespace loomwork {

namespace {

constexpr int64_t kMin = std::numeric_limits<int64_t>::min();
constexpr int64_t kMax = std::numeric_limits<int64_t>::max();

Ref<OTRange> box(int64_t fromClient, int64_t toClient, int64_t fromServer, int64_t toServer) {
  return OTRange::rangeFromClientIndexToClientIndexFromServerIndexToServerIndex(fromClient, toClient, fromServer,
                                                                                 toServer);
}

std::string pathText(const OTState& from, const OTState& to) {
  return "(" + std::to_string(from.serverIndex()) + "," + std::to_string(from.clientIndex()) + ")->(" +
         std::to_string(to.serverIndex()) + "," + std::to_string(to.clientIndex()) + ")";
}

// The state with its server index (or else its client index) replaced.
OTState stateWithIndex(const OTState& state, bool serverIndex, int64_t index) {
  return serverIndex ? state.stateByUpdatingServerIndex(index) : state.stateByUpdatingClientIndex(index);
}

// A component along one of the indexes, from one value of it to another; the
// other index stays as in `state`.
Ref<OTPathComponent> componentAlongIndex(const Ref<OTStateSpaceIdentifier>& space,
                                         Ref<UGMutableTransaction> operation, const OTState& state, bool serverIndex,
                                         int64_t fromIndex, int64_t toIndex) {
  return make<OTPathComponent>(space, std::move(operation), stateWithIndex(state, serverIndex, fromIndex),
                               stateWithIndex(state, serverIndex, toIndex));
}

}  // namespace

// MARK: Persisted fields

void OTSyncController::setStateSpaceIdentifier(const Ref<OTStateSpaceIdentifier>& identifier) {
  // Deliberately one-way: an absent identifier is ignored, so reset() keeps the
  // old one in memory until the next seed sets a new one.
  if (!identifier) return;
  if (LWIsEqual(stateSpaceIdentifier_, identifier)) return;
  stateSpaceIdentifier_ = identifier;
  if (auto source = dataSource()) {
    std::optional<Value> full;
    if (identifier->fullIdentifier()) full = Value(*identifier->fullIdentifier());
    source->OTSyncControllerSetValueForKey(*this, full, kOTSyncControllerStateSpaceIdentifier);
  }
}

void OTSyncController::setCurrentState(const std::optional<OTState>& state) {
  if (currentState_ && state && *currentState_ == *state) return;
  currentState_ = state;
  if (auto source = dataSource()) {
    std::optional<Value> plist;
    if (state) plist = state->extendedPropertyListRepresentation();
    source->OTSyncControllerSetValueForKey(*this, plist, kOTSyncControllerCurrentState);
  }
}

void OTSyncController::setInternalState(uint64_t internalState) {
  if (internalState == internalState_) return;
  internalState_ = internalState;
  if (auto source = dataSource())
    source->OTSyncControllerSetValueForKey(*this, Value(static_cast<int64_t>(internalState)),
                                           kOTSyncControllerInternalState);
}

int64_t OTSyncController::currentLocalIndex() const {
  const OTState state = stateOrOrigin();
  return isServer() ? state.serverIndex() : state.clientIndex();
}

int64_t OTSyncController::currentRemoteIndex() const {
  const OTState state = stateOrOrigin();
  return isServer() ? state.clientIndex() : state.serverIndex();
}

void OTSyncController::setCurrentLocalIndex(int64_t index) {
  const OTState state = stateOrOrigin();
  setCurrentState(isServer() ? state.stateByUpdatingServerIndex(index) : state.stateByUpdatingClientIndex(index));
}

void OTSyncController::setCurrentRemoteIndex(int64_t index) {
  const OTState state = stateOrOrigin();
  setCurrentState(isServer() ? state.stateByUpdatingClientIndex(index) : state.stateByUpdatingServerIndex(index));
}

std::optional<OTState> OTSyncController::largestStateKnownToBeReachableByClient() const {
  auto source = dataSource();
  if (!source) return std::nullopt;
  return source->stateWithLargestClientIndexPointedToByPathComponentWithLargestServerIndexForOTSyncController(
      const_cast<OTSyncController&>(*this));
}

std::optional<OTState> OTSyncController::smallestPossibleClientState() const {
  auto source = dataSource();
  if (!source) return std::nullopt;
  return source->stateWithLargestClientIndexBeingOriginOfPathComponentWithSmallestServerIndexForOTSyncController(
      const_cast<OTSyncController&>(*this));
}

// MARK: Lifecycle

void OTSyncController::restoreInternalState() {
  if (internalStateRestored_) return;
  auto source = dataSource();
  auto read = [&](std::string_view key) -> std::optional<Value> {
    return source ? source->OTSyncControllerValueForKey(*this, key) : std::nullopt;
  };
  // Nothing read here is written back: the fields are set directly.
  const std::optional<Value> stored = read(kOTSyncControllerInternalState);
  internalState_ = stored && stored->isNumber() ? static_cast<uint64_t>(stored->integerValue()) : 0;
  if (internalState_ == 1) {
    const std::optional<Value> identifier = read(kOTSyncControllerStateSpaceIdentifier);
    if (identifier && identifier->isString()) {
      stateSpaceIdentifier_ = OTStateSpaceIdentifier::stateSpaceIdentifierWithFullIdentifier(
          std::string(identifier->string()));
      const std::optional<Value> state = read(kOTSyncControllerCurrentState);
      currentState_ = state ? OTState::initWithExtendedPropertyList(*state).value_or(OTState()) : OTState();
    } else {
      internalState_ = 0;
    }
  }
  if (internalState_ == 0) {
    stateSpaceIdentifier_.reset();
    currentState_.reset();
  }
  internalStateRestored_ = true;
}

void OTSyncController::resetIfNeededAndSeedUsingStateSpaceIdentifier(const Ref<OTStateSpaceIdentifier>& identifier) {
  if (internalState_ == 1) {
    reset();
  } else if (internalState_ != 0) {
    return;
  }
  performTransaction([&] {
    setInternalState(1);
    setStateSpaceIdentifier(identifier);
    setCurrentState(OTState(0, 0));
    auto source = dataSource();
    Ref<UGTransaction> seed = source ? source->seedForOTSyncController(*this) : nullptr;
    if (seed && !seed->isIdentity()) stageLocalOperation(*seed);
  });
}

void OTSyncController::reset() {
  if (internalState_ != 1) return;
  performTransaction([&] {
    if (auto source = dataSource()) source->removeAllMetadataForOTSyncController(*this);
    setStateSpaceIdentifier(nullptr);
    setCurrentState(std::nullopt);
    setInternalState(0);
  });
}

bool OTSyncController::canStageLocalOperations() const {
  return internalStateRestored_ && internalState_ == 1 && dataSource() != nullptr;
}

void OTSyncController::stageLocalOperation(const UGTransaction& transaction) {
  if (internalState_ != 1 || (!isServer() && !isClient())) return;
  auto source = dataSource();
  if (!source) return;
  performTransaction([&] {
    const int64_t local = currentLocalIndex();
    Ref<OTPathComponent> component =
        pathComponentFromLocalIndexToLocalIndexOperation(local, local + 1, transaction.mutableCopy());
    bool enqueue = true;
    if (isServer()) {
      // The server's line is worth sending only while the client can follow it
      // from where it stands; otherwise the change reaches the client through
      // the next merge.
      const OTState reachable = largestStateKnownToBeReachableByClient().value_or(OTState());
      enqueue = reachable.clientIndex() == stateOrOrigin().clientIndex();
    }
    source->OTSyncControllerRecordPathComponentEnqueueForTransfer(*this, component, enqueue);
    setCurrentLocalIndex(local + 1);
  });
}

// MARK: Processing

void OTSyncController::processInternalStateAllowingHostUpdate(bool allowHostUpdate) {
  if (internalState_ != 1) return;
  if (isServer()) {
    mergeWithClientIfNeeded();
    if (allowHostUpdate) advanceRemoteStateIfPossible();
    clean();
  } else if (isClient()) {
    if (allowHostUpdate) advanceRemoteStateIfPossible();
    clean();
  }
}

void OTSyncController::mergeWithClientIfNeeded() {
  if (!isServer() || !internalStateRestored_ || internalState_ != 1 || !mergeClass_) return;
  auto source = dataSource();
  if (!source) return;
  const OTState current = stateOrOrigin();
  const OTState reachable = largestStateKnownToBeReachableByClient().value_or(OTState());
  auto differInBoth = [](const OTState& a, const OTState& b) {
    return a.serverIndex() != b.serverIndex() && a.clientIndex() != b.clientIndex();
  };
  if (!differInBoth(current, reachable)) return;
  const OTState base = OTState::baseStateOfStateAndState(current, reachable);
  if (differInBoth(current, base) || differInBoth(reachable, base)) return;

  const auto serverComponents = source->OTSyncControllerPathComponentsInRange(
      *this, *box(base.clientIndex(), base.clientIndex(), base.serverIndex(), current.serverIndex()));
  const Ref<OTPathComponent> serverLine = composePathComponentsFromStateUpToState(serverComponents, base, current);
  if (!serverLine || !serverLine->toState() || *serverLine->toState() != current) return;

  const auto clientComponents = source->OTSyncControllerPathComponentsInRange(
      *this, *box(base.clientIndex(), reachable.clientIndex(), base.serverIndex(), base.serverIndex()));
  const Ref<OTPathComponent> clientLine = composePathComponentsFromStateUpToState(clientComponents, base, reachable);
  if (!clientLine || !clientLine->toState() || *clientLine->toState() != reachable) {
    logMessage("OTSyncController: Could not reconstruct client path component  " + pathText(base, reachable));
    return;
  }

  const OTState target(std::max(current.serverIndex(), reachable.serverIndex()),
                       std::max(current.clientIndex(), reachable.clientIndex()));
  const Ref<OTMerge> merge = mergeClass_();
  if (!merge) return;
  Ref<UGMutableTransaction> merged =
      merge->mergeServerOperationClientOperation(*serverLine->operation(), *clientLine->operation());
  const auto mergedComponent =
      make<OTPathComponent>(serverLine->stateSpaceIdentifier(), std::move(merged), base, target);

  // Recorded one by one, outside any controller transaction, the server's
  // remainder first.
  Ref<OTPathComponent> forServer = mergedComponent->copy();
  forServer->reduceByPathComponent(*serverLine);
  source->OTSyncControllerRecordPathComponentEnqueueForTransfer(*this, forServer, false);
  Ref<OTPathComponent> forClient = mergedComponent->copy();
  forClient->reduceByPathComponent(*clientLine);
  source->OTSyncControllerRecordPathComponentEnqueueForTransfer(*this, forClient, true);
}

void OTSyncController::advanceRemoteStateIfPossible() {
  if (!internalStateRestored_ || internalState_ != 1) return;
  auto source = dataSource();
  if (!source || !source->OTSyncControllerCanIntegrateOperations(*this)) return;
  OTState state = stateOrOrigin();
  Ref<OTPathComponent> seed = source->availableSeedForSyncController(*this);
  const bool useSeed = seed && canIntegrateSeedFromState(*seed, state);
  if (useSeed) state = *seed->toState();
  // The composition starts at the current state even after a seed moved
  // `state`: it then normally finds nothing, and what follows the seed is
  // integrated by a later pass.
  Ref<OTPathComponent> composition;
  const auto components = requestPathComponentsOnFutureRemoteLineFromState(state);
  if (!components.empty()) composition = composePathComponentsFromStateUpToState(components, stateOrOrigin(), {});
  if (!useSeed && !composition) return;

  // The block may run later; it must not keep the controller alive, nor touch
  // it once it is gone.
  std::weak_ptr<const Object> weak = weak_from_this();
  const bool owned = !weak.expired();
  auto block = [this, weak, owned, seed = useSeed ? seed : nullptr, composition] {
    std::shared_ptr<const Object> keep = weak.lock();
    if (owned && !keep) return;
    performTransaction([&] {
      auto source = dataSource();
      if (!source) return;
      if (seed) {
        source->OTSyncControllerIntegrateReplacementSeed(*this, seed->operation());
        setCurrentState(seed->toState());
      }
      if (composition) {
        source->OTSyncControllerIntegrateAndConsumeOperation(*this, composition->operation());
        setCurrentState(composition->toState());
      }
    });
  };
  source->OTSyncControllerPerformIntegrationBlock(*this, std::move(block));
}

void OTSyncController::clean() {
  auto source = dataSource();
  if (!source) return;
  const OTState current = stateOrOrigin();
  std::vector<Ref<OTRange>> keep;
  if (isClient()) {
    const std::optional<OTState> claimed = source->claimedRemoteStateForSyncController(*this);
    const int64_t confirmed = claimed ? claimed->clientIndex() : kMin;
    keep.push_back(box(current.clientIndex(), kMax, current.serverIndex(), kMax));
    keep.push_back(box(confirmed, current.clientIndex(), current.serverIndex(), current.serverIndex()));
    keep.push_back(box(0, 0, 0, 0));
  } else if (isServer()) {
    OTState smallest = smallestPossibleClientState().value_or(OTState());
    const std::optional<OTState> claimed = source->claimedRemoteStateForSyncController(*this);
    if (claimed && smallest.clientIndex() <= claimed->clientIndex() &&
        smallest.serverIndex() <= claimed->serverIndex())
      smallest = *claimed;
    const OTState base = OTState::baseStateOfStateAndState(current, smallest);
    keep.push_back(box(base.clientIndex(), kMax, base.serverIndex(), kMax));
    keep.push_back(box(0, 0, 0, 0));
  } else {
    return;
  }
  source->OTSyncControllerRemovePathComponentsNotInRange(*this, *OTRange::rangeFromUnionOfRanges(std::move(keep)));
}

Ref<OTPathComponent> OTSyncController::generateSeed() {
  auto source = dataSource();
  if (!source || !currentState_) return nullptr;
  Ref<UGTransaction> seed = source->seedForOTSyncController(*this);
  Ref<UGMutableTransaction> operation = seed ? seed->mutableCopy() : UGMutableTransaction::transaction();
  return make<OTPathComponent>(stateSpaceIdentifier_, std::move(operation), OTState(0, 0), currentState_);
}

// MARK: Transactions

void OTSyncController::beginTransaction() {
  if (++transactionCount_ == 1) {
    if (auto source = dataSource()) source->beginTransactionForOTSyncController(*this);
  }
}

void OTSyncController::endTransaction() {
  if (--transactionCount_ == 0) {
    if (auto source = dataSource()) source->endTransactionForOTSyncController(*this);
  }
}

void OTSyncController::performTransaction(const std::function<void()>& block) {
  beginTransaction();
  if (block) block();
  endTransaction();
}

// MARK: Building blocks

bool OTSyncController::canIntegrateSeedFromState(const OTPathComponent& seed, const OTState& state) const {
  if (!seed.isSeed() || !seed.toState()) return false;
  if (!stateSpaceIdentifier_ || !seed.stateSpaceIdentifier() ||
      !stateSpaceIdentifier_->isEqual(*seed.stateSpaceIdentifier()))
    return false;
  const OTState& end = *seed.toState();
  if (isClient()) return state.clientIndex() == end.clientIndex() && state.serverIndex() < end.serverIndex();
  if (isServer()) return state.serverIndex() == end.serverIndex() && state.clientIndex() < end.clientIndex();
  return false;
}

std::vector<Ref<OTPathComponent>> OTSyncController::requestPathComponentsOnFutureRemoteLineFromState(
    const OTState& state) const {
  auto source = dataSource();
  if (!source) return {};
  Ref<OTRange> line;
  if (isClient()) {
    line = box(state.clientIndex(), state.clientIndex(), state.serverIndex(), kMax);
  } else if (isServer()) {
    line = box(state.clientIndex(), kMax, state.serverIndex(), state.serverIndex());
  } else {
    return {};
  }
  return source->OTSyncControllerPathComponentsInRange(const_cast<OTSyncController&>(*this), *line);
}

Ref<OTPathComponent> OTSyncController::pathComponentFromLocalIndexToLocalIndexOperation(
    int64_t fromIndex, int64_t toIndex, Ref<UGMutableTransaction> operation) const {
  // The local index is the server index on a server, the client index elsewhere.
  return componentAlongIndex(stateSpaceIdentifier_, std::move(operation), stateOrOrigin(), isServer(), fromIndex,
                             toIndex);
}

Ref<OTPathComponent> OTSyncController::pathComponentFromRemoteIndexToRemoteIndexOperation(
    int64_t fromIndex, int64_t toIndex, Ref<UGMutableTransaction> operation) const {
  return componentAlongIndex(stateSpaceIdentifier_, std::move(operation), stateOrOrigin(), !isServer(), fromIndex,
                             toIndex);
}

std::string OTSyncController::description() const {
  const char* side = isServer() ? "server" : isClient() ? "client" : "unknown";
  return std::string("<OTSyncController: ") + side +
         " state:" + (currentState_ ? currentState_->description() : std::string("nil")) +
         " internalState:" + std::to_string(internalState_) + ">";
}

}  // namespace loomwork
