// Seeded randomized checks of the transaction algebra against the entity
// store of GraphModel.h.
#include <gtest/gtest.h>

#include "GraphModel.h"
#include "loomwork/additions/PropertyListAdditions.h"

namespace loomwork::graphtest {
namespace {

constexpr uint64_t kSeed = 20240611;
constexpr int kCases = 1500;

// The parts [lo, hi) composed with a random grouping.
Ref<UGMutableTransaction> composeGrouped(Rng& rng, const std::vector<Ref<UGMutableTransaction>>& parts, size_t lo,
                                         size_t hi) {
  if (hi - lo == 1) return UGMutableTransaction::transaction()->transactionByAppendingTransaction(*parts[lo]);
  const size_t mid = lo + 1 + static_cast<size_t>(uniform(rng, 0, static_cast<int>(hi - lo) - 2));
  auto left = composeGrouped(rng, parts, lo, mid);
  auto right = composeGrouped(rng, parts, mid, hi);
  if (uniform(rng, 0, 1) == 0) return left->transactionByAppendingTransaction(*right);
  right->prependTransaction(*left);
  return right;
}

TEST(GraphAlgebra, CompositionIsAssociativeAndActsLikeItsParts) {
  Rng rng(kSeed);
  for (int c = 0; c < kCases; ++c) {
    SCOPED_TRACE("seed " + std::to_string(kSeed) + " case " + std::to_string(c));
    const Store start = randomStore(rng);
    const auto parts = randomSequence(rng, start, uniform(rng, 1, 5));

    auto folded = UGMutableTransaction::transaction();
    folded->setContainsMutableOperations(uniform(rng, 0, 1) == 1);
    auto consumed = folded->mutableCopy(), prepended = folded->mutableCopy();
    Store stepwise = start;
    for (const auto& part : parts) {
      folded->appendTransaction(*part);
      auto spent = part->mutableCopy();
      consumed->appendAndConsumeTransaction(*spent);
      EXPECT_EQ(spent->count(), 0u);
      applyTransaction(stepwise, *part);
    }
    for (auto it = parts.rbegin(); it != parts.rend(); ++it) prepended->prependTransaction(**it);
    const auto grouped = composeGrouped(rng, parts, 0, parts.size());

    for (const auto& other : {grouped, prepended, consumed})
      EXPECT_TRUE(contentOf(*folded) == contentOf(*other)) << folded->description() << other->description();
    for (const std::string& uuid : *folded) EXPECT_NE(folded->operationForUUID(uuid)->type(), I);

    Store composed = start;
    applyTransaction(composed, *folded);
    ASSERT_EQ(observable(composed), observable(stepwise)) << folded->description();
  }
}

// Reduction. The server's line R and a concurrent line O start from the same
// store; M merges them as a sync merge does (R's change of every entity unless
// O's overrides it; now and then none, or an IDENTITY), and the server, having
// applied R, applies M reduced by R. The flag, the conjunction of the
// entities' flags, claims that this reaches M's state. It may say no where the
// state is reached all the same, and relation transforms take no part (as
// Transaction.ReductionTable pins), so R and O carry none.
TEST(GraphAlgebra, ReductionReachesTheMergedStateWhenItSaysSo) {
  Rng rng(kSeed + 1);
  int exactCases = 0;
  for (int c = 0; c < kCases; ++c) {
    SCOPED_TRACE("seed " + std::to_string(kSeed + 1) + " case " + std::to_string(c));
    const Store start = randomStore(rng);
    auto line = [&] {  // a few steps from the start, composed
      auto composed = UGMutableTransaction::transaction();
      for (const auto& part : randomSequence(rng, start, 3, false)) composed->appendTransaction(*part);
      return composed;
    };
    const auto r = line(), o = line();

    auto m = UGMutableTransaction::transactionContainingMutableOperations();
    for (const std::string& uuid : kUUIDs) {
      auto mine = r->operationForUUID(uuid), theirs = o->operationForUUID(uuid);
      Ref<UGEntityOperation> chosen = mine ? mine : theirs;
      if (const int pick = uniform(rng, 0, 2); mine && theirs && theirs->type() != I && pick > 0) {
        auto merged = mine->mutableCopy();
        merged->simpleMergeWithOperationPropertyMergeBlock(
            *theirs, [&](const std::string&, const Value& a, const Value& b) { return uniform(rng, 0, 1) ? a : b; });
        chosen = pick == 1 ? theirs : merged;
      }
      const int drop = uniform(rng, 0, 9);
      if (chosen && drop == 0) chosen = make<UGEntityOperation>(I, "Kind" + uuid);
      if (chosen && drop != 1) m->setOperationForUUID(chosen, uuid);
    }

    Store viaM = start, viaR = start;
    applyTransaction(viaM, *m);
    applyTransaction(viaR, *r);
    auto reduced = m->mutableCopy();
    const bool exact = reduced->reduceByTransaction(*r);
    applyTransaction(viaR, *reduced);
    const std::string context = m->description() + r->description() + reduced->description();
    if (exact) {
      ++exactCases;
      EXPECT_EQ(observable(viaR), observable(viaM)) << context;
    }

    // Each entity of R reduced on its own: an exact flag reaches that entity's state.
    bool allExact = true;
    for (const std::string& uuid : kUUIDs) {
      auto rOperation = r->operationForUUID(uuid);
      if (!rOperation) continue;
      auto one = UGMutableTransaction::transaction();
      if (auto t = m->operationForUUID(uuid)) one->setOperationForUUID(t->mutableCopy(), uuid);
      const bool entityExact =
          one->reduceByTransaction(*UGTransaction::transactionWithOperationForUUID(rOperation, uuid));
      allExact = allExact && entityExact;
      if (entityExact) {
        EXPECT_EQ(observable({{uuid, viaR[uuid]}}), observable({{uuid, viaM[uuid]}})) << uuid << context;
      }
    }
    EXPECT_EQ(exact, allExact);
  }
  EXPECT_GT(exactCases, kCases / 10);  // or the generator has gone blind
}

// The property-list form keeps every operation and value in order, and the
// flag given on reading. It has no room for relation transforms
// (EntityOperation.PropertyListAndTextForms), so none are generated.
TEST(GraphAlgebra, PropertyListRoundTripKeepsTheOperations) {
  Rng rng(kSeed + 2);
  for (int c = 0; c < kCases / 5; ++c) {
    SCOPED_TRACE("seed " + std::to_string(kSeed + 2) + " case " + std::to_string(c));
    auto transaction = UGMutableTransaction::transaction();
    for (const auto& part : randomSequence(rng, randomStore(rng), 3, false)) transaction->appendTransaction(*part);
    const auto format = uniform(rng, 0, 1) ? PropertyListFormat::Binary : PropertyListFormat::XML;
    auto data = dataFromExtendedPropertyListFormatErrorDescription(transaction->extendedPropertyListRepresentation(),
                                                                   format, nullptr);
    ASSERT_TRUE(data);
    auto plist = extendedPropertyListFromDataMutabilityOptionFormatErrorDescription(
        *data, PropertyListMutabilityOption::Immutable, nullptr, nullptr);
    ASSERT_TRUE(plist);
    const bool flag = uniform(rng, 0, 1) == 1;
    auto read = UGMutableTransaction::initWithExtendedPropertyListContainingMutableOperations(*plist, flag);
    ASSERT_TRUE(read);
    EXPECT_EQ(read->containsMutableOperations(), flag);
    // The text form names each operation's class: reading makes mutable ones.
    EXPECT_EQ(read->description(), transaction->description());
  }
}

}  // namespace
}  // namespace loomwork::graphtest
