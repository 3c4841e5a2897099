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

Ref<UGListTransform> insertion(int64_t object) {
  auto transform = UGMutableListTransform::transform();
  transform->recordInsertedObjectAtIndex(Value(object), 0);
  return transform;
}

// E sets a=1, b=2 and relation r; L sets b=3, c=4 and relations r and s.
Ref<UGMutableEntityOperation> earlierOf(UGEntityOperationType type) {
  return make<UGMutableEntityOperation>(type, "E", UGPropertyDictionary{{"a", 1}, {"b", 2}},
                                        UGRelationTransformDictionary{{"r", insertion(10)}});
}
Ref<UGMutableEntityOperation> laterOf(UGEntityOperationType type) {
  return make<UGMutableEntityOperation>(type, "L", UGPropertyDictionary{{"b", 3}, {"c", 4}},
                                        UGRelationTransformDictionary{{"r", insertion(20)}, {"s", insertion(30)}});
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

TEST(EntityOperation, CompositionAndMergeTables) {
  // Rows earlier, columns later; the content as seen from a third target.
  const char* composed[4][4] = {
      {"CREATE T b=3 c=4 r:(20) s:(30)", "CREATE T a=1 b=3 c=4 r:(20, 10) s:(30)", "IDENTITY T",
       "CREATE T a=1 b=2 r:(10)"},
      {"UPDATE T a=1 b=3 c=4 r:(20, 10) s:(30)", "UPDATE T a=1 b=3 c=4 r:(20, 10) s:(30)", "DELETE T",
       "UPDATE T a=1 b=2 r:(10)"},
      {"UPDATE T b=3 c=4 r:(20) s:(30)", "DELETE T", "DELETE T", "DELETE T"},
      {"CREATE T b=3 c=4 r:(20) s:(30)", "UPDATE T b=3 c=4 r:(20) s:(30)", "DELETE T", "IDENTITY T"},
  };
  // Rows receiver (E without relations), columns other; the block joins both values.
  const char* merged[4][4] = {
      {"CREATE E a=1 b=2|3 c=4", "CREATE E a=1 b=2|3 c=4", "DELETE E", "CREATE E a=1 b=2"},
      {"CREATE E a=1 b=2|3 c=4", "UPDATE E a=1 b=2|3 c=4", "DELETE E", "UPDATE E a=1 b=2"},
      {"DELETE E", "DELETE E", "DELETE E", "DELETE E"},
      {"CREATE E b=3 c=4", "UPDATE E b=3 c=4", "DELETE E a=1 b=2", "IDENTITY E a=1 b=2"},
  };
  for (int e = 0; e < 4; ++e) {
    for (int l = 0; l < 4; ++l) {
      SCOPED_TRACE(std::to_string(e + 1) + " and " + std::to_string(l + 1));
      auto target = make<UGMutableEntityOperation>(U, "T", UGPropertyDictionary{{"z", 0}},
                                                   UGRelationTransformDictionary{{"q", insertion(99)}});
      UGMutableEntityOperation::concatenateOperationWithOperationTarget(*earlierOf(kTypes[e]), *laterOf(kTypes[l]),
                                                                        *target);
      EXPECT_EQ(contentOf(*target), composed[e][l]);
      // In place on either side: the same type and values.
      auto appended = earlierOf(kTypes[e])->operationByAppendingOperation(*laterOf(kTypes[l]));
      auto prepended = laterOf(kTypes[l])->operationByPrependingOperation(*earlierOf(kTypes[e]));
      EXPECT_EQ(contentOf(*appended, true), contentOf(*target, true));
      EXPECT_EQ(contentOf(*prepended, true), contentOf(*target, true));

      auto mine = earlierOf(kTypes[e]);
      mine->setRelationTransforms({});
      mine->simpleMergeWithOperationPropertyMergeBlock(
          *laterOf(kTypes[l]), [](const std::string&, const Value& a, const Value& b) -> std::optional<Value> {
            return Value(a.description() + "|" + b.description());
          });
      EXPECT_EQ(contentOf(*mine), merged[e][l]);
    }
  }
  // Another type on either side, or one operation as all three, changes
  // nothing; a merge never touches relation transforms.
  auto seven = earlierOf(kOther), target = laterOf(U);
  UGMutableEntityOperation::concatenateOperationWithOperationTarget(*seven, *laterOf(C), *target);
  UGMutableEntityOperation::concatenateOperationWithOperationTarget(*laterOf(C), *seven, *target);
  UGMutableEntityOperation::concatenateOperationWithOperationTarget(*target, *target, *target);
  EXPECT_EQ(contentOf(*target), "UPDATE L b=3 c=4 r:(20) s:(30)");
  auto mine = earlierOf(U);
  mine->simpleMergeWithOperationPropertyMergeBlock(*seven, nullptr);
  mine->simpleMergeWithOperationPropertyMergeBlock(*laterOf(D), nullptr);
  EXPECT_EQ(contentOf(*mine), "DELETE E r:(10)");
}

TEST(EntityOperation, MutatorsCopiesAndInversion) {
  // Per type: what setting b=2 and relation r and removing a keep, and the
  // inversion, which needs no canInvert() and drops what an UPDATE or a CREATE set.
  const std::tuple<UGEntityOperationType, const char*, bool, const char*> rows[] = {
      {C, "CREATE K b=2 r:(1)", true, "DELETE K"},
      {U, "UPDATE K b=2 r:(1)", false, "UPDATE K"},
      {D, "DELETE K a=1", false, "CREATE K a=1"},
      {I, "IDENTITY K a=1", true, "IDENTITY K a=1"},
  };
  for (const auto& [type, set, invertible, inverse] : rows) {
    auto operation = make<UGMutableEntityOperation>(type, "K", UGPropertyDictionary{{"a", 1}});
    operation->setValueForProperty(Value(2), "b");
    operation->setTransformForRelation(insertion(1), "r");
    operation->setValueForProperty(std::nullopt, "a");
    EXPECT_EQ(contentOf(*operation), set);
    EXPECT_EQ(operation->canInvert(), invertible) << type;
    EXPECT_EQ(contentOf(*operation->invertedOperation()), inverse);
    EXPECT_EQ(contentOf(*operation->invertedOperationAcceptingLossyUpdateAndDeleteInversion()), inverse);
  }

  // copy() is the operation itself; a mutable copy shares the values and
  // transforms, in dictionaries of its own.
  const auto source = make<UGMutableEntityOperation>(U, "K", UGPropertyDictionary{{"a", Value::array({1, 2})}},
                                                     UGRelationTransformDictionary{{"r", insertion(1)}});
  auto copy = source->mutableCopy();
  EXPECT_TRUE(source->copy() == source && copy->transformForRelation("r") == source->transformForRelation("r"));
  EXPECT_TRUE(copy->valueForProperty("a")->isIdenticalTo(*source->valueForProperty("a")));
  copy->removeAllValuesForProperties();
  EXPECT_EQ(source->properties().size(), 1u);
}

TEST(EntityOperation, PropertyListAndTextForms) {
  auto op = make<UGMutableEntityOperation>(kOther, "Note");
  op->setProperties({{"title", "say \"hi\"\n"},
                     {"n", Value::null()},
                     {"tags", Value::set({"x", 2})},
                     {"none", Value::set({})},
                     {"count", 3}});
  op->setRelationTransforms({{"items", insertion(5)}});
  EXPECT_EQ(op->description(),
            "        title -> @\"say \\\"hi\\\"\\n\"\n"
            "        n -> <null>\n"
            "        tags -> { x, 2,  }\n"
            "        none -> {}\n"
            "        count -> 3\n"
            "        items -> UGMutableListTransform with {\n    deletions:\n    moves:\n    insertions:\n"
            "        0   (5)\n}\n\n");

  // The property-list form has no room for relation transforms.
  const Value plist = op->extendedPropertyListRepresentation();
  auto read = UGEntityOperation::initWithExtendedPropertyList(plist);
  ASSERT_TRUE(read);
  EXPECT_EQ(read->type(), 7u);
  EXPECT_EQ(contentOf(*read) + " items:(5)", contentOf(*op));
  EXPECT_FALSE(std::dynamic_pointer_cast<UGMutableEntityOperation>(read));
  for (const char* key : {"t", "e", "p"}) {
    Dictionary partial = plist.dictionary();
    partial.erase(Value(key));
    EXPECT_FALSE(UGEntityOperation::initWithExtendedPropertyList(Value(partial))) << key;
  }
  const Value none = Value::dictionary({});
  for (const Value& bad :
       {Value::dictionary({{"t", "x"}, {"e", "E"}, {"p", none}}), Value::dictionary({{"t", 1}, {"e", 2}, {"p", none}}),
        Value::dictionary({{"t", 1}, {"e", "E"}, {"p", 1}}), Value::array({})})
    EXPECT_FALSE(UGEntityOperation::initWithExtendedPropertyList(bad)) << bad.description();

  EXPECT_EQ(op->valueForKeyPath("properties.count")->integerValue(), 3);
  EXPECT_TRUE(op->valueForKeyPath("relationTransforms.items")->objectAs<UGListTransform>());
  EXPECT_FALSE(op->valueForKeyPath("properties.missing"));
  EXPECT_FALSE(UGEntityOperation().valueForKey("entityName"));
}

}  // namespace
}  // namespace loomwork
