#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <random>
#include <tuple>
#include <vector>

#include "loomwork/additions.h"
#include "loomwork/platform.h"

namespace loomwork {
namespace {

// An object that answers one key.
struct Named : Object {
  explicit Named(std::string name) : name(std::move(name)) {}
  std::optional<Value> valueForKey(std::string_view key) const override {
    return key == "name" ? std::optional<Value>(name) : std::nullopt;
  }
  std::string name;
};

TEST(IntegerArray, CopiesSearchesEnumerationAndText) {
  // An immutable array is its own copy and is sorted in place.
  Ref<LWIntegerArray> immutable = make<LWIntegerArray>(std::vector<int64_t>{3, 1, 2});
  EXPECT_TRUE(immutable == immutable->copy() && immutable == immutable->sortedArray());
  EXPECT_EQ((std::vector<int64_t>{1, 2, 3}), immutable->vector());
  // A mutable array's copies are new immutable arrays that keep their contents.
  Ref<LWMutableIntegerArray> mutableArray = make<LWMutableIntegerArray>(std::vector<int64_t>{5, 4});
  Ref<LWIntegerArray> snapshot = mutableArray->copy();
  EXPECT_EQ(nullptr, std::dynamic_pointer_cast<LWMutableIntegerArray>(snapshot));
  mutableArray->addInteger(9);
  mutableArray->setIntegerAtIndex(7, 0);
  Ref<LWIntegerArray> sortedCopy = mutableArray->sortedArray();
  EXPECT_EQ((std::vector<int64_t>{5, 4}), snapshot->vector());
  EXPECT_EQ((std::vector<int64_t>{7, 4, 9}), mutableArray->vector());
  EXPECT_EQ((std::vector<int64_t>{4, 7, 9}), sortedCopy->vector());

  Ref<LWMutableIntegerArray> fresh = immutable->mutableCopy();
  EXPECT_TRUE(fresh->isEqual(*immutable) && immutable->isEqualToArray(fresh));
  EXPECT_EQ(fresh->hash(), immutable->hash());
  fresh->removeIntegerAtIndex(1);
  EXPECT_EQ((std::vector<int64_t>{1, 3}), fresh->vector());
  EXPECT_FALSE(immutable->isEqualToArray(fresh) || immutable->isEqualToArray(nullptr));
  EXPECT_FALSE(immutable->isEqual(*make<Named>("x")));

  const LWIntegerArray array{1, 4, 6};
  EXPECT_TRUE(array.indexOfInteger(5) == NotFound && array.indexOfInteger(4) == 1 && array.lastInteger() == 6);
  for (const auto& outOfRange : std::vector<std::function<void()>>{
           [&] { array.integerAtIndex(3); }, [&] { array.integerAtIndex(-1); }, [] { LWIntegerArray().lastInteger(); },
           [] { LWMutableIntegerArray().removeIntegerAtIndex(0); }})
    EXPECT_THROW(outOfRange(), Exception);
  // The lower bound counts the smaller integers, on random sorted arrays with repeats.
  std::mt19937 rng(20261122);
  for (int round = 0; round < 500; ++round) {
    std::vector<int64_t> integers(rng() % 13);
    for (auto& integer : integers) integer = static_cast<int64_t>(rng() % 11) - 5;
    std::sort(integers.begin(), integers.end());
    const int64_t x = static_cast<int64_t>(rng() % 15) - 7;
    ASSERT_EQ(std::count_if(integers.begin(), integers.end(), [x](int64_t i) { return i < x; }),
              LWIntegerArray(integers).indexOfIntegerInSortedArray(x))
        << "seed 20261122, round " << round;
  }

  // Enumeration reads the end again after every step, and stops when asked.
  auto changing = make<LWMutableIntegerArray>(std::vector<int64_t>{10, 20, 30, 40});
  auto enumerate = [&](int64_t last) {
    std::vector<int64_t> seen;
    changing->enumerateIntegersUsingBlock([&](int64_t integer, int64_t index, bool& stop) {
      seen.push_back(integer * 100 + index);
      if (changing->count() == 4) changing->removeIntegerAtIndex(3);
      stop = integer == last;
    });
    return seen;
  };
  EXPECT_EQ((std::vector<int64_t>{1000, 2001, 3002}), enumerate(0));
  EXPECT_EQ((std::vector<int64_t>{1000, 2001}), enumerate(20));
  const std::string text = changing->description(), empty = LWIntegerArray().description();
  EXPECT_EQ(0u, text.rfind("<LWMutableIntegerArray: 0x", 0)) << text;
  EXPECT_EQ("; items = (10, 20, 30)", text.substr(text.find(';'))) << text;
  EXPECT_EQ("; items = ()", empty.substr(empty.find(';')));
}

TEST(IndexPath, OrderingAndText) {
  std::mt19937 rng(20261122);
  auto randomPath = [&] {
    std::vector<uint64_t> indexes(rng() % 5);
    for (auto& index : indexes) index = rng() % 3;
    return TWIndexPath(indexes);
  };
  for (int round = 0; round < 500; ++round) {
    const TWIndexPath a = randomPath(), b = randomPath();
    const int expected = a.indexes() < b.indexes() ? -1 : (b.indexes() < a.indexes() ? 1 : 0);
    ASSERT_EQ(expected, a.compare(b)) << "seed 20261122, round " << round;
  }

  auto path = make<TWIndexPath>(std::vector<uint64_t>{4});
  Ref<TWIndexPath> longer = path->indexPathByAddingIndex(7);
  EXPECT_EQ((std::vector<uint64_t>{4}), path->indexes());
  // Appending through the base keeps the class.
  const IndexPath& base = *path;
  EXPECT_NE(nullptr, std::dynamic_pointer_cast<TWIndexPath>(base.indexPathByAddingIndex(7)));
  EXPECT_EQ(nullptr, std::dynamic_pointer_cast<TWIndexPath>(IndexPath({1}).indexPathByAddingIndex(7)));
  EXPECT_TRUE(longer->isEqual(IndexPath({4, 7})) && !longer->isEqual(IndexPath({7, 4})));
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
    EXPECT_THROW(it->object(), Exception);
    it->stepBack();
    EXPECT_EQ(it->object(), Value(reverse ? "a" : "c"));
  }
  auto empty = reverseIterator(Array{});
  EXPECT_TRUE(empty->atEnd() && empty->atBeginning() && empty->index() == -1);
  EXPECT_THROW(iterator(Value(3)), Exception);
}

TEST(Collections, ArrayOperationsCopyingAndInPlace) {
  const Value shared = Value::array({1, 2});
  const Value twin = Value::array({1, 2});
  const Array array{1, "x", Value::null(), shared, 2.0, twin, "x"};

  EXPECT_EQ((Array{"x", twin, 2.0, shared, Value::null(), "x", 1}), reversedArray(array));
  EXPECT_EQ((Array{1, Value::null(), shared, 2.0, twin}), arrayByRemovingObject(array, "x"));
  EXPECT_EQ(5u, arrayByRemovingObject(array, Value::array({1, 2})).size());  // equal, not identical
  const Array withoutShared = arrayByRemovingObjectIdenticalTo(array, shared);
  EXPECT_TRUE(withoutShared.size() == 6 && withoutShared[4].isIdenticalTo(twin));
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

  // Groups in the order of their first members (dictionaries compare in order).
  const Dictionary groups = mapTableWithObjectsGroupedByPredicate(Array{1, 2, 3, 4, "five"}, [](const Value& v) {
    return v.isNumber() ? std::optional<Value>(v.integerValue() % 2 == 0 ? "even" : "odd") : std::nullopt;
  });
  EXPECT_EQ(
      (Dictionary{
          {"odd", Value::array({1, 3})}, {"even", Value::array({2, 4})}, {Value::null(), Value::array({"five"})}}),
      groups);

  // The forms that change the array in place.
  Array growing;
  for (int64_t size = 0; size < 8; ++size, growing.emplace_back(size * 7 % 5)) {
    Array reversed = growing;
    reverse(reversed);
    EXPECT_EQ(reversedArray(growing), reversed);
  }
  Array numbers{1, 2, 3, 4, 5};
  filterUsingPredicateBlock(numbers, [](const Value& v) { return v.integerValue() != 3; });
  EXPECT_EQ((Array{1, 2, 4, 5}), numbers);
  transformUsingBlock(numbers, [](const Value& v) {
    return v.integerValue() == 4 ? std::nullopt : std::optional<Value>(v.integerValue() * 10);
  });
  EXPECT_EQ((Array{10, 20, Value::null(), 50}), numbers);
  // The count is read again before every step, and nothing is written past a shrunk end.
  transformUsingBlock(numbers, [&](const Value& v) -> std::optional<Value> {
    if (v.isNull()) numbers.resize(1);
    return Value(7);
  });
  EXPECT_EQ((Array{7}), numbers);
}

TEST(Collections, SetAndDictionaryOperations) {
  const Set set{1, 2, 3, "x"};
  EXPECT_EQ((Set{1, 3, "x"}), setByRemovingObject(set, 2.0));
  EXPECT_EQ((Set{2, 3}), setByRemovingObjectsFromSet(set, Set{1, "x", "y"}));
  EXPECT_EQ((Set{1, 2}), setByRemovingObjectsFromArray(set, Array{3, "x", 3}));
  EXPECT_EQ((Set{1, 0}), setByPerformingBlock(set, [](const Value& v) {
              return v.isNumber() ? std::optional<Value>(v.integerValue() % 2) : std::nullopt;
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
  EXPECT_EQ((Dictionary{{true, "flag"}, {7, "again"}, {2.5, "ratio"}, {"12", "text"}}),
            dictionaryByReversingObjectsAndKeys(dictionary));
}

}  // namespace
}  // namespace loomwork
