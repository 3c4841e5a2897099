// Transactions: composition and normalisation, the mutable-operations mode,
// copies, merge, the reduction table, queries, the text form, graph identity
// and the order-keeping operation table.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

#include "graph/UGOperationTable.h"
#include "loomwork/graph.h"

namespace loomwork {
namespace {

constexpr auto C = UGEntityOperationTypeCreate, U = UGEntityOperationTypeUpdate, D = UGEntityOperationTypeDelete,
               I = UGEntityOperationTypeIdentity, kAbsent = static_cast<UGEntityOperationType>(99);  // no operation

// An operation of entity "Kind"; types that carry no values drop the given ones.
Ref<UGMutableEntityOperation> op(UGEntityOperationType type, const UGPropertyDictionary& properties = {}) {
  auto operation = make<UGMutableEntityOperation>(type, "Kind");
  for (const auto& [name, value] : properties) operation->setValueForProperty(value, name);
  return operation;
}

Ref<UGMutableTransaction> txn(std::initializer_list<std::pair<std::string, Ref<UGMutableEntityOperation>>> entries) {
  auto transaction = UGMutableTransaction::transaction();
  for (const auto& [uuid, operation] : entries) transaction->setOperationForUUID(operation, uuid);
  return transaction;
}

// "X:TYPE a=1 b=2;" per operation, in order.
std::string contentOf(const UGTransaction& transaction) {
  std::string text;
  for (const std::string& uuid : transaction) {
    const auto operation = transaction.operationForUUID(uuid);
    text += uuid + ":" + std::string(UGEntityOperationTypeDescription(operation->type()));
    for (const auto& [name, value] : operation->properties()) text += " " + name + "=" + value.description();
    text += ";";
  }
  return text;
}

TEST(Transaction, CompositionAndNormalisation) {
  // Values keep the receiver's order, new names after (GraphAlgebraTests.cpp
  // checks the rest of composition, regardless of order).
  auto t = txn({{"X", op(U, {{"b", 2}})}});
  t->prependTransaction(*txn({{"X", op(C, {{"a", 1}, {"b", 1}})}}));
  auto later = txn({{"X", op(U, {{"c", 3}})}, {"Y", op(C)}});
  auto y = later->operationForUUID("Y");
  t->appendAndConsumeTransaction(*later);
  EXPECT_EQ(t->operationForUUID("Y"), y);  // the argument's operations themselves
  t->appendTransaction(*t);
  EXPECT_EQ(contentOf(*t), "X:CREATE b=2 a=1 c=3;Y:CREATE;");

  // Single-operation calls do not normalise; identities of untouched UUIDs stay.
  t = txn({{"Y", op(I)}, {"X", op(C)}});
  t->appendOperationForUUID(op(D), "X");
  EXPECT_EQ(contentOf(*t), "Y:IDENTITY;X:IDENTITY;");
  t->appendTransaction(*txn({{"X", op(I)}}));
  EXPECT_EQ(contentOf(*t), "Y:IDENTITY;");
  EXPECT_TRUE(t->isIdentity() && !txn({{"X", op(U)}})->isIdentity());
  t->normalize();
  EXPECT_EQ(contentOf(*t), "");
}

TEST(Transaction, MutableOperationsModeAndCopies) {
  // A plain transaction holds the operations given and replaces them as it
  // composes; one with mutable operations holds copies and changes them in place.
  for (const bool owning : {false, true}) {
    SCOPED_TRACE(owning ? "mutable operations" : "plain");
    auto live = op(U, {{"a", 1}});
    auto t = owning ? UGMutableTransaction::transactionContainingMutableOperationForUUID(live, "X")
                    : UGMutableTransaction::transactionWithOperationForUUID(live, "X");
    auto held = t->operationForUUID("X");
    t->appendOperationForUUID(op(U, {{"b", 3}}), "X");
    EXPECT_EQ(held == live, !owning);
    EXPECT_EQ(t->operationForUUID("X") == held, owning);
    EXPECT_EQ(contentOf(*t) + contentOf(*txn({{"X", live}})), "X:UPDATE a=1 b=3;X:UPDATE a=1;");

    // copy() gives a plain transaction (which is its own copy) with the same
    // objects; mutableCopy() keeps the mode, copying the operations only in it.
    held = t->operationForUUID("X");
    auto frozen = t->copy();
    EXPECT_TRUE(frozen->className() == "UGTransaction" && frozen->copy() == frozen);
    EXPECT_EQ(frozen->mutableCopy()->operationForUUID("X"), held);
    EXPECT_EQ(t->mutableCopy()->containsMutableOperations(), owning);
    EXPECT_EQ(t->mutableCopy()->operationForUUID("X") == held, !owning);

    // Switching to mutable operations converts them; switching back keeps them.
    t->setContainsMutableOperations(!owning);
    EXPECT_EQ(t->operationForUUID("X") == held, owning);
    held = t->operationForUUID("X");
    t->setContainsMutableOperations(owning);
    EXPECT_EQ(t->operationForUUID("X") == held, !owning);

    // Merge: nothing at all without mutable operations; otherwise the block for shared UUIDs.
    int calls = 0;
    t->simpleMergeWithTransactionOperationMergeBlock(
        *txn({{"X", op(U, {{"b", 9}})}, {"Z", op(C)}}),
        [&](UGMutableEntityOperation& mine, const UGEntityOperation& theirs) {
          ++calls;
          mine.setValueForProperty(theirs.valueForProperty("b"), "b");
        });
    EXPECT_EQ(std::to_string(calls) + contentOf(*t), owning ? "1X:UPDATE a=1 b=9;Z:CREATE;" : "0X:UPDATE a=1 b=3;");
    // Inversion, lossy as entity operations are, goes through every operation of a copy.
    EXPECT_EQ(contentOf(*t->transactionByInvertingOperations()), owning ? "X:UPDATE;Z:DELETE;" : "X:UPDATE;");
    EXPECT_EQ(t->operationForUUID("X")->properties().size(), 2u);
  }
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
      {"=", "=", "=X:DELETE;", "=X:CREATE a=1 c=3;", "=X:UPDATE a=1 c=3;"},
  };
  for (int row = 0; row < 4; ++row) {
    for (int column = 0; column < 5; ++column) {
      SCOPED_TRACE(std::to_string(rows[row]) + " reducing " + std::to_string(columns[column]));
      auto t = columns[column] == kAbsent ? txn({}) : txn({{"X", op(columns[column], {{"a", 1}, {"c", 3}})}});
      const bool exact = t->reduceByTransaction(*txn({{"X", op(rows[row], {{"a", 1}, {"b", 2}})}}));
      EXPECT_EQ((exact ? "=" : "~") + contentOf(*t), expected[row][column]);
    }
  }
  // Reducing a shared CREATE that is not mutable by one that sets less: it is
  // replaced, not changed.
  auto frozen = make<UGEntityOperation>(C, "K", UGPropertyDictionary{{"a", 1}, {"b", 2}});
  auto t = UGMutableTransaction::transactionWithOperationForUUID(frozen, "X");
  EXPECT_TRUE(t->reduceByTransaction(*txn({{"X", op(C, {{"a", 1}})}})));
  EXPECT_EQ(contentOf(*t), "X:UPDATE b=2;");
  EXPECT_EQ(frozen->type(), C);
  // By an UPDATE that sets nothing, by nothing and by the receiver itself.
  EXPECT_TRUE(txn({{"X", op(I)}})->reduceByTransaction(*txn({{"X", op(U)}})));
  EXPECT_TRUE(t->reduceByTransaction(nullptr) && t->count() == 1u);
  EXPECT_TRUE(t->reduceByTransaction(*t) && t->count() == 0u);
  // Relation transforms take no part: an UPDATE left without values is
  // dropped with its transform, and the flag still says exact.
  auto related = op(U, {{"a", 1}});
  related->setTransformForRelation(UGMutableListTransform::transform(), "r");
  t->setOperationForUUID(related, "X");
  EXPECT_TRUE(t->reduceByTransaction(*txn({{"X", op(U, {{"a", 1}})}})) && t->count() == 0u);
}

struct Model : Object {
  explicit Model(std::optional<Value> uuid) : uuid(std::move(uuid)) {}
  std::optional<Value> valueForKey(std::string_view key) const override {
    return key == "globalObjectUUID" ? uuid : std::nullopt;
  }
  std::optional<Value> uuid;
};

TEST(Transaction, QueriesTextAndGraphObjects) {
  // U-1 and U-3 set the same title and relation; only the UPDATE is consulted.
  auto update = op(U, {{"title", "x"}});
  update->setTransformForRelation(UGMutableListTransform::transform(), "items");
  auto create = update->mutableCopy();
  create->changeOperationType(C);
  auto t = txn({{"U-1", update}, {"U-2", op(D)}, {"U-3", create}});
  EXPECT_EQ(t->valueForKeyPath("U-1.properties.title")->string(), "x");
  EXPECT_FALSE(t->valueForKeyPath("U-9.properties"));
  int visited = 0;
  t->enumerateEntityOperations(
      [&](const std::string&, const Ref<UGEntityOperation>&, bool& stop) { stop = ++visited == 2; });
  EXPECT_EQ(visited, 2);

  for (const char* uuid : {"U-1", "U-3", "U-9"}) EXPECT_FALSE(t->containsDeletedEntityWithUUID(uuid)) << uuid;
  EXPECT_TRUE(t->containsDeletedEntityWithUUID("U-2"));
  EXPECT_EQ(t->valueForPropertyOfUpdatedEntityWithUUID("title", "U-1")->string(), "x");
  EXPECT_TRUE(t->transformForRelationOfUpdatedEntityWithUUID("items", "U-1"));
  EXPECT_FALSE(t->valueForPropertyOfUpdatedEntityWithUUID("title", "U-3") ||
               t->transformForRelationOfUpdatedEntityWithUUID("items", "U-3"));
  // An object's UUID is its globalObjectUUID string, or else one made from its address.
  auto named = make<Model>(Value("U-2")), nameless = make<Model>(std::nullopt), numbered = make<Model>(Value(4));
  EXPECT_EQ(universalGraphUUID(*named), "U-2");
  for (const auto& object : {nameless, numbered}) {
    const auto address = static_cast<int32_t>(reinterpret_cast<uintptr_t>(object.get()));  // its low 32 bits
    EXPECT_EQ(universalGraphUUID(*object), "MemoryBasedUUID-" + std::to_string(address));
  }
  EXPECT_TRUE(t->containsDeletedObject(named.get()));
  EXPECT_FALSE(t->containsDeletedObject(nullptr) || t->valueForPropertyOfUpdatedObject("title", nullptr));

  auto unnamed = op(static_cast<UGEntityOperationType>(7));
  unnamed->setEntityName(std::nullopt);
  auto small = txn({{"A", op(U, {{"n", 1}})}, {"B", unnamed}});
  EXPECT_EQ(small->description(),
            "UGMutableTransaction with 2 operations: {\n"
            "\n    UPDATE Kind \"A\" (1 properties, 0 relations) (UGMutableEntityOperation)\n\n"
            "        n -> 1\n\n\n"
            "\n    <missing> nil \"B\" (0 properties, 0 relations) (UGMutableEntityOperation)\n\n\n\n"
            "\n}\n");
  EXPECT_THAT([&] { small->extendedPropertyListRepresentation(); },
              testing::Throws<Exception>(testing::Property(&Exception::kind, ExceptionKind::InvalidArgument)));

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
  std::mt19937_64 rng(77);
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
        (it == reference.end() ? reference.emplace_back(uuid, nullptr) : *it).second = operation;
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
