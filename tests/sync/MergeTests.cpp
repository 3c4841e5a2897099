// The merge of concurrent server and client transactions.
#include <gtest/gtest.h>

#include <random>

#include "loomwork/sync.h"

namespace loomwork {
namespace {

Ref<UGMutableEntityOperation> op(UGEntityOperationType type, std::initializer_list<std::pair<const char*, Value>> values = {}) {
  auto operation = make<UGMutableEntityOperation>(type, "Note");
  for (const auto& [name, value] : values) operation->setValueForProperty(value, name);
  return operation;
}

Ref<UGMutableTransaction> with(std::initializer_list<std::pair<const char*, Ref<UGEntityOperation>>> entries) {
  auto transaction = UGMutableTransaction::transactionContainingMutableOperations();
  for (const auto& [uuid, operation] : entries) transaction->setOperationForUUID(operation, uuid);
  return transaction;
}

// Dates come from a "modified" property, as an application's merge class
// would read them.
class DatedMerge : public OTMerge {
 public:
  std::optional<Date> modificationDateForEntityOperation(const UGEntityOperation& operation) const override {
    std::optional<Value> modified = operation.valueForProperty("modified");
    if (!modified || !modified->isDate()) return std::nullopt;
    return Date{modified->dateValue()};
  }
};

TEST(OTMerge, DecisionTable) {
  constexpr UGEntityOperationType C = UGEntityOperationTypeCreate, U = UGEntityOperationTypeUpdate,
                                  D = UGEntityOperationTypeDelete, I = UGEntityOperationTypeIdentity;
  const auto absent = static_cast<UGEntityOperationType>(0);
  const UGEntityOperationType sides[] = {absent, C, U, D, I};
  // Rows: the client's operation; columns: the server's. 's' server, 'c'
  // client, 'm' merged update, '-' nothing.
  const char* const table[] = {
      "-ssss",  // absent
      "csssc",  // CREATE
      "ccmsc",  // UPDATE
      "ccccc",  // DELETE
      "cssss",  // IDENTITY
  };
  OTMerge merge;
  for (int row = 0; row < 5; ++row) {
    for (int column = 0; column < 5; ++column) {
      SCOPED_TRACE(std::to_string(row) + "," + std::to_string(column));
      auto server = UGMutableTransaction::transactionContainingMutableOperations();
      auto client = UGMutableTransaction::transactionContainingMutableOperations();
      if (sides[column] != absent) server->setOperationForUUID(op(sides[column], {{"from", "server"}}), "e");
      if (sides[row] != absent) client->setOperationForUUID(op(sides[row], {{"from", "client"}}), "e");
      Value serverBefore = server->extendedPropertyListRepresentation();
      Value clientBefore = client->extendedPropertyListRepresentation();
      Ref<UGMutableTransaction> result = merge.mergeServerOperationClientOperation(*server, *client);
      Ref<UGEntityOperation> chosen = result->operationForUUID("e");
      const char expected = table[row][column];
      switch (expected) {
        case '-':
          EXPECT_EQ(result->count(), 0u);
          break;
        case 's':
        case 'c': {
          const UGTransaction& side = expected == 's' ? *server : *client;
          ASSERT_TRUE(chosen);
          EXPECT_EQ(chosen->extendedPropertyListRepresentation(), side.operationForUUID("e")->extendedPropertyListRepresentation());
          EXPECT_NE(chosen, side.operationForUUID("e"));  // a copy, not the side's object
          break;
        }
        default:
          ASSERT_TRUE(chosen);
          EXPECT_EQ(chosen->type(), UGEntityOperationTypeUpdate);
          EXPECT_EQ(chosen->valueForProperty("from"), Value("server"));
      }
      EXPECT_EQ(server->extendedPropertyListRepresentation(), serverBefore);
      EXPECT_EQ(client->extendedPropertyListRepresentation(), clientBefore);
    }
  }

  // Unknown types: nothing on the client side, nothing on the server side
  // where the client has an operation, the server's alone otherwise.
  const auto odd = static_cast<UGEntityOperationType>(7);
  EXPECT_EQ(merge.mergeServerOperationClientOperation(*with({{"e", op(U)}}), *with({{"e", op(odd)}}))->count(), 0u);
  EXPECT_EQ(merge.mergeServerOperationClientOperation(*with({}), *with({{"e", op(odd)}}))->count(), 0u);
  EXPECT_EQ(merge.mergeServerOperationClientOperation(*with({{"e", op(odd)}}), *with({{"e", op(D)}}))->count(), 0u);
  EXPECT_EQ(merge.mergeServerOperationClientOperation(*with({{"e", op(odd)}}), *with({}))->operationForUUID("e")->type(),
            odd);
  EXPECT_EQ(merge.mergeServerOperationClientOperation(*with({}), *with({}))->count(), 0u);
}

TEST(OTMerge, SeparateEntitiesAreBothKept) {
  OTMerge merge;
  auto result = merge.mergeServerOperationClientOperation(
      *with({{"a", op(UGEntityOperationTypeUpdate, {{"title", "x"}})}}),
      *with({{"b", op(UGEntityOperationTypeCreate, {{"title", "y"}})}, {"a", op(UGEntityOperationTypeIdentity)}}));
  EXPECT_EQ(result->allUUIDsArray(), (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(result->operationForUUID("a")->valueForProperty("title"), Value("x"));
  EXPECT_EQ(result->operationForUUID("b")->type(), UGEntityOperationTypeCreate);
  EXPECT_TRUE(result->containsMutableOperations());
}

TEST(OTMerge, UpdatesMergePropertyByPropertyByDate) {
  const Value early = Value::date(1000), late = Value::date(2000);
  auto merged = [](const OTMerge& merge, std::optional<Value> serverDate, std::optional<Value> clientDate) {
    auto server = op(UGEntityOperationTypeUpdate, {{"title", "x"}, {"notes", "n"}});
    auto client = op(UGEntityOperationTypeUpdate, {{"title", "y"}, {"tag", "t"}});
    if (serverDate) server->setValueForProperty(*serverDate, "modified");
    if (clientDate) client->setValueForProperty(*clientDate, "modified");
    return merge.mergeServerUpdateEntityOperationClientUpdateEntityOperation(server, client);
  };
  auto title = [](const Ref<UGEntityOperation>& o) { return o->valueForProperty("title")->string(); };
  OTMerge plain;
  DatedMerge dated;
  auto undated = merged(plain, late, early);  // the base class reads no dates
  EXPECT_EQ(title(undated), "x");
  EXPECT_EQ(undated->valueForProperty("notes"), Value("n"));
  EXPECT_EQ(undated->valueForProperty("tag"), Value("t"));
  EXPECT_EQ(title(merged(dated, early, late)), "y");
  EXPECT_EQ(title(merged(dated, late, early)), "x");
  EXPECT_EQ(title(merged(dated, early, early)), "x");
  EXPECT_EQ(title(merged(dated, Value::date(-1e12), std::nullopt)), "x");
  EXPECT_EQ(title(merged(dated, std::nullopt, early)), "y");
  EXPECT_EQ(title(merged(dated, Value::null(), early)), "y");
  EXPECT_EQ(merged(dated, early, late)->valueForProperty("notes"), Value("n"));
  EXPECT_EQ(merged(dated, early, late)->valueForProperty("modified"), late);

  // An empty side yields the other side's operation object itself.
  auto server = op(UGEntityOperationTypeUpdate);
  auto client = op(UGEntityOperationTypeUpdate, {{"title", "y"}});
  EXPECT_EQ(plain.mergeServerUpdateEntityOperationClientUpdateEntityOperation(server, client), client);
  EXPECT_EQ(plain.mergeServerUpdateEntityOperationClientUpdateEntityOperation(client, server), client);
  auto inTransaction = plain.mergeServerOperationClientOperation(*with({{"a", server}}), *with({{"a", client}}));
  EXPECT_NE(inTransaction->operationForUUID("a"), client);
  EXPECT_EQ(inTransaction->operationForUUID("a")->valueForProperty("title"), Value("y"));

  // Relation transforms are taken whole, by the same rule.
  auto serverMoves = UGMutableListTransform::transform();
  serverMoves->recordInsertedObjectAtIndex(Value("s"), 0);
  auto clientMoves = UGMutableListTransform::transform();
  clientMoves->recordInsertedObjectAtIndex(Value("c"), 0);
  auto relationOnly = op(UGEntityOperationTypeUpdate);
  relationOnly->setTransformForRelation(serverMoves, "items");
  auto clientRelation = op(UGEntityOperationTypeUpdate, {{"modified", late}});
  clientRelation->setTransformForRelation(clientMoves, "items");
  auto relationMerge = dated.mergeServerUpdateEntityOperationClientUpdateEntityOperation(relationOnly, clientRelation);
  EXPECT_NE(relationMerge, clientRelation);  // the server's relation change is not dropped
  EXPECT_EQ(relationMerge->transformForRelation("items"), clientMoves);  // the server has no date
  relationOnly->setValueForProperty(late, "modified");
  EXPECT_EQ(dated.mergeServerUpdateEntityOperationClientUpdateEntityOperation(relationOnly, clientRelation)
                ->transformForRelation("items"),
            serverMoves);
}

TEST(OTMerge, MergeClassMakesTheSubclass) {
  OTMergeClass none;
  EXPECT_FALSE(none);
  OTMergeClass dated = OTMergeClassOf<DatedMerge>();
  Ref<OTMerge> instance = dated();
  EXPECT_TRUE(std::dynamic_pointer_cast<DatedMerge>(instance));
  auto server = with({{"a", op(UGEntityOperationTypeUpdate, {{"t", "s"}, {"modified", Value::date(1)}})}});
  auto client = with({{"a", op(UGEntityOperationTypeUpdate, {{"t", "c"}, {"modified", Value::date(2)}})}});
  EXPECT_EQ(dated()->mergeServerOperationClientOperation(*server, *client)->operationForUUID("a")->valueForProperty("t"),
            Value("c"));
  EXPECT_EQ(OTMergeClassOf()()->mergeServerOperationClientOperation(*server, *client)->operationForUUID("a")->valueForProperty("t"),
            Value("s"));
}

}  // namespace
}  // namespace loomwork
