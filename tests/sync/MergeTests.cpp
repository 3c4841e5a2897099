// The merge of concurrent server and client transactions.
#include <gtest/gtest.h>

#include "loomwork/sync.h"

namespace loomwork {
namespace {

constexpr UGEntityOperationType C = UGEntityOperationTypeCreate, U = UGEntityOperationTypeUpdate,
                                D = UGEntityOperationTypeDelete, I = UGEntityOperationTypeIdentity;

Ref<UGMutableEntityOperation> op(UGEntityOperationType type,
                                 std::initializer_list<std::pair<const char*, Value>> values = {}) {
  auto operation = make<UGMutableEntityOperation>(type, "Note");
  for (const auto& [name, value] : values) operation->setValueForProperty(value, name);
  return operation;
}

Ref<UGMutableTransaction> with(std::initializer_list<std::pair<const char*, Ref<UGEntityOperation>>> entries) {
  auto transaction = UGMutableTransaction::transactionContainingMutableOperations();
  for (const auto& [uuid, operation] : entries) transaction->setOperationForUUID(operation, uuid);
  return transaction;
}

// Reads dates from a "modified" property, as an application's merge would.
class DatedMerge : public OTMerge {
 public:
  std::optional<Date> modificationDateForEntityOperation(const UGEntityOperation& operation) const override {
    std::optional<Value> modified = operation.valueForProperty("modified");
    if (!modified || !modified->isDate()) return std::nullopt;
    return Date{modified->dateValue()};
  }
};

TEST(OTMerge, DecisionTable) {
  const auto absent = static_cast<UGEntityOperationType>(0), odd = static_cast<UGEntityOperationType>(7);
  const UGEntityOperationType sides[] = {absent, C, U, D, I, odd};
  // Rows: the client's operation; columns: the server's. s server, c client,
  // m merged update, - nothing.
  const char* const table[] = {"-sssss", "csssc-", "ccmsc-", "ccccc-", "cssss-", "------"};
  OTMerge merge;
  for (int row = 0; row < 6; ++row) {
    for (int column = 0; column < 6; ++column) {
      SCOPED_TRACE(std::to_string(row) + "," + std::to_string(column));
      auto server = sides[column] == absent ? with({}) : with({{"e", op(sides[column], {{"from", "server"}})}});
      auto client = sides[row] == absent ? with({}) : with({{"e", op(sides[row], {{"from", "client"}})}});
      Value before =
          Value::array({server->extendedPropertyListRepresentation(), client->extendedPropertyListRepresentation()});
      Ref<UGEntityOperation> chosen =
          merge.mergeServerOperationClientOperation(*server, *client)->operationForUUID("e");
      const char expected = table[row][column];
      if (expected == '-') {
        EXPECT_FALSE(chosen);
      } else if (expected == 'm') {
        ASSERT_TRUE(chosen);
        EXPECT_EQ(chosen->type(), U);
      } else {
        Ref<UGEntityOperation> side = (expected == 's' ? server : client)->operationForUUID("e");
        ASSERT_TRUE(chosen);
        EXPECT_NE(chosen, side);  // the merge holds copies
        EXPECT_EQ(chosen->extendedPropertyListRepresentation(), side->extendedPropertyListRepresentation());
      }
      EXPECT_EQ(
          Value::array({server->extendedPropertyListRepresentation(), client->extendedPropertyListRepresentation()}),
          before);
    }
  }
  auto both = merge.mergeServerOperationClientOperation(*with({{"a", op(U, {{"title", "x"}})}}),
                                                        *with({{"b", op(C)}, {"a", op(I)}}));
  EXPECT_EQ(both->allUUIDsArray(), (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(both->operationForUUID("a")->valueForProperty("title"), Value("x"));
  EXPECT_EQ(merge.mergeServerOperationClientOperation(*with({}), *with({}))->count(), 0u);
}

TEST(OTMerge, UpdatesMergePropertyByPropertyByDate) {
  const Value early = Value::date(1000), late = Value::date(2000);
  auto title = [](const OTMerge& merge, std::optional<Value> serverDate, std::optional<Value> clientDate) {
    auto server = op(U, {{"title", "x"}, {"notes", "n"}});
    auto client = op(U, {{"title", "y"}, {"tag", "t"}});
    if (serverDate) server->setValueForProperty(*serverDate, "modified");
    if (clientDate) client->setValueForProperty(*clientDate, "modified");
    auto merged = merge.mergeServerUpdateEntityOperationClientUpdateEntityOperation(server, client);
    EXPECT_EQ(merged->valueForProperty("notes"), Value("n"));
    EXPECT_EQ(merged->valueForProperty("tag"), Value("t"));
    return std::string(merged->valueForProperty("title")->string());
  };
  DatedMerge dated;
  EXPECT_EQ(title(OTMerge(), early, late), "x");  // the base class reads no dates
  EXPECT_EQ(title(dated, early, late), "y");
  EXPECT_EQ(title(dated, late, early), "x");
  EXPECT_EQ(title(dated, early, early), "x");
  EXPECT_EQ(title(dated, Value::date(-1e12), std::nullopt), "x");
  EXPECT_EQ(title(dated, Value::null(), early), "y");

  // An empty side yields the other side's operation object itself.
  auto empty = op(U), client = op(U, {{"title", "y"}});
  EXPECT_EQ(dated.mergeServerUpdateEntityOperationClientUpdateEntityOperation(empty, client), client);
  EXPECT_EQ(dated.mergeServerUpdateEntityOperationClientUpdateEntityOperation(client, empty), client);

  // Relation transforms are taken whole, by the same rule, and a server
  // update that changes only a relation is not empty.
  auto serverItems = UGMutableListTransform::transform(), clientItems = UGMutableListTransform::transform();
  serverItems->recordInsertedObjectAtIndex(Value("s"), 0);
  clientItems->recordInsertedObjectAtIndex(Value("c"), 0);
  auto relationOnly = op(U);
  relationOnly->setTransformForRelation(serverItems, "items");
  auto clientRelation = op(U, {{"modified", late}});
  clientRelation->setTransformForRelation(clientItems, "items");
  EXPECT_EQ(dated.mergeServerUpdateEntityOperationClientUpdateEntityOperation(relationOnly, clientRelation)
                ->transformForRelation("items"),
            clientItems);
  relationOnly->setValueForProperty(late, "modified");
  EXPECT_EQ(dated.mergeServerUpdateEntityOperationClientUpdateEntityOperation(relationOnly, clientRelation)
                ->transformForRelation("items"),
            serverItems);
}

TEST(OTMerge, MergeClassMakesTheSubclass) {
  auto server = with({{"a", op(U, {{"t", "s"}, {"modified", Value::date(1)}})}});
  auto client = with({{"a", op(U, {{"t", "c"}, {"modified", Value::date(2)}})}});
  auto winner = [&](const OTMergeClass& mergeClass) {
    return mergeClass()
        ->mergeServerOperationClientOperation(*server, *client)
        ->operationForUUID("a")
        ->valueForProperty("t");
  };
  EXPECT_EQ(winner(OTMergeClassOf<DatedMerge>()), Value("c"));
  EXPECT_EQ(winner(OTMergeClassOf()), Value("s"));
}

// Kept behaviour that breaks convergence: a client operation of a type outside
// 1 to 4 (say from a newer peer) makes the merge put nothing in for its
// entity, so the remainders of both lines are empty and the server's update
// of that entity never reaches the client.
TEST(OTMerge, UnknownClientTypeKeepsTheServersUpdateFromTheClient) {
  auto space = make<OTStateSpaceIdentifier>("S-C");
  auto serverLine = make<OTPathComponent>(space, with({{"x", op(U, {{"title", "a"}})}}), OTState(0, 0), OTState(1, 0));
  auto clientLine = make<OTPathComponent>(space, with({{"x", op(static_cast<UGEntityOperationType>(7))}}),
                                          OTState(0, 0), OTState(0, 1));
  auto merged = make<OTPathComponent>(
      space, OTMerge().mergeServerOperationClientOperation(*serverLine->operation(), *clientLine->operation()),
      OTState(0, 0), OTState(1, 1));
  auto forServer = merged->copy(), forClient = merged->copy();
  forServer->reduceByPathComponent(*serverLine);
  forClient->reduceByPathComponent(*clientLine);
  EXPECT_EQ(forServer->pathDescription(), "(1,0)->(1,1)");
  EXPECT_EQ(forClient->pathDescription(), "(0,1)->(1,1)");
  EXPECT_EQ(forServer->operation()->count(), 0u);
  EXPECT_EQ(forClient->operation()->count(), 0u);  // the client at (1,1) never has title "a"
}

}  // namespace
}  // namespace loomwork
