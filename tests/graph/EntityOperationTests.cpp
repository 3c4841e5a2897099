// Entity operations: the composition and merge tables, inversion, copying,
// the property-list form and the text form.
#include <gtest/gtest.h>

#include <algorithm>

#include "loomwork/graph.h"

namespace loomwork {
namespace {

constexpr auto C = UGEntityOperationTypeCreate, U = UGEntityOperationTypeUpdate, D = UGEntityOperationTypeDelete,
               I = UGEntityOperationTypeIdentity, kOther = static_cast<UGEntityOperationType>(7);
constexpr UGEntityOperationType kTypes[] = {C, U, D, I};

Ref<UGMutableListTransform> insertion(int64_t index, int64_t object) {
  auto transform = UGMutableListTransform::transform();
  transform->recordInsertedObjectAtIndex(Value(object), index);
  return transform;
}

// E sets a=1, b=2 and relation r; L sets b=3, c=4 and relations r and s.
Ref<UGMutableEntityOperation> earlierOf(UGEntityOperationType type) {
  auto op = make<UGMutableEntityOperation>(type, "E", UGPropertyDictionary{{"a", 1}, {"b", 2}});
  op->setRelationTransforms({{"r", insertion(0, 10)}});
  return op;
}
Ref<UGMutableEntityOperation> laterOf(UGEntityOperationType type) {
  auto op = make<UGMutableEntityOperation>(type, "L", UGPropertyDictionary{{"b", 3}, {"c", 4}});
  op->setRelationTransforms({{"r", insertion(0, 20)}, {"s", insertion(0, 30)}});
  return op;
}

// "TYPE name word..." with "name=value" per property and "relation:(list after
// the transform)" per relation; `sorted` drops the name and sorts the words.
std::string contentOf(const UGEntityOperation& op, bool sorted = false) {
  std::vector<std::string> words;
  for (const auto& [name, value] : op.properties()) words.push_back(name + "=" + value.description());
  for (const auto& [name, transform] : op.relationTransforms())
    words.push_back(name + ":" + Value(arrayByApplyingTransform({}, *transform)).description());
  if (sorted) std::sort(words.begin(), words.end());
  std::string text(UGEntityOperationTypeDescription(op.type()));
  if (!sorted) text += " " + op.entityName().value_or("nil");
  for (const auto& word : words) text += " " + word;
  return text;
}

TEST(EntityOperation, CompositionTableForEveryTarget) {
  // Rows earlier, columns later; the content as seen from a third target.
  const char* expected[4][4] = {
      {"CREATE T b=3 c=4 r:(20) s:(30)", "CREATE T a=1 b=3 c=4 r:(20, 10) s:(30)", "IDENTITY T",
       "CREATE T a=1 b=2 r:(10)"},
      {"UPDATE T a=1 b=3 c=4 r:(20, 10) s:(30)", "UPDATE T a=1 b=3 c=4 r:(20, 10) s:(30)", "DELETE T",
       "UPDATE T a=1 b=2 r:(10)"},
      {"UPDATE T b=3 c=4 r:(20) s:(30)", "DELETE T", "DELETE T", "DELETE T"},
      {"CREATE T b=3 c=4 r:(20) s:(30)", "UPDATE T b=3 c=4 r:(20) s:(30)", "DELETE T", "IDENTITY T"},
  };
  for (int e = 0; e < 4; ++e) {
    for (int l = 0; l < 4; ++l) {
      SCOPED_TRACE(std::to_string(e + 1) + " then " + std::to_string(l + 1));
      auto target = make<UGMutableEntityOperation>(U, "T", UGPropertyDictionary{{"z", 0}});
      target->setTransformForRelation(insertion(0, 99), "q");
      UGMutableEntityOperation::concatenateOperationWithOperationTarget(*earlierOf(kTypes[e]), *laterOf(kTypes[l]),
                                                                        *target);
      EXPECT_EQ(contentOf(*target), expected[e][l]);

      // In place on either side: same type and values, the receiver's own name.
      auto appended = earlierOf(kTypes[e]);
      appended->appendOperation(*laterOf(kTypes[l]));
      auto prepended = laterOf(kTypes[l]);
      prepended->prependOperation(*earlierOf(kTypes[e]));
      EXPECT_EQ(contentOf(*appended, true), contentOf(*target, true));
      EXPECT_EQ(contentOf(*prepended, true), contentOf(*target, true));
      EXPECT_EQ(appended->entityName().value_or("") + prepended->entityName().value_or(""), "EL");
    }
  }
  // Another type on either side, or one operation as all three, changes nothing.
  auto seven = earlierOf(kOther);
  auto target = laterOf(U);
  UGMutableEntityOperation::concatenateOperationWithOperationTarget(*seven, *laterOf(C), *target);
  UGMutableEntityOperation::concatenateOperationWithOperationTarget(*laterOf(C), *seven, *target);
  EXPECT_EQ(contentOf(*target), "UPDATE L b=3 c=4 r:(20) s:(30)");
  seven->appendOperation(*laterOf(D));
  EXPECT_EQ(seven->type(), 7u);
  auto self = earlierOf(U);
  UGMutableEntityOperation::concatenateOperationWithOperationTarget(*self, *self, *self);
  EXPECT_EQ(contentOf(*self), "UPDATE E a=1 b=2 r:(10)");
  // Merged content of a third target follows earlier's order, later's new names after.
  EXPECT_EQ(earlierOf(U)->operationByAppendingOperation(*laterOf(U))->allPropertyNamesArray(),
            (std::vector<std::string>{"a", "b", "c"}));
}

TEST(EntityOperation, MutatorsCopiesAndInversion) {
  auto op = make<UGMutableEntityOperation>(D, "K");
  op->setValueForProperty(Value(1), "a");
  op->setTransformForRelation(insertion(0, 1), "r");
  EXPECT_EQ(contentOf(*op), "DELETE K");  // a DELETE carries no values

  auto update = make<UGMutableEntityOperation>(U, "K");
  const Value shared = Value::array({1, 2});
  update->setValueForProperty(shared, "a");
  update->setValueForProperty(Value::null(), "n");
  update->setTransformForRelation(insertion(0, 1), "r");
  update->setValueForProperty(std::nullopt, "n");
  EXPECT_EQ(update->allPropertyNamesArray(), std::vector<std::string>{"a"});
  EXPECT_EQ(update->copy(), update);
  auto copy = update->mutableCopy();
  EXPECT_NE(copy, update);
  EXPECT_TRUE(copy->valueForProperty("a")->isIdenticalTo(shared));
  EXPECT_EQ(copy->transformForRelation("r"), update->transformForRelation("r"));
  copy->removeAllValuesForProperties();
  EXPECT_EQ(update->properties().size(), 1u);

  EXPECT_FALSE(update->canInvert());
  EXPECT_EQ(contentOf(*update->invertedOperation()), "UPDATE K");
  auto create = make<UGMutableEntityOperation>(C, "K", UGPropertyDictionary{{"a", 1}});
  EXPECT_TRUE(create->canInvert());
  EXPECT_EQ(contentOf(*create->invertedOperation()), "DELETE K");
  auto deleted = make<UGMutableEntityOperation>(D, "K", UGPropertyDictionary{{"a", 1}});
  EXPECT_EQ(contentOf(*deleted->invertedOperationAcceptingLossyUpdateAndDeleteInversion()), "CREATE K a=1");
}

TEST(EntityOperation, MergeTable) {
  // Rows receiver, columns other; receiver a=1 b=2, other b=3 c=4; the block joins both values.
  const char* expected[4][4] = {
      {"CREATE E a=1 b=2|3 c=4", "CREATE E a=1 b=2|3 c=4", "DELETE E", "CREATE E a=1 b=2"},
      {"CREATE E a=1 b=2|3 c=4", "UPDATE E a=1 b=2|3 c=4", "DELETE E", "UPDATE E a=1 b=2"},
      {"DELETE E", "DELETE E", "DELETE E", "DELETE E"},
      {"CREATE E b=3 c=4", "UPDATE E b=3 c=4", "DELETE E a=1 b=2", "IDENTITY E a=1 b=2"},
  };
  for (int r = 0; r < 4; ++r) {
    for (int o = 0; o < 4; ++o) {
      SCOPED_TRACE(std::to_string(r + 1) + " with " + std::to_string(o + 1));
      auto mine = earlierOf(kTypes[r]);
      mine->setRelationTransforms({});
      auto theirs = laterOf(kTypes[o]);
      std::vector<std::string> asked;
      mine->simpleMergeWithOperationPropertyMergeBlock(
          *theirs, [&](const std::string& name, const Value& a, const Value& b) -> std::optional<Value> {
            asked.push_back(name);
            return Value(a.description() + "|" + b.description());
          });
      EXPECT_EQ(contentOf(*mine), expected[r][o]);
      EXPECT_LE(asked.size(), 1u);
    }
  }
  auto mine = earlierOf(U);
  mine->simpleMergeWithOperationPropertyMergeBlock(*earlierOf(kOther), nullptr);
  mine->simpleMergeWithOperationPropertyMergeBlock(*laterOf(D), nullptr);
  EXPECT_EQ(contentOf(*mine), "DELETE E r:(10)");  // relation transforms are never touched
}

TEST(EntityOperation, PropertyListAndTextForms) {
  auto op = make<UGMutableEntityOperation>(kOther, "Note");
  op->setProperties({{"title", "say \"hi\"\n"},
                     {"n", Value::null()},
                     {"tags", Value::set({"x", 2})},
                     {"none", Value::set({})},
                     {"count", 3}});
  op->setRelationTransforms({{"items", insertion(0, 5)}});
  EXPECT_EQ(op->description(),
            "        title -> @\"say \\\"hi\\\"\\n\"\n"
            "        n -> <null>\n"
            "        tags -> { x, 2,  }\n"
            "        none -> {}\n"
            "        count -> 3\n"
            "        items -> UGMutableListTransform with {\n    deletions:\n    moves:\n    insertions:\n"
            "        0   (5)\n}\n\n");

  const Value plist = op->extendedPropertyListRepresentation();
  auto read = UGEntityOperation::initWithExtendedPropertyList(plist);
  ASSERT_TRUE(read);
  auto plain = op->mutableCopy();
  plain->setRelationTransforms({});
  EXPECT_EQ(read->type(), 7u);
  EXPECT_EQ(contentOf(*read), contentOf(*plain));
  EXPECT_FALSE(std::dynamic_pointer_cast<UGMutableEntityOperation>(read));
  EXPECT_TRUE(UGMutableEntityOperation::initWithExtendedPropertyList(plist));

  for (const char* key : {"t", "e", "p"}) {
    Dictionary partial = plist.dictionary();
    partial.erase(Value(key));
    EXPECT_FALSE(UGEntityOperation::initWithExtendedPropertyList(Value(partial))) << key;
  }
  for (const Value& bad : {Value::dictionary({{"t", "x"}, {"e", "E"}, {"p", 1}}), Value::array({})})
    EXPECT_FALSE(UGEntityOperation::initWithExtendedPropertyList(bad));
  try {
    UGEntityOperation().extendedPropertyListRepresentation();
    ADD_FAILURE() << "no exception";
  } catch (const Exception& e) {
    EXPECT_EQ(e.kind(), ExceptionKind::InvalidArgument);
  }

  EXPECT_EQ(op->valueForKeyPath("properties.count")->integerValue(), 3);
  EXPECT_TRUE(op->valueForKeyPath("relationTransforms.items")->objectAs<UGListTransform>());
  EXPECT_FALSE(op->valueForKeyPath("properties.missing"));
  EXPECT_FALSE(UGEntityOperation().valueForKey("entityName"));
}

}  // namespace
}  // namespace loomwork
