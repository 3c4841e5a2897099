// Transactions: copying and the mutable-operations mode, composition and
// normalisation, merge, the reduction table, queries, the text form, graph
// identity, and the order-keeping operation table.
#include <gtest/gtest.h>

#include <random>

#include "loomwork/graph.h"

namespace loomwork {
namespace {

Ref<UGMutableEntityOperation> op(UGEntityOperationType type, UGPropertyDictionary properties = {}) {
  return make<UGMutableEntityOperation>(type, "Kind", std::move(properties));
}

Ref<UGMutableTransaction> txn(std::initializer_list<std::pair<std::string, Ref<UGMutableEntityOperation>>> entries) {
  auto transaction = UGMutableTransaction::transaction();
  for (const auto& [uuid, operation] : entries) transaction->setOperationForUUID(operation, uuid);
  return transaction;
}

// "X:TYPE a=1 b=2;" per operation, in order.
std::string contentOf(const UGTransaction& transaction) {
  std::string text;
  for (const auto& entry : transaction.operations()) {
    text += entry.uuid + ":" + std::string(UGEntityOperationTypeDescription(entry.operation->type()));
    for (const auto& [name, value] : entry.operation->properties()) text += " " + name + "=" + value.description();
    text += ";";
  }
  return text;
}

constexpr auto C = UGEntityOperationTypeCreate;
constexpr auto U = UGEntityOperationTypeUpdate;
constexpr auto D = UGEntityOperationTypeDelete;
constexpr auto I = UGEntityOperationTypeIdentity;

TEST(Transaction, CompositionAndNormalisation) {
  auto t = txn({{"X", op(C, {{"a", 1}})}});
  t->appendTransaction(*txn({{"X", op(D)}}));
  EXPECT_EQ(t->count(), 0u);
  EXPECT_TRUE(t->isIdentity());

  t = txn({{"X", op(D)}});
  t->appendTransaction(*txn({{"X", op(U, {{"a", 1}})}}));
  EXPECT_EQ(contentOf(*t), "X:DELETE;");
  t = txn({{"X", op(U, {{"b", 2}})}});
  t->prependTransaction(*txn({{"X", op(C, {{"a", 1}, {"b", 1}})}}));
  EXPECT_EQ(contentOf(*t), "X:CREATE b=2 a=1;");

  // Single-operation calls do not normalise; identities of untouched UUIDs stay.
  t = txn({{"Y", op(I)}, {"X", op(C)}});
  t->appendOperationForUUID(op(D), "X");
  EXPECT_EQ(contentOf(*t), "Y:IDENTITY;X:IDENTITY;");
  t->appendTransaction(*txn({{"X", op(I)}}));
  EXPECT_EQ(contentOf(*t), "Y:IDENTITY;");
  EXPECT_TRUE(t->isIdentity());
  t->normalize();
  EXPECT_EQ(contentOf(*t), "");

  // Consuming empties the argument and stores its operations themselves.
  auto later = txn({{"X", op(U, {{"a", 1}})}, {"Y", op(C)}});
  auto y = later->operationForUUID("Y");
  t = txn({{"X", op(U, {{"b", 2}})}});
  t->appendAndConsumeTransaction(*later);
  EXPECT_EQ(later->count(), 0u);
  EXPECT_EQ(t->operationForUUID("Y"), y);
  EXPECT_EQ(contentOf(*t), "X:UPDATE b=2 a=1;Y:CREATE;");
  // A transaction appended to itself, and a removed UUID added again (it goes last).
  t->appendTransaction(*t);
  EXPECT_EQ(contentOf(*t), "X:UPDATE b=2 a=1;Y:CREATE;");
  t->removeOperationForUUID("X");
  t->setOperationForUUID(op(U), "X");
  EXPECT_EQ(t->allUUIDsArray(), (std::vector<std::string>{"Y", "X"}));
}

TEST(Transaction, MutableOperationsModeAndCopies) {
  auto live = op(U, {{"a", 1}});
  auto plain = UGMutableTransaction::transaction();
  plain->setOperationForUUID(live, "X");
  live->setValueForProperty(Value(2), "a");
  EXPECT_EQ(plain->operationForUUID("X"), live);  // the same live object

  auto owning = UGMutableTransaction::transactionContainingMutableOperationForUUID(live, "X");
  EXPECT_NE(owning->operationForUUID("X"), live);
  owning->appendOperationForUUID(op(U, {{"b", 3}}), "X");  // in place
  auto held = owning->operationForUUID("X");
  EXPECT_EQ(held->properties().size(), 2u);
  plain->appendOperationForUUID(op(U, {{"b", 3}}), "X");  // replaced by a new object
  EXPECT_NE(plain->operationForUUID("X"), live);
  EXPECT_EQ(live->properties().size(), 1u);

  // copy(): a plain transaction is itself; a mutable one gives a plain one with the same objects.
  auto frozen = owning->copy();
  EXPECT_EQ(frozen->className(), "UGTransaction");
  EXPECT_TRUE(frozen->operationForUUID("X") == held && frozen->copy() == frozen);
  // mutableCopy(): the source's mode, copies of the operations only in that mode.
  auto again = owning->mutableCopy();
  EXPECT_TRUE(again->containsMutableOperations());
  EXPECT_NE(again->operationForUUID("X"), held);
  auto fromFrozen = frozen->mutableCopy();
  EXPECT_FALSE(fromFrozen->containsMutableOperations());
  EXPECT_EQ(fromFrozen->operationForUUID("X"), held);
  EXPECT_EQ(UGTransaction::transactionWithOperationForUUID(live, "X")->className(), "UGTransaction");

  // Switching the mode converts; switching back keeps the objects.
  auto shared = UGMutableTransaction::transactionWithOperationForUUID(live, "X");
  shared->setContainsMutableOperations(true);
  auto converted = shared->operationForUUID("X");
  EXPECT_NE(converted, live);
  shared->setContainsMutableOperations(false);
  EXPECT_EQ(shared->operationForUUID("X"), converted);

  // Merge: nothing at all without mutable operations; otherwise the block for shared UUIDs.
  int calls = 0;
  auto block = [&](UGMutableEntityOperation& mine, const UGEntityOperation& theirs) {
    ++calls;
    mine.setValueForProperty(theirs.valueForProperty("b"), "b");
  };
  auto other = txn({{"X", op(U, {{"b", 9}})}, {"Z", op(C)}});
  shared->simpleMergeWithTransactionOperationMergeBlock(*other, block);
  EXPECT_EQ(calls, 0);
  EXPECT_EQ(shared->count(), 1u);
  owning->simpleMergeWithTransactionOperationMergeBlock(*other, block);
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(contentOf(*owning), "X:UPDATE a=2 b=9;Z:CREATE;");

  // Inversion goes through every operation, lossy as entity operations are.
  EXPECT_EQ(contentOf(*owning->transactionByInvertingOperations()), "X:UPDATE;Z:DELETE;");
  EXPECT_EQ(contentOf(*owning), "X:UPDATE a=2 b=9;Z:CREATE;");
}

TEST(Transaction, ReductionTable) {
  struct Case { UGEntityOperationType r; std::optional<UGEntityOperationType> t; const char* result; bool exact; };
  // r sets a=1 b=2; t sets a=1 c=3.
  const Case cases[] = {
      {C, std::nullopt, "X:DELETE;", true}, {C, I, "X:DELETE;", true},
      {C, D, "X:DELETE;", true}, {C, C, "X:UPDATE c=3;", false},
      {C, U, "X:UPDATE a=1 c=3;", true}, {U, std::nullopt, "", false},
      {U, I, "", false}, {U, U, "X:UPDATE c=3;", false},
      {U, C, "X:UPDATE a=1 c=3;", true}, {U, D, "X:DELETE;", true},
      {D, std::nullopt, "", false}, {D, I, "", false},
      {D, U, "X:UPDATE a=1 c=3;", false}, {D, D, "", true},
      {D, C, "X:CREATE a=1 c=3;", true}, {I, C, "X:CREATE a=1 c=3;", true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(c.r) + " reducing " + (c.t ? std::to_string(*c.t) : "absent"));
    auto t = UGMutableTransaction::transaction();
    if (c.t) t->setOperationForUUID(UGEntityOperation::operationWithTypeEntityName(*c.t, "K"), "X");
    if (c.t && *c.t != I && *c.t != D) t->setOperationForUUID(op(*c.t, {{"a", 1}, {"c", 3}}), "X");
    const bool rSets = c.r != I && c.r != D;
    auto r = txn({{"X", rSets ? op(c.r, {{"a", 1}, {"b", 2}}) : op(c.r)}});
    EXPECT_EQ(t->reduceByTransaction(*r), c.exact);
    EXPECT_EQ(contentOf(*t), c.result);
  }
  // Reducing by a CREATE that sets less, or other values; then the receiver
  // itself and nothing. (Fresh receivers each time: reduction changes mutable
  // operations in place, and mutableCopy() of a plain transaction shares them.)
  auto created = [] { return txn({{"X", op(C, {{"a", 1}, {"b", 2}})}}); };
  auto t = created();
  EXPECT_TRUE(t->reduceByTransaction(*txn({{"X", op(C, {{"a", 1}})}})));
  EXPECT_EQ(contentOf(*t), "X:UPDATE b=2;");
  t = created();
  EXPECT_FALSE(t->reduceByTransaction(*txn({{"X", op(C, {{"a", 1}, {"c", 3}})}})));
  EXPECT_EQ(contentOf(*t), "X:UPDATE b=2;");
  auto identity = txn({{"X", op(I)}});
  EXPECT_TRUE(identity->reduceByTransaction(*txn({{"X", op(U)}})));
  t = created();
  EXPECT_TRUE(t->reduceByTransaction(nullptr));
  EXPECT_EQ(t->count(), 1u);
  EXPECT_TRUE(t->reduceByTransaction(*t));
  EXPECT_EQ(t->count(), 0u);
  // Relation transforms take no part: an UPDATE left without values is
  // dropped with its transform, and the flag still says exact.
  auto related = op(U, {{"a", 1}});
  related->setTransformForRelation(UGMutableListTransform::transform(), "r");
  auto withRelation = txn({{"X", related}});
  EXPECT_TRUE(withRelation->reduceByTransaction(*txn({{"X", op(U, {{"a", 1}})}})));
  EXPECT_EQ(withRelation->count(), 0u);
  // A shared operation that is not mutable is replaced, not changed.
  auto frozen = make<UGEntityOperation>(C, "K", UGPropertyDictionary{{"a", 1}, {"b", 2}});
  auto holder = UGMutableTransaction::transactionWithOperationForUUID(frozen, "X");
  holder->reduceByTransaction(*txn({{"X", op(C, {{"a", 1}})}}));
  EXPECT_EQ(frozen->type(), C);
  EXPECT_EQ(contentOf(*holder), "X:UPDATE b=2;");
}

struct Model : Object {
  explicit Model(std::optional<Value> uuid) : uuid(std::move(uuid)) {}
  std::optional<Value> valueForKey(std::string_view key) const override {
    return key == "globalObjectUUID" ? uuid : std::nullopt;
  }
  std::optional<Value> uuid;
};

TEST(Transaction, QueriesTextAndGraphObjects) {
  auto update = op(U, {{"title", "x"}});
  update->setTransformForRelation(UGMutableListTransform::transform(), "items");
  auto t = txn({{"U-1", update}, {"U-2", op(D)}, {"U-3", op(C, {{"title", "y"}})}});
  EXPECT_EQ(t->valueForKeyPath("U-1.properties.title")->string(), "x");
  EXPECT_FALSE(t->valueForKeyPath("U-9.properties"));
  EXPECT_EQ(std::vector<std::string>(t->begin(), t->end()), (std::vector<std::string>{"U-1", "U-2", "U-3"}));
  EXPECT_EQ((*t)["U-2"], t->operationForUUID("U-2"));
  EXPECT_TRUE(t->allUUIDs().contains("U-3"));
  int visited = 0;
  t->enumerateEntityOperations(
      [&](const std::string&, const Ref<UGEntityOperation>&, bool& stop) { stop = ++visited == 2; });
  EXPECT_EQ(visited, 2);

  EXPECT_TRUE(t->containsDeletedEntityWithUUID("U-2") && !t->containsDeletedEntityWithUUID("U-9"));
  EXPECT_EQ(t->valueForPropertyOfUpdatedEntityWithUUID("title", "U-1")->string(), "x");
  EXPECT_FALSE(t->valueForPropertyOfUpdatedEntityWithUUID("title", "U-3"));  // a CREATE is not consulted
  EXPECT_TRUE(t->transformForRelationOfUpdatedEntityWithUUID("items", "U-1") &&
              !t->transformForRelationOfUpdatedEntityWithUUID("items", "U-3"));
  auto named = make<Model>(Value("U-2")), nameless = make<Model>(std::nullopt), numbered = make<Model>(Value(4));
  EXPECT_EQ(universalGraphUUID(*named), "U-2");
  EXPECT_EQ(universalGraphUUID(*nameless).rfind("MemoryBasedUUID-", 0), 0u);
  EXPECT_EQ(universalGraphUUID(*numbered), universalGraphUUID(*numbered));
  EXPECT_NE(universalGraphUUID(*numbered), universalGraphUUID(*nameless));
  EXPECT_TRUE(t->containsDeletedObject(named.get()));
  EXPECT_FALSE(t->containsDeletedObject(nullptr) || t->valueForPropertyOfUpdatedObject("title", nullptr));

  auto small = txn({{"A", op(U, {{"n", 1}})}, {"B", op(static_cast<UGEntityOperationType>(7))}});
  std::dynamic_pointer_cast<UGMutableEntityOperation>(small->operationForUUID("B"))->setEntityName(std::nullopt);
  EXPECT_EQ(small->description(),
            "UGMutableTransaction with 2 operations: {\n"
            "\n    UPDATE Kind \"A\" (1 properties, 0 relations) (UGMutableEntityOperation)\n\n"
            "        n -> 1\n\n\n"
            "\n    <missing> nil \"B\" (0 properties, 0 relations) (UGMutableEntityOperation)\n\n\n\n"
            "\n}\n");
  EXPECT_THROW(small->extendedPropertyListRepresentation(), Exception);

  // Unreadable entries are skipped; a non-dictionary reads as nothing.
  Dictionary plist = t->extendedPropertyListRepresentation().dictionary();
  plist.insert_or_assign(Value("bad"), Value(1));
  plist.insert_or_assign(Value(5), update->extendedPropertyListRepresentation());
  auto read = UGTransaction::initWithExtendedPropertyListContainingMutableOperations(Value(plist), false);
  EXPECT_EQ(contentOf(*read), contentOf(*t));
  EXPECT_FALSE(UGMutableTransaction::initWithExtendedPropertyListContainingMutableOperations(Value(1), true));
}

// The table against a plain vector of (uuid, value) pairs, through enough
// removals to compact several times.
TEST(Transaction, OperationTableKeepsOrderThroughRemovals) {
  constexpr uint64_t kSeed = 77;
  std::mt19937_64 rng(kSeed);
  SCOPED_TRACE("seed " + std::to_string(kSeed));
  UGOperationTable table;
  std::vector<std::pair<std::string, Ref<UGEntityOperation>>> reference;
  for (int step = 0; step < 20000; ++step) {
    const std::string uuid = "K" + std::to_string(rng() % 300);
    auto it = std::find_if(reference.begin(), reference.end(), [&](const auto& e) { return e.first == uuid; });
    if (rng() % 2 == 0) {
      auto operation = op(C);
      table.assign(uuid, operation);
      if (it != reference.end()) it->second = operation;
      else reference.emplace_back(uuid, operation);
    } else {
      EXPECT_EQ(table.erase(uuid), it != reference.end());
      if (it != reference.end()) reference.erase(it);
    }
    if (step % 97 == 0) table.eraseIf([&](const std::string&, const Ref<UGEntityOperation>&) { return false; });
    ASSERT_EQ(table.size(), reference.size());
    if (!reference.empty()) {
      const auto& [key, value] = reference[rng() % reference.size()];
      ASSERT_TRUE(table.find(key) && *table.find(key) == value);
    }
  }
  auto walk = [](const UGOperationTable& t) {
    std::vector<std::pair<std::string, Ref<UGEntityOperation>>> walked;
    for (const auto& entry : t) walked.emplace_back(entry.uuid, entry.operation);
    return walked;
  };
  EXPECT_EQ(walk(table), reference);
  while (reference.size() > 3) {
    ASSERT_TRUE(table.erase(reference.front().first));
    reference.erase(reference.begin());
  }
  EXPECT_EQ(walk(table), reference);
  // A small table under churn (the oldest removed, a new one added) grows an
  // index from its holes and loses it again when they are compacted away.
  for (int i = 0; i < 60; ++i) {
    reference.emplace_back("N" + std::to_string(i), op(U));
    table.assign(reference.back().first, reference.back().second);
    if (i % 3 != 0) {
      ASSERT_TRUE(table.erase(reference.front().first));
      reference.erase(reference.begin());
    }
    ASSERT_EQ(walk(table), reference);
    for (const auto& [key, value] : reference) ASSERT_TRUE(table.find(key) && *table.find(key) == value);
  }
  UGOperationTable copied = table;
  table.clear();
  EXPECT_EQ(walk(copied), reference);
}

}  // namespace
}  // namespace loomwork
