#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <tuple>
#include <vector>

#include "loomwork/additions.h"
#include "loomwork/platform.h"

namespace loomwork {
namespace {

class Named : public Object {
 public:
  explicit Named(std::string name) : name_(std::move(name)) {}
  std::optional<Value> valueForKey(std::string_view key) const override {
    if (key == "name") return Value(name_);
    return std::nullopt;
  }

 private:
  std::string name_;
};

TEST(IntegerArray, CopyAndSortedArrayIdentity) {
  Ref<LWIntegerArray> immutable = make<LWIntegerArray>(std::vector<int64_t>{3, 1, 2});
  EXPECT_EQ(immutable, immutable->copy());
  EXPECT_EQ(immutable, immutable->sortedArray());
  EXPECT_EQ((std::vector<int64_t>{1, 2, 3}), immutable->vector());

  Ref<LWMutableIntegerArray> mutableArray = make<LWMutableIntegerArray>(std::vector<int64_t>{5, 4});
  Ref<LWIntegerArray> snapshot = mutableArray->copy();
  EXPECT_NE(Ref<LWIntegerArray>(mutableArray), snapshot);
  EXPECT_EQ(nullptr, std::dynamic_pointer_cast<LWMutableIntegerArray>(snapshot));
  mutableArray->addInteger(9);
  mutableArray->setIntegerAtIndex(7, 0);
  EXPECT_EQ((std::vector<int64_t>{5, 4}), snapshot->vector());
  Ref<LWIntegerArray> sortedCopy = mutableArray->sortedArray();
  EXPECT_NE(Ref<LWIntegerArray>(mutableArray), sortedCopy);
  EXPECT_EQ((std::vector<int64_t>{7, 4, 9}), mutableArray->vector());
  EXPECT_EQ((std::vector<int64_t>{4, 7, 9}), sortedCopy->vector());

  Ref<LWMutableIntegerArray> fresh = immutable->mutableCopy();
  EXPECT_NE(Ref<LWIntegerArray>(fresh), immutable);
  EXPECT_TRUE(fresh->isEqual(*immutable) && immutable->isEqualToArray(fresh));
  EXPECT_EQ(fresh->hash(), immutable->hash());
  fresh->removeIntegerAtIndex(1);
  EXPECT_EQ((std::vector<int64_t>{1, 3}), fresh->vector());
  EXPECT_FALSE(immutable->isEqualToArray(fresh) || immutable->isEqualToArray(nullptr));
  EXPECT_FALSE(immutable->isEqual(*make<Named>("x")));
}

TEST(IntegerArray, SearchesAndBounds) {
  const LWIntegerArray array{1, 4, 6};
  EXPECT_EQ(NotFound, array.indexOfInteger(5));
  EXPECT_EQ(1, array.indexOfInteger(4));
  EXPECT_EQ(6, array.lastInteger());
  EXPECT_THROW(array.integerAtIndex(3), Exception);
  EXPECT_THROW(array.integerAtIndex(-1), Exception);
  EXPECT_THROW(LWIntegerArray().lastInteger(), Exception);
  EXPECT_THROW(LWMutableIntegerArray().removeIntegerAtIndex(0), Exception);

  // The lower bound agrees with a linear scan on random sorted arrays with repeats.
  const uint32_t seed = 20261122;
  std::mt19937 rng(seed);
  for (int round = 0; round < 500; ++round) {
    std::vector<int64_t> integers(std::uniform_int_distribution<size_t>(0, 12)(rng));
    for (auto& integer : integers) integer = std::uniform_int_distribution<int64_t>(-5, 5)(rng);
    std::sort(integers.begin(), integers.end());
    const LWIntegerArray sorted(integers);
    const int64_t x = std::uniform_int_distribution<int64_t>(-7, 7)(rng);
    int64_t expected = 0;
    while (expected < sorted.count() && integers[static_cast<size_t>(expected)] < x) ++expected;
    ASSERT_EQ(expected, sorted.indexOfIntegerInSortedArray(x)) << "seed " << seed << ", x " << x;
  }
}

TEST(IntegerArray, EnumerationAndDescription) {
  auto array = make<LWMutableIntegerArray>(std::vector<int64_t>{10, 20, 30, 40});
  std::vector<int64_t> seen;
  array->enumerateIntegersUsingBlock([&](int64_t integer, int64_t index, bool& stop) {
    seen.push_back(integer * 100 + index);
    if (index == 0) array->removeIntegerAtIndex(3);  // the end is read again
    if (integer == 30) stop = true;
  });
  EXPECT_EQ((std::vector<int64_t>{1000, 2001, 3002}), seen);

  const std::string text = array->description(), empty = LWIntegerArray().description();
  EXPECT_EQ(0u, text.rfind("<LWMutableIntegerArray: 0x", 0)) << text;
  EXPECT_EQ("; items = (10, 20, 30)", text.substr(text.find(';'))) << text;
  EXPECT_EQ("; items = ()", empty.substr(empty.find(';')));
}

TEST(IndexPath, OrderingAndText) {
  EXPECT_EQ(OrderedDescending, TWIndexPath({0}).compare(IndexPath()));
  const uint32_t seed = 20261122;
  std::mt19937 rng(seed);
  auto randomPath = [&] {
    std::vector<uint64_t> indexes(std::uniform_int_distribution<size_t>(0, 4)(rng));
    for (auto& index : indexes) index = std::uniform_int_distribution<uint64_t>(0, 2)(rng);
    return indexes;
  };
  for (int round = 0; round < 500; ++round) {
    const auto a = randomPath(), b = randomPath();
    const int expected = a < b ? -1 : (b < a ? 1 : 0);
    ASSERT_EQ(expected, TWIndexPath(a).compare(TWIndexPath(b))) << "seed " << seed;
    ASSERT_EQ(-expected, TWIndexPath(b).compare(TWIndexPath(a))) << "seed " << seed;
  }

  auto path = make<TWIndexPath>(std::vector<uint64_t>{4});
  Ref<TWIndexPath> longer = path->indexPathByAddingIndex(7);
  EXPECT_EQ((std::vector<uint64_t>{4, 7}), longer->indexes());
  EXPECT_EQ((std::vector<uint64_t>{4}), path->indexes());
  EXPECT_TRUE(longer->isEqual(IndexPath({4, 7})));
  EXPECT_EQ(static_cast<uint64_t>(NotFound), longer->indexAtPosition(2));

  using Indexes = std::vector<uint64_t>;
  for (const auto& [indexes, tail] :
       {std::pair<Indexes, const char*>{{4}, "> 1 index [4]"}, {{4, 7}, "> 2 indexes [4, 7]"}, {{}, "> 0 indexes"}}) {
    const std::string text = make<TWIndexPath>(indexes)->description();
    EXPECT_EQ(0u, text.rfind("<TWIndexPath ", 0));
    EXPECT_EQ(std::string::npos, text.find("0x"));
    EXPECT_EQ(tail, text.substr(text.find('>')));
  }
}

TEST(ArrayIterator, BothEnds) {
  const Value array = Value::array({"a", "b", "c"});
  for (bool reverse : {false, true}) {
    Ref<TWArrayIterator> it = reverse ? reverseIterator(array) : iterator(array);
    EXPECT_TRUE(it->atBeginning() && it->array().isIdenticalTo(array));
    std::string seen;
    for (; !it->atEnd(); it->stepForward()) seen += it->object().string();
    EXPECT_EQ(seen, reverse ? "cba" : "abc");
    EXPECT_EQ(it->index(), reverse ? -1 : 3);
    EXPECT_THROW(it->object(), Exception);
    it->stepBack();
    EXPECT_EQ(it->object(), Value(reverse ? "a" : "c"));
  }
  auto empty = reverseIterator(Array{});
  EXPECT_TRUE(empty->atEnd() && empty->atBeginning() && empty->index() == -1);
  EXPECT_TRUE(iterator(Array{})->atEnd());
  EXPECT_THROW(iterator(Value(3)), Exception);
}

TEST(Collections, ArrayOperations) {
  const Value shared = Value::array({1, 2});
  const Value twin = Value::array({1, 2});
  const Array array{1, "x", Value::null(), shared, 2.0, twin, "x"};

  EXPECT_EQ((Array{"x", twin, 2.0, shared, Value::null(), "x", 1}), reversedArray(array));
  EXPECT_EQ((Array{1, Value::null(), shared, 2.0, twin}), arrayByRemovingObject(array, "x"));
  EXPECT_EQ(5u, arrayByRemovingObject(array, Value::array({1, 2})).size());  // equal, not identical
  const Array withoutShared = arrayByRemovingObjectIdenticalTo(array, shared);
  ASSERT_EQ(6u, withoutShared.size());
  EXPECT_TRUE(withoutShared[4].isIdenticalTo(twin));
  EXPECT_EQ((Array{1, Value::null(), shared, twin}), arrayByRemovingObjectsInArray(array, Array{"x", 2}));
  EXPECT_EQ((Array{1, "x", shared, 2.0, twin, "x"}), filteredArrayByRemovingNullValues(array));
  EXPECT_EQ((Array{"x", "x"}), filteredArrayUsingPredicateBlock(array, [](const Value& v) { return v.isString(); }));
  EXPECT_EQ(Array(array.size(), Value::null()),
            arrayByPerformingBlock(array, [](const Value&) { return std::nullopt; }));
  EXPECT_EQ((Array{"a", Value::null(), "b"}),
            arrayByPerformingSelector(Array{make<Named>("a"), 3, Value::dictionary({{"name", "b"}})}, "name"));
  for (const auto& [prefix, expected] : {std::pair{Array{}, true}, {Array{1.0, "x"}, true}, {Array{"x"}, false}})
    EXPECT_EQ(expected, hasPrefix(array, prefix));
  EXPECT_FALSE(hasPrefix(Array{1}, Array{1, 2}));

  const Dictionary groups =
      mapTableWithObjectsGroupedByPredicate(Array{1, 2, 3, 4, "five"}, [](const Value& v) -> std::optional<Value> {
        if (!v.isNumber()) return std::nullopt;
        return Value(v.integerValue() % 2 == 0 ? "even" : "odd");
      });
  EXPECT_EQ(
      (Dictionary{
          {"odd", Value::array({1, 3})}, {"even", Value::array({2, 4})}, {Value::null(), Value::array({"five"})}}),
      groups);
  EXPECT_EQ(Value("odd"), groups.begin()->first);
}

TEST(Collections, InPlaceArrayOperations) {
  Array array;
  for (int64_t size = 0; size < 8; ++size, array.emplace_back(size * 7 % 5)) {
    Array reversed = array;
    reverse(reversed);
    EXPECT_EQ(reversedArray(array), reversed);
  }
  Array numbers{1, 2, 3, 4, 5};
  filterUsingPredicateBlock(numbers, [](const Value& v) { return v.integerValue() != 3; });
  EXPECT_EQ((Array{1, 2, 4, 5}), numbers);
  transformUsingBlock(numbers, [](const Value& v) -> std::optional<Value> {
    if (v.integerValue() == 4) return std::nullopt;
    return Value(v.integerValue() * 10);
  });
  EXPECT_EQ((Array{10, 20, Value::null(), 50}), numbers);
  // The count is read again before every step.
  transformUsingBlock(numbers, [&](const Value& v) -> std::optional<Value> {
    if (numbers.size() > 2) numbers.pop_back();
    return v;
  });
  EXPECT_EQ((Array{10, 20}), numbers);
}

TEST(Collections, SetAndDictionaryOperations) {
  const Set set{1, 2, 3, "x"};
  EXPECT_EQ((Set{1, 3, "x"}), setByRemovingObject(set, 2.0));
  EXPECT_EQ((Set{2, 3}), setByRemovingObjectsFromSet(set, Set{1, "x", "y"}));
  EXPECT_EQ((Set{1, 2}), setByRemovingObjectsFromArray(set, Array{3, "x", 3}));
  EXPECT_EQ((Set{1, 0}), setByPerformingBlock(set, [](const Value& v) -> std::optional<Value> {
              if (!v.isNumber()) return std::nullopt;
              return Value(v.integerValue() % 2);
            }));
  EXPECT_EQ((Set{"x"}), filteredSetUsingPredicateBlock(set, [](const Value& v) { return v.isString(); }));

  const Dictionary dictionary =
      Value::dictionary({{"flag", true}, {"count", 7}, {"ratio", 2.5}, {"text", "12"}, {"again", 7}}).dictionary();
  for (const auto& [key, b, i, d] : {std::tuple{"flag", true, int64_t{1}, 1.0},
                                     {"count", true, int64_t{7}, 7.0},
                                     {"ratio", true, int64_t{2}, 2.5},
                                     {"text", false, int64_t{-1}, -1.0},
                                     {"missing", true, int64_t{-1}, -1.0}}) {
    EXPECT_EQ(b, boolValueForKeyDefaultValue(dictionary, key, std::string_view(key) == "missing")) << key;
    EXPECT_EQ(i, integerValueForKeyDefaultValue(dictionary, key, -1)) << key;
    EXPECT_EQ(d, doubleValueForKeyDefaultValue(dictionary, key, -1)) << key;
  }
  const Dictionary reversed = dictionaryByReversingObjectsAndKeys(dictionary);
  EXPECT_EQ(4u, reversed.size());
  EXPECT_EQ(Value("again"), reversed.at(7));
  EXPECT_EQ(Value("text"), reversed.at("12"));
  EXPECT_EQ(Value("flag"), reversed.at(true));
}

}  // namespace
}  // namespace loomwork
