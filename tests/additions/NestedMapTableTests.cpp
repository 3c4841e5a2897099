#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <map>
#include <random>
#include <set>
#include <vector>

#include "loomwork/additions/TWNestedMapTable.h"
#include "loomwork/platform/Exception.h"

namespace loomwork {
namespace {

using Types = std::vector<TWNestedMapTableReferenceType>;
constexpr auto S = TWNestedMapTableReferenceTypeStrong;
constexpr auto W = TWNestedMapTableReferenceTypeWeak;

// An object that compares by identity and shows its number.
struct Token : Object {
  explicit Token(int64_t id) : id(id) {}
  std::string description() const override { return "token" + std::to_string(id); }
  int64_t id;
};

Value token(int64_t id) { return Value(make<Token>(id)); }
Array keys(std::initializer_list<Value> k) { return Array(k); }

// The (path, object) pairs an enumeration reports, as text, sorted.
std::vector<std::string> entries(const TWNestedMapTable& table, const Array& prefix = {}) {
  std::vector<std::string> out;
  table.enumerateKeysAndObjectsWithPartialKeysBlock(prefix, [&](const Array& path, const Value& object, bool&) {
    out.push_back(Value(path).description() + " " + object.description());
  });
  std::sort(out.begin(), out.end());
  return out;
}

TEST(NestedMapTable, PathsPrefixesRemovalAndText) {
  // The default table is a one-level strong map.
  TWNestedMapTable plain;
  EXPECT_EQ(plain.depth(), 1U);
  EXPECT_EQ(plain.referenceTypes(), (Types{S, S}));
  plain.setObjectForKeys("x", keys({"k"}));
  plain.setObjectForKeys("y", keys({"k"}));
  EXPECT_EQ(plain.objectForKeys(keys({"k"})), Value("y"));
  EXPECT_EQ(plain.count(), 1U);
  EXPECT_EQ(plain.description(), "TWNestedMapTable {\n    {\n        (0) : k\n        =>\n        y\n    }\n}\n");

  // Paths of the wrong length change and find nothing.
  auto deep = TWNestedMapTable::strongMapTableWithDepth(3);
  EXPECT_EQ(deep->referenceTypes(), (Types{S, S, S, S}));
  deep->setObjectForKeys("x", keys({"a", "b"}));
  deep->setObjectForKeys("x", keys({"a", "b", "c", "d"}));
  EXPECT_EQ(deep->count(), 0U);
  EXPECT_EQ(deep->countOfKeysAtLevel(0), 0U);
  deep->setObjectForKeys("x", keys({"a", "b", "c"}));
  EXPECT_EQ(deep->objectForKeys(keys({"a", "b"})), std::nullopt);
  EXPECT_EQ(deep->objectForKeys(keys({"a", "b", "c"})), Value("x"));
  EXPECT_EQ(deep->description(),
            "TWNestedMapTable {\n    {\n        (0) : a\n        (1) : b\n        (2) : c\n        =>\n        x\n"
            "    }\n}\n");

  // The shallow prefix test never looks up the last key.
  auto two = TWNestedMapTable::strongToStrongToStrongObjectsMapTable();
  two->setObjectForKey1Key2("x", "a", "b");
  EXPECT_EQ(two->objectForKey1Key2("a", "b"), Value("x"));
  const std::pair<Array, bool> prefixes[] = {
      {{"a"}, true}, {{"z"}, true}, {{"a", "z"}, true}, {{"z", "b"}, false}, {{"a", "b", "c"}, false}, {{}, true}};
  for (const auto& [prefix, expected] : prefixes)
    EXPECT_EQ(two->containsObjectsForPartialKeys(prefix), expected) << Value(prefix).description();

  // Removal prunes the emptied inner map; only level 0 is counted.
  two->setObjectForKey1Key2("y", "c", "d");
  two->setObjectForKey1Key2(Value(1), 2, 3.0);
  EXPECT_EQ(two->objectForKey1Key2(2.0, 3), Value(1));  // keys compare by value
  EXPECT_EQ(two->countOfKeysAtLevel(0), 3U);
  EXPECT_EQ(two->countOfKeysAtLevel(1), 0U);
  EXPECT_EQ(two->removeObjectForKey1Key2("a", "b"), Value("x"));
  EXPECT_EQ(two->countOfKeysAtLevel(0), 2U);
  EXPECT_EQ(two->removeObjectForKey1Key2("a", "b"), std::nullopt);
  EXPECT_EQ(two->removeObjectForKey1Key2("c", "zz"), std::nullopt);
  EXPECT_EQ(two->countOfKeysAtLevel(0), 2U);
  two->setObjectForKey1Key2("z", "c", "e");
  auto removed = two->removeObjectsForPartialKeys(keys({"c"}));
  ASSERT_TRUE(removed.has_value());
  EXPECT_EQ(Value(*removed), Value::set({"y", "z"}));
  EXPECT_EQ(two->removeObjectsForPartialKeys(keys({"c"})), std::nullopt);
  EXPECT_EQ(two->countOfKeysAtLevel(0), 1U);
  // Every emptied level is pruned, down to the root.
  deep->removeObjectForKeys(keys({"a", "b", "c"}));
  EXPECT_EQ(deep->countOfKeysAtLevel(0), 0U);
  EXPECT_FALSE(deep->containsObjectsForPartialKeys(keys({"a", "b"})));

  // Stop ends the enumeration at once; a full-path prefix reports the entry itself.
  for (int i = 0; i < 10; ++i) two->setObjectForKey1Key2(i, i % 3, i);
  int calls = 0;
  two->enumerateKeysAndObjectsUsingBlock([&](const Array&, const Value&, bool& stop) { stop = ++calls > 0; });
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(entries(*two, keys({1, 4})), std::vector<std::string>{"(1, 4) 4"});
  EXPECT_EQ(entries(*two, keys({1})), (std::vector<std::string>{"(1, 1) 1", "(1, 4) 4", "(1, 7) 7"}));
  EXPECT_TRUE(entries(*two, keys({5})).empty());
  two->removeAllObjects();
  EXPECT_EQ(two->description(), "TWNestedMapTable {\n}\n");
}

TEST(NestedMapTable, CallerErrors) {
  auto kind = [](auto&& call) {
    try {
      call();
    } catch (const Exception& e) {
      return std::optional(e.kind());
    }
    return std::optional<ExceptionKind>();
  };
  using K = ExceptionKind;
  EXPECT_EQ(kind([] { TWNestedMapTable(0, {S}); }), K::InvalidArgument);
  EXPECT_EQ(kind([] { TWNestedMapTable(2, {S, S}); }), K::InvalidArgument);
  EXPECT_EQ(kind([] { TWNestedMapTable(1, {S, TWNestedMapTableReferenceType(2)}); }), K::InvalidArgument);
  auto table = TWNestedMapTable::strongMapTableWithDepth(2);
  table->setObjectForKey1Key2("x", "a", "b");
  EXPECT_EQ(kind([&] { table->removeObjectsForPartialKeys({}); }), K::OutOfRange);
  EXPECT_EQ(kind([&] { table->removeObjectForKeys({}); }), K::OutOfRange);
  EXPECT_EQ(kind([&] { table->removeObjectsForPartialKeys(keys({"a", "b", "c"})); }), K::InvalidArgument);
  EXPECT_EQ(kind([&] { entries(*table, keys({"a", "b", "c"})); }), K::InvalidArgument);
  // Changing the table from its own enumeration is refused and changes nothing; reading is fine.
  EXPECT_EQ(kind([&] {
              table->enumerateKeysAndObjectsUsingBlock([&](const Array&, const Value&, bool&) {
                EXPECT_EQ(table->count(), 1U);
                table->setObjectForKey1Key2("y", "c", "d");
              });
            }),
            K::InternalInconsistency);
  EXPECT_EQ(kind([&] {
              table->enumerateKeysAndObjectsWithPartialKeysBlock(
                  keys({"a"}), [&](const Array&, const Value&, bool&) { table->removeObjectForKey1Key2("a", "b"); });
            }),
            K::InternalInconsistency);
  EXPECT_EQ(entries(*table), std::vector<std::string>{"(a, b) x"});
  table->removeAllObjects();  // allowed again once the enumerations are over
  EXPECT_EQ(table->count(), 0U);
}

TEST(NestedMapTable, WeakLevelsLoseEntriesAsSoonAsTheirObjectIsGone) {
  using Maker = Ref<TWNestedMapTable> (*)();
  const std::pair<Maker, Types> made[] = {
      {TWNestedMapTable::strongToStrongToStrongObjectsMapTable, {S, S, S}},
      {TWNestedMapTable::strongToStrongToWeakObjectsMapTable, {S, S, W}},
      {TWNestedMapTable::strongToWeakToStrongObjectsMapTable, {S, W, S}},
      {TWNestedMapTable::strongToWeakToWeakObjectsMapTable, {S, W, W}},
      {TWNestedMapTable::weakToStrongToStrongObjectsMapTable, {W, S, S}},
      {TWNestedMapTable::weakToStrongToWeakObjectsMapTable, {W, S, W}},
      {TWNestedMapTable::weakToWeakToStrongObjectsMapTable, {W, W, S}},
      {TWNestedMapTable::weakToWeakToWeakObjectsMapTable, {W, W, W}},
  };
  for (const auto& [maker, types] : made) {
    auto table = maker();
    ASSERT_EQ(table->referenceTypes(), types);
    SCOPED_TRACE(std::to_string(types[0]) + std::to_string(types[1]) + std::to_string(types[2]));
    // Each entry's key 0, key 1 and object are tokens only this array holds;
    // values that are not objects stay at every level.
    std::vector<std::array<Value, 3>> held;
    for (int64_t i = 0; i < 6; ++i) {
      held.push_back({token(i), token(10 + i), token(20 + i)});
      table->setObjectForKey1Key2(held.back()[2], held.back()[0], held.back()[1]);
    }
    table->setObjectForKey1Key2("text", 100, 200);
    // Dropping the last outside reference to key 0, key 1 or the object of entries 1, 2 and 3.
    for (size_t role = 0; role < 3; ++role) {
      auto& entry = held[1 + role];
      std::weak_ptr<Object> watched = entry[role].object();
      entry[role] = Value();
      const bool vanishes = types[role] == W;
      EXPECT_EQ(watched.expired(), vanishes);
      if (role == 1) {
        EXPECT_EQ(entries(*table, {entry[0]}).size(), vanishes ? 0U : 1U);
      } else if (role == 2) {
        EXPECT_EQ(table->objectForKeys({entry[0], entry[1]}).has_value(), !vanishes);
      }
    }
    EXPECT_EQ(table->objectForKey1Key2(100, 200), Value("text"));
    const uint64_t live = 7 - static_cast<uint64_t>(std::count(types.begin(), types.end(), W));
    EXPECT_EQ(table->count(), live);
    EXPECT_EQ(entries(*table).size(), live);
    EXPECT_EQ(table->countOfKeysAtLevel(0), types[0] == W ? 6U : 7U);
    EXPECT_EQ(entries(*table->copy()), entries(*table));
    EXPECT_EQ(table->copy()->referenceTypes(), types);

    // Once the block has dropped every outside reference, no entry that held
    // a token weakly is reported any more.
    const bool allStrong = types == Types{S, S, S};
    size_t tokensReported = 0;
    table->enumerateKeysAndObjectsUsingBlock([&](const Array&, const Value& object, bool&) {
      if (!object.isObject()) return;
      ++tokensReported;
      held.clear();
    });
    EXPECT_EQ(tokensReported, allStrong ? live - 1 : 1U);
    EXPECT_EQ(table->count(), allStrong ? live : 1U);
  }
}

TEST(NestedMapTable, WhatDeadWeakKeysHeldIsReleasedAsTheMapGrows) {
  auto table = TWNestedMapTable::weakToStrongToStrongObjectsMapTable();
  std::vector<std::weak_ptr<Object>> objects;
  for (int64_t i = 0; i < 40; ++i) {
    Value key = token(i), object = token(100 + i);
    objects.push_back(object.object());
    table->setObjectForKey1Key2(object, key, "b");
  }
  EXPECT_EQ(table->count(), 0U);  // every key is gone; the last objects are still held
  EXPECT_FALSE(objects.back().expired());
  std::vector<Value> keep;
  for (int64_t i = 0; i < 80; ++i) {
    keep.push_back(token(1000 + i));
    table->setObjectForKey1Key2(i, keep.back(), "b");
  }
  EXPECT_TRUE(std::all_of(objects.begin(), objects.end(), [](const auto& o) { return o.expired(); }));
  EXPECT_EQ(table->count(), 80U);
}

// Random operations on tables of every shape against a plain map of paths.
// Strong levels take integer keys; weak levels and weak objects take tokens
// that only the test holds, so an entry is live while its tokens are.
TEST(NestedMapTable, AgreesWithAPlainMapOfPaths) {
  constexpr uint64_t kSeed = 20261123;
  std::mt19937_64 rng(kSeed);
  auto uniform = [&](int64_t lo, int64_t hi) { return std::uniform_int_distribution<int64_t>(lo, hi)(rng); };
  for (int round = 0; round < 300; ++round) {
    SCOPED_TRACE("seed " + std::to_string(kSeed) + " round " + std::to_string(round));
    const auto depth = static_cast<size_t>(uniform(1, 4));
    Types types(depth + 1, S);
    if (round % 3 != 0)
      for (auto& t : types) t = uniform(0, 2) == 0 ? W : S;
    const bool allStrong = std::count(types.begin(), types.end(), W) == 0;
    auto table = TWNestedMapTable::mapTableWithDepthReferenceTypes(depth, types);

    // Tokens by id (ids from 100 up) while alive; each weak role draws from four live ones.
    std::map<int64_t, Value> alive;
    std::vector<std::vector<int64_t>> pools(depth + 1);
    int64_t nextId = 100;
    auto pick = [&](size_t role) -> int64_t {
      if (types[role] == S) return uniform(0, 2);
      auto& pool = pools[role];
      std::erase_if(pool, [&](int64_t id) { return !alive.count(id); });
      while (pool.size() < 4) {
        alive[nextId] = token(nextId);
        pool.push_back(nextId++);
      }
      return pool[static_cast<size_t>(uniform(0, 3))];
    };
    auto value = [&](int64_t id) { return id >= 100 ? alive.at(id) : Value(id); };
    auto idOf = [](const Value& v) { return v.isObject() ? static_cast<const Token*>(v.tryObject())->id : v.integerValue(); };
    auto describe = [](const std::vector<int64_t>& path, int64_t object) {
      std::string s;
      for (int64_t k : path) s += std::to_string(k) + " ";
      return s + "-> " + std::to_string(object);
    };

    std::map<std::vector<int64_t>, int64_t> model;
    auto dropDead = [&] {
      std::erase_if(model, [&](const auto& entry) {
        for (int64_t id : entry.first)
          if (id >= 100 && !alive.count(id)) return true;
        return entry.second >= 100 && !alive.count(entry.second);
      });
    };
    auto randomPath = [&](size_t length) {
      std::vector<int64_t> path;
      for (size_t i = 0; i < length; ++i) path.push_back(pick(i));
      return path;
    };
    auto asKeys = [&](const std::vector<int64_t>& path) {
      Array k;
      for (int64_t id : path) k.push_back(value(id));
      return k;
    };
    auto below = [&](const std::vector<int64_t>& prefix) {
      std::vector<std::string> out;
      for (const auto& [path, object] : model)
        if (std::equal(prefix.begin(), prefix.end(), path.begin())) out.push_back(describe(path, object));
      return out;
    };
    auto reported = [&](const Array& prefix) {
      std::vector<std::string> out;
      table->enumerateKeysAndObjectsWithPartialKeysBlock(prefix, [&](const Array& path, const Value& object, bool&) {
        std::vector<int64_t> ids;
        for (const Value& k : path) ids.push_back(idOf(k));
        out.push_back(describe(ids, idOf(object)));
      });
      std::sort(out.begin(), out.end());
      return out;
    };

    for (int step = 0; step < 60; ++step) {
      const int64_t op = uniform(0, 9);
      if (op <= 3) {
        const auto path = randomPath(depth);
        const int64_t object = types[depth] == W ? pick(depth) : uniform(0, 50);
        table->setObjectForKeys(value(object), asKeys(path));
        model[path] = object;
      } else if (op == 4) {
        const auto path = randomPath(depth);
        auto found = table->objectForKeys(asKeys(path));
        auto it = model.find(path);
        ASSERT_EQ(found.has_value(), it != model.end());
        ASSERT_TRUE(!found || idOf(*found) == it->second);
      } else if (op == 5) {
        const auto prefix = randomPath(static_cast<size_t>(uniform(1, static_cast<int64_t>(depth))));
        const auto expected = below(prefix);
        auto removed = table->removeObjectsForPartialKeys(asKeys(prefix));
        ASSERT_EQ(removed.has_value(), !expected.empty());
        std::multiset<int64_t> got, want;
        for (const Value& v : removed.value_or(Set())) got.insert(idOf(v));
        for (const auto& [path, object] : model)
          if (std::equal(prefix.begin(), prefix.end(), path.begin())) want.insert(object);
        ASSERT_EQ(std::set<int64_t>(got.begin(), got.end()), std::set<int64_t>(want.begin(), want.end()));
        std::erase_if(model, [&](const auto& e) { return std::equal(prefix.begin(), prefix.end(), e.first.begin()); });
      } else if (op == 6 && !alive.empty()) {
        // A token's last outside reference goes.
        auto it = alive.begin();
        std::advance(it, uniform(0, static_cast<int64_t>(alive.size()) - 1));
        alive.erase(it);
        dropDead();
      } else if (op == 7) {
        const auto prefix = randomPath(static_cast<size_t>(uniform(0, static_cast<int64_t>(depth))));
        ASSERT_EQ(reported(asKeys(prefix)), below(prefix));
        if (allStrong && !prefix.empty()) {
          const std::vector<int64_t> walked(prefix.begin(), prefix.end() - 1);
          ASSERT_EQ(table->containsObjectsForPartialKeys(asKeys(prefix)), walked.empty() || !below(walked).empty());
        }
      } else if (op == 8) {
        // Tokens dropped from inside an enumeration are not reported afterwards.
        std::vector<std::string> seen;
        table->enumerateKeysAndObjectsUsingBlock([&](const Array& path, const Value& object, bool&) {
          for (const Value& k : path) ASSERT_TRUE(!k.isObject() || alive.count(idOf(k)));
          ASSERT_TRUE(!object.isObject() || alive.count(idOf(object)));
          // Keys on the current path stay alive while the walk is below them, so drop another token.
          auto it = alive.begin();
          while (it != alive.end() && std::any_of(path.begin(), path.end(), [&](const Value& k) {
                   return k.isObject() && idOf(k) == it->first;
                 }))
            ++it;
          if (it != alive.end() && uniform(0, 3) == 0) alive.erase(it);
        });
        dropDead();
      } else if (uniform(0, 5) == 0) {
        table->removeAllObjects();
        model.clear();
      }
      ASSERT_EQ(table->count(), model.size());
      if (allStrong) {
        std::set<int64_t> firstKeys;
        for (const auto& entry : model) firstKeys.insert(entry.first[0]);
        ASSERT_EQ(table->countOfKeysAtLevel(0), firstKeys.size());
      }
    }
    ASSERT_EQ(reported({}), below({}));
    ASSERT_EQ(entries(*table->copy()), entries(*table));
  }
}

}  // namespace
}  // namespace loomwork
