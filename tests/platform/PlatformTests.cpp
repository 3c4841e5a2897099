// Value equality, hashing, text form and key paths; IndexSet operations
// against a plain std::set model; sort descriptors.
#include <gtest/gtest.h>

#include <iterator>
#include <random>
#include <set>
#include <unordered_set>

#include "loomwork/platform.h"

namespace loomwork {
namespace {

struct Person : Object {
  explicit Person(std::string name) : name(std::move(name)) {}
  std::optional<Value> valueForKey(std::string_view key) const override {
    if (key == "name") return Value(name);
    if (key == "info") return Value::dictionary({{"age", 42}});
    return std::nullopt;
  }
  std::string name;
};

TEST(Value, EqualityAndHashAgree) {
  std::vector<std::pair<Value, Value>> equal = {
      {Value(1), Value(1.0)},
      {Value(true), Value(1)},
      {Value(int64_t{1} << 60), Value(static_cast<double>(int64_t{1} << 60))},
      {Value::array({1, "x"}), Value::array({1.0, "x"})},
      {Value::dictionary({{"a", 1}, {"b", 2}}), Value::dictionary({{"b", 2}, {"a", 1}})},
      {Value::set({1, 2, 3}), Value::set({3, 2, 1})},
      {Value::data({1, 2}), Value::data({1, 2})}};
  for (const auto& [a, b] : equal)
    EXPECT_TRUE(a == b && a.hash() == b.hash()) << a.description() << " vs " << b.description();
  std::vector<std::pair<Value, Value>> different = {
      {Value(1), Value(1.5)},
      {Value("1"), Value(1)},
      {Value::date(1), Value(1)},
      {Value::array({1}), Value::array({1, 1})},
      {Value::set({1, 2}), Value::set({1, 3})},
      {Value(), Value(0)},
      {Value((int64_t{1} << 62) + 1), Value(static_cast<double>(int64_t{1} << 62))},
      {Value(std::nan("")), Value(std::nan(""))}};
  for (const auto& [a, b] : different) EXPECT_NE(a, b) << a.description() << " vs " << b.description();

  // A string longer than 22 bytes is its own heap object; a shorter one is
  // held in the value, so equal short strings are identical, like numbers.
  const std::string longText(23, 'x');
  Value s(longText);
  Value copy = s;
  EXPECT_TRUE(copy.isIdenticalTo(s));
  EXPECT_FALSE(Value(longText).isIdenticalTo(s));
  EXPECT_EQ(Value(longText), s);
  EXPECT_TRUE(Value(longText.substr(1)).isIdenticalTo(Value(longText.substr(1))));
  EXPECT_EQ(Value(longText.substr(1)).identityHash(), Value(longText.substr(1)).identityHash());
  EXPECT_FALSE(Value(longText.substr(1)).isIdenticalTo(Value(longText.substr(2))));
  EXPECT_TRUE(Value(3).isIdenticalTo(Value(3)));
  EXPECT_FALSE(Value(3).isIdenticalTo(Value(3.0)));

  auto alice = make<Person>("alice");
  EXPECT_EQ(Value(alice), Value(alice));
  EXPECT_NE(Value(alice), Value(make<Person>("alice")));  // objects compare by identity by default
  EXPECT_THROW(Value(1).string(), Exception);
}

// Strings up to 22 bytes live inside the value, longer ones on the heap: both
// must keep their bytes through copies, moves, assignment and vector growth,
// and agree with each other on order and hashing.
TEST(Value, StringsOfEveryLengthKeepTheirBytes) {
  std::string longest;
  for (size_t i = 0; i < 30; ++i) longest += static_cast<char>(i % 7 == 3 ? '\0' : 'a' + (i * 5) % 26);
  std::vector<std::string> texts;
  for (size_t length = 0; length <= 30; ++length) texts.push_back(longest.substr(0, length));
  texts.emplace_back("\xC3\xA9t\xC3\xA9 \xE2\x80\x94 Gr\xC3\xBC\xC3\x9F");
  Array values;  // grows, so elements are moved while the test runs
  for (const auto& text : texts) {
    Value v(text);
    Value copy = v, moved = Value(text), assigned = Value(1), selfAssigned(text);
    assigned = v;
    Value& alias = selfAssigned;
    selfAssigned = alias;
    Value& movedAlias = moved;
    moved = std::move(movedAlias);
    for (const Value* each : {&v, &copy, &moved, &assigned, &selfAssigned}) {
      EXPECT_EQ(each->string(), text);
      EXPECT_EQ(*each, v);
      EXPECT_EQ(each->hash(), v.hash());
    }
    values.push_back(std::move(copy));
  }
  for (size_t i = 0; i < texts.size(); ++i) {
    EXPECT_EQ(values[i].string(), texts[i]);
    for (size_t j = 0; j < texts.size(); ++j) {
      int expected = texts[i] < texts[j] ? -1 : (texts[j] < texts[i] ? 1 : 0);
      EXPECT_EQ(values[i].compare(values[j]), expected) << i << " " << j;
    }
  }
  std::unordered_set<Value> distinct(values.begin(), values.end());
  EXPECT_EQ(distinct.size(), texts.size());
}

TEST(Value, TextFormKeyPathsAndOrdering) {
  EXPECT_EQ(Value().description(), "<null>");
  EXPECT_EQ(Value(true).description(), "true");
  EXPECT_EQ(Value(-12).description(), "-12");
  EXPECT_EQ(Value(1.0).description(), "1.0");
  EXPECT_EQ(Value(0.1).description(), "0.1");
  EXPECT_EQ(Value("plain text").description(), "plain text");
  EXPECT_EQ(Value::array({1, "a", "two words", "", "q\"\n"}).description(),
            "(1, a, \"two words\", \"\", \"q\\\"\\n\")");
  EXPECT_EQ(Value::dictionary({{"b", 1}, {"a", Value::array({})}}).description(), "{b = 1; a = ();}");
  EXPECT_EQ(Value::set({2, 1}).description(), "{(2, 1)}");
  EXPECT_EQ(Value::data({0xde, 0xad, 0xbe, 0xef, 0x01}).description(), "<deadbeef 01>");
  EXPECT_EQ(Value::date(-1).description(), "1969-12-31 23:59:59 +0000");
  EXPECT_EQ(Value::date(951782400).description(), "2000-02-29 00:00:00 +0000");
  EXPECT_EQ(describe(std::nullopt), "nil");
  EXPECT_EQ(make<Person>("p")->className(), "Person");

  Value v = Value::dictionary({{"person", make<Person>("bob")}, {"n", 3}});
  EXPECT_EQ(valueForKeyPath(v, "person.name"), Value("bob"));
  EXPECT_EQ(valueForKeyPath(v, "person.info.age"), Value(42));
  EXPECT_EQ(valueForKeyPath(v, "person.missing"), std::nullopt);
  EXPECT_EQ(valueForKeyPath(v, "n.deeper"), std::nullopt);
  EXPECT_EQ(valueForKeyPath(v, ""), v);
  EXPECT_EQ(make<Person>("c")->valueForKeyPath("info.age"), Value(42));

  EXPECT_EQ(Value(1).compare(Value(1.5)), -1);
  EXPECT_EQ(Value(2.0).compare(Value(2)), 0);
  EXPECT_EQ(Value(INT64_MAX).compare(Value(9.3e18)), -1);
  EXPECT_EQ(Value("b").compare(Value("a")), 1);
  EXPECT_EQ(Value().compare(Value(0)), -1);

  Array people{Value::dictionary({{"n", 2}, {"s", "b"}}), Value::dictionary({{"n", 1}, {"s", "z"}}),
               Value::dictionary({{"n", 2}, {"s", "a"}})};
  sortUsingDescriptors(people, {SortDescriptor("n", false), SortDescriptor("s")});
  EXPECT_EQ(valueForKeyPath(people[0], "s"), Value("a"));
  EXPECT_EQ(valueForKeyPath(people[2], "s"), Value("z"));
  SortDescriptor byLength("s", true, [](const Value& a, const Value& b) {
    return static_cast<int>(a.string().size()) - static_cast<int>(b.string().size());
  });
  const Value aaa = Value::dictionary({{"s", "aaa"}}), b = Value::dictionary({{"s", "b"}});
  EXPECT_EQ(byLength.compareObjectToObject(aaa, b), 1);  // the comparator's 2, as a sign
  EXPECT_EQ(byLength.reversedSortDescriptor().compareObjectToObject(aaa, b), -1);
}

TEST(IndexSet, AgreesWithAPlainSet) {
  std::mt19937_64 rng(77);
  for (int c = 0; c < 2000; ++c) {
    SCOPED_TRACE("seed 77 case " + std::to_string(c));
    IndexSet set;
    std::set<int64_t> model;
    for (int op = 0; op < 20; ++op) {
      int64_t location = static_cast<int64_t>(rng() % 40), length = static_cast<int64_t>(rng() % 6);
      switch (rng() % 4) {
        case 0:
        case 1:
          set.addIndexesInRange({location, length});
          for (int64_t i = location; i < location + length; ++i) model.insert(i);
          break;
        case 2:
          set.removeIndexesInRange({location, length});
          for (int64_t i = location; i < location + length; ++i) model.erase(i);
          break;
        default: {
          int64_t delta = static_cast<int64_t>(rng() % 7) - 3;
          set.shiftIndexesStartingAtIndex(location, delta);
          std::set<int64_t> shifted;
          for (int64_t i : model) {
            if (i < location) {
              if (delta >= 0 || i < location + delta) shifted.insert(i);
            } else if (i + delta >= 0) {
              shifted.insert(i + delta);
            }
          }
          model = shifted;
        }
      }
      ASSERT_EQ(set.indexes(), std::vector<int64_t>(model.begin(), model.end())) << set.description();
      ASSERT_EQ(set.count(), model.size());
      for (size_t r = 1; r < set.ranges().size(); ++r) ASSERT_LT(set.ranges()[r - 1].end(), set.ranges()[r].location);
    }
    int64_t probe = static_cast<int64_t>(rng() % 45);
    auto above = model.upper_bound(probe);
    ASSERT_EQ(set.indexGreaterThanIndex(probe), above == model.end() ? NotFound : *above);
    ASSERT_EQ(set.indexLessThanOrEqualToIndex(probe), above == model.begin() ? NotFound : *std::prev(above));
    ASSERT_EQ(set.containsIndex(probe), model.count(probe) == 1);
    ASSERT_EQ(set.countOfIndexesInRange({probe, 5}),
              static_cast<size_t>(std::distance(model.lower_bound(probe), model.lower_bound(probe + 5))));
  }
  IndexSet s{1, 2, 3, 7, -4};
  EXPECT_EQ(s.description(), "[1-3, 7]");
  EXPECT_EQ(IndexSet().firstIndex(), NotFound);
  std::vector<int64_t> reversed;
  s.enumerateIndexes([&](int64_t i, bool& stop) { reversed.push_back(i), stop = reversed.size() == 2; }, true);
  EXPECT_EQ(reversed, (std::vector<int64_t>{7, 3}));
}

}  // namespace
}  // namespace loomwork
