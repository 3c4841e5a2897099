// Transactions: copying and the mutable-operations mode, composition and
// normalisation, merge, the reduction table, queries, the text form, graph
// identity, and the order-keeping operation table. GraphAlgebraTests.cpp checks
// composition and reduction against a store model.
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

constexpr auto C = UGEntityOperationTypeCreate, U = UGEntityOperationTypeUpdate, D = UGEntityOperationTypeDelete,
               I = UGEntityOperationTypeIdentity, kAbsent = static_cast<UGEntityOperationType>(99);  // no operation

TEST(Transaction, CompositionAndNormalisation) {
  // The resulting types follow the entity composition table and are checked
  // at random in GraphAlgebraTests.cpp; here, the order of the values.
  auto t = txn({{"X", op(U, {{"b", 2}})}});
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

  // Consuming stores the argument's operations themselves (that it empties the
  // argument is checked in GraphAlgebraTests.cpp).
  auto later = txn({{"X", op(U, {{"a", 1}})}, {"Y", op(C)}});
  auto y = later->operationForUUID("Y");
  t = txn({{"X", op(U, {{"b", 2}})}});
  t->appendAndConsumeTransaction(*later);
  EXPECT_EQ(t->operationForUUID("Y"), y);
  EXPECT_EQ(contentOf(*t), "X:UPDATE b=2 a=1;Y:CREATE;");
  // A transaction appended to itself.
  t->appendTransaction(*t);
  EXPECT_EQ(contentOf(*t), "X:UPDATE b=2 a=1;Y:CREATE;");
}

TEST(Transaction, MutableOperationsModeAndCopies) {
  auto live = op(U, {{"a", 1}});
  auto plain = UGMutableTransaction::transaction();
  plain->setOperationForUUID(live, "X");
  live->setValueForProperty(Value(2), "a");
  EXPECT_EQ(plain->operationForUUID("X"), live);  // the same live object

  auto owning = UGMutableTransaction::transactionContainingMutableOperationForUUID(live, "X");
  auto held = owning->operationForUUID("X");
  EXPECT_NE(held, live);
  owning->appendOperationForUUID(op(U, {{"b", 3}}), "X");  // in place
  EXPECT_EQ(owning->operationForUUID("X"), held);
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
  // Rows r, columns t (absent, IDENTITY, DELETE, CREATE, UPDATE): t's content
  // after the reduction by r, led by '=' when it reports exact and '~' when not.
  // r sets a=1 b=2, t sets a=1 c=3.
  const UGEntityOperationType rows[] = {C, U, D, I}, columns[] = {kAbsent, I, D, C, U};
  const char* expected[4][5] = {
      {"=X:DELETE;", "=X:DELETE;", "=X:DELETE;", "~X:UPDATE c=3;", "=X:UPDATE a=1 c=3;"},
      {"~", "~", "=X:DELETE;", "=X:UPDATE a=1 c=3;", "~X:UPDATE c=3;"},
      {"~", "~", "=", "=X:CREATE a=1 c=3;", "~X:UPDATE a=1 c=3;"},
      {nullptr, nullptr, nullptr, "=X:CREATE a=1 c=3;", nullptr},
  };
  for (int row = 0; row < 4; ++row) {
    for (int column = 0; column < 5; ++column) {
      if (!expected[row][column]) continue;
      const auto rType = rows[row], tType = columns[column];
      SCOPED_TRACE(std::to_string(rType) + " reducing " + std::to_string(tType));
      auto t = UGMutableTransaction::transaction();
      if (tType == I || tType == D)
        t->setOperationForUUID(UGEntityOperation::operationWithTypeEntityName(tType, "K"), "X");
      if (tType == C || tType == U) t->setOperationForUUID(op(tType, {{"a", 1}, {"c", 3}}), "X");
      auto r = txn({{"X", rType == I || rType == D ? op(rType) : op(rType, {{"a", 1}, {"b", 2}})}});
      const bool exact = t->reduceByTransaction(*r);
      EXPECT_EQ((exact ? "=" : "~") + contentOf(*t), expected[row][column]);
    }
  }
  // Reducing by a CREATE that sets less, by an UPDATE that sets nothing, by the
  // receiver itself and by nothing.
  auto t = txn({{"X", op(C, {{"a", 1}, {"b", 2}})}});
  EXPECT_TRUE(t->reduceByTransaction(*txn({{"X", op(C, {{"a", 1}})}})));
  EXPECT_EQ(contentOf(*t), "X:UPDATE b=2;");
  EXPECT_TRUE(txn({{"X", op(I)}})->reduceByTransaction(*txn({{"X", op(U)}})));
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

// The table against a plain vector of (uuid, operation) pairs: many UUIDs
// (an index, compactions), then a few under churn (an index grown from holes
// and dropped again when they are compacted away).
TEST(Transaction, OperationTableKeepsOrderThroughRemovals) {
  constexpr uint64_t kSeed = 77;
  std::mt19937_64 rng(kSeed);
  SCOPED_TRACE("seed " + std::to_string(kSeed));
  using Entries = std::vector<std::pair<std::string, Ref<UGEntityOperation>>>;
  auto walk = [](const UGOperationTable& t) {
    Entries walked;
    for (const auto& entry : t) walked.emplace_back(entry.uuid, entry.operation);
    return walked;
  };
  for (uint64_t keys : {300, 6}) {
    UGOperationTable table;
    Entries reference;
    for (int step = 0; step < 10000; ++step) {
      const std::string uuid = "K" + std::to_string(rng() % keys);
      auto it = std::find_if(reference.begin(), reference.end(), [&](const auto& e) { return e.first == uuid; });
      if (rng() % 2 == 0) {
        auto operation = op(C);
        table.assign(uuid, operation);
        if (it == reference.end()) it = reference.emplace(it, uuid, operation);
        it->second = operation;
      } else {
        EXPECT_EQ(table.erase(uuid), it != reference.end());
        if (it != reference.end()) reference.erase(it);
      }
      if (step % 97 == 0) {
        const char digit = static_cast<char>('0' + rng() % 10);
        table.eraseIf([&](const std::string& u, const Ref<UGEntityOperation>&) { return u.back() == digit; });
        std::erase_if(reference, [&](const auto& e) { return e.first.back() == digit; });
        ASSERT_EQ(walk(table), reference);
      }
      ASSERT_EQ(table.size(), reference.size());
      for (const auto& [key, value] : reference) ASSERT_TRUE(table.find(key) && *table.find(key) == value) << key;
    }
    UGOperationTable copied = table;
    table.clear();
    EXPECT_EQ(walk(copied), reference);
  }
}

}  // namespace
}  // namespace loomwork
