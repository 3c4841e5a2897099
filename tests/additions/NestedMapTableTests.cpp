#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>

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
  std::string description() const override { return "t" + std::to_string(id); }
  int64_t id;
};
Value token(int64_t id) { return Value(make<Token>(id)); }

// "path object" for every entry below the prefix, sorted.
std::vector<std::string> entries(const TWNestedMapTable& table, const Array& prefix = {}) {
  std::vector<std::string> out;
  table.enumerateKeysAndObjectsWithPartialKeysBlock(prefix, [&](const Array& path, const Value& object, bool&) {
    out.push_back(Value(path).description() + " " + object.description());
  });
  std::sort(out.begin(), out.end());
  return out;
}

std::optional<ExceptionKind> thrownKind(const std::function<void()>& call) {
  try {
    call();
  } catch (const Exception& e) {
    return e.kind();
  }
  return std::nullopt;
}

TEST(NestedMapTable, DeliberateRulesTextAndCallerErrors) {
  TWNestedMapTable plain;  // one strong level
  plain.setObjectForKeys("x", {"k"});
  EXPECT_EQ(plain.referenceTypes(), (Types{S, S}));
  EXPECT_EQ(plain.description(), "TWNestedMapTable {\n    {\n        (0) : k\n        =>\n        x\n    }\n}\n");
  auto deep = TWNestedMapTable::strongMapTableWithDepth(3);
  deep->setObjectForKeys("x", {"a", "b"});  // wrong lengths change and find nothing
  deep->setObjectForKeys("x", {"a", "b", "c", "d"});
  EXPECT_EQ(deep->description(), "TWNestedMapTable {\n}\n");
  deep->setObjectForKeys("x", {"a", "b", "c"});
  EXPECT_EQ(deep->objectForKeys({"a", "b"}), std::nullopt);
  EXPECT_EQ(deep->removeObjectForKeys({"a", "b", "c"}), Value("x"));
  EXPECT_FALSE(deep->containsObjectsForPartialKeys({"a", "b"}));  // every emptied level was pruned

  // The prefix test never looks up the last key; only level 0 is counted.
  auto two = TWNestedMapTable::strongToStrongToStrongObjectsMapTable();
  two->setObjectForKey1Key2("x", "a", "b");
  for (const auto& [prefix, expected] : std::vector<std::pair<Array, bool>>{
           {{"a"}, true}, {{"z"}, true}, {{"a", "z"}, true}, {{"z", "b"}, false}, {{"a", "b", "c"}, false}})
    EXPECT_EQ(two->containsObjectsForPartialKeys(prefix), expected) << Value(prefix).description();
  two->setObjectForKey1Key2("y", "c", "d");
  two->setObjectForKey1Key2("z", "c", "e");
  EXPECT_EQ(two->objectForKey1Key2("c", 1), std::nullopt);
  EXPECT_EQ(two->countOfKeysAtLevel(1), 0U);
  EXPECT_EQ(two->removeObjectForKey1Key2("a", "b"), Value("x"));
  EXPECT_EQ(two->countOfKeysAtLevel(0), 1U);
  EXPECT_EQ(Value(two->removeObjectsForPartialKeys({"c"}).value()), Value::set({"y", "z"}));
  EXPECT_EQ(two->removeObjectsForPartialKeys({"c"}), std::nullopt);
  EXPECT_EQ(two->countOfKeysAtLevel(0), 0U);

  // Stop ends the enumeration at once.
  for (int i = 0; i < 10; ++i) two->setObjectForKey1Key2(i, i % 3, i);
  int calls = 0;
  two->enumerateKeysAndObjectsUsingBlock([&](const Array&, const Value&, bool& stop) { stop = ++calls > 0; });
  EXPECT_EQ(calls, 1);

  using K = ExceptionKind;
  EXPECT_EQ(thrownKind([] { TWNestedMapTable(0, {S}); }), K::InvalidArgument);
  EXPECT_EQ(thrownKind([] { TWNestedMapTable(2, {S, S}); }), K::InvalidArgument);
  EXPECT_EQ(thrownKind([] { TWNestedMapTable(1, {S, TWNestedMapTableReferenceType(2)}); }), K::InvalidArgument);
  EXPECT_EQ(thrownKind([&] { two->removeObjectForKeys({}); }), K::OutOfRange);
  EXPECT_EQ(thrownKind([&] { two->removeObjectsForPartialKeys({1, 2, 3}); }), K::InvalidArgument);
  EXPECT_EQ(thrownKind([&] { entries(*two, {1, 2, 3}); }), K::InvalidArgument);
  // Changing the table from its own enumeration is refused; reading it is fine.
  EXPECT_EQ(thrownKind([&] {
              two->enumerateKeysAndObjectsWithPartialKeysBlock({1}, [&](const Array& path, const Value&, bool&) {
                EXPECT_EQ(two->count(), 10U);
                two->removeObjectForKeys(path);
              });
            }),
            K::InternalInconsistency);
  EXPECT_EQ(two->count(), 10U);
  two->removeAllObjects();
  EXPECT_EQ(two->count(), 0U);
}

TEST(NestedMapTable, WeakEntriesVanishWithTheirObjectAndWhatTheyHeldIsReleasedLater) {
  const std::pair<Ref<TWNestedMapTable> (*)(), Types> made[] = {
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
    // Entry `role` holds tokens that only `held` keeps; the last outside
    // reference to its key 0, key 1 or object goes. Values that are not
    // objects stay at every level.
    std::vector<Array> kept(3);
    for (size_t role = 0; role < 3; ++role) {
      Array& held = kept[role] = {token(0), token(1), token(2)};
      table->setObjectForKey1Key2(held[2], held[0], held[1]);
      std::weak_ptr<Object> watched = held[role].object();
      held[role] = Value();
      const bool vanishes = types[role] == W;
      EXPECT_EQ(watched.expired(), vanishes);
      if (role == 2) {
        EXPECT_EQ(table->objectForKey1Key2(held[0], held[1]).has_value(), !vanishes);
      }
      if (role != 0) {
        EXPECT_EQ(entries(*table, {held[0]}).size(), vanishes ? 0U : 1U);
      }
    }
    table->setObjectForKey1Key2("text", 1, 2);
    const auto live = 4 - static_cast<uint64_t>(std::count(types.begin(), types.end(), W));
    EXPECT_EQ(table->count(), live);
    EXPECT_EQ(table->countOfKeysAtLevel(0), types[0] == W ? 3U : 4U);
    EXPECT_EQ(entries(*table->copy()), entries(*table));
  }

  // Strong objects under weak keys that are gone are released once the map
  // has grown enough to be swept.
  auto table = TWNestedMapTable::weakToStrongToStrongObjectsMapTable();
  std::vector<std::weak_ptr<Object>> objects;
  for (int64_t i = 0; i < 40; ++i) {
    Value object = token(i);
    objects.push_back(object.object());
    table->setObjectForKey1Key2(object, token(i), "b");
  }
  EXPECT_FALSE(objects.back().expired());
  std::vector<Value> keep;
  for (int64_t i = 0; i < 80; ++i) table->setObjectForKey1Key2(i, keep.emplace_back(token(i)), "b");
  EXPECT_TRUE(std::all_of(objects.begin(), objects.end(), [](const auto& o) { return o.expired(); }));
}

// Random operations on tables of every shape against a plain map of paths.
// Strong levels take integer keys; weak levels and weak objects take tokens
// that only the test holds, so an entry is live while its tokens are.
TEST(NestedMapTable, AgreesWithAPlainMapOfPaths) {
  constexpr uint64_t kSeed = 20261123;
  std::mt19937_64 rng(kSeed);
  auto uniform = [&](int64_t lo, int64_t hi) { return std::uniform_int_distribution<int64_t>(lo, hi)(rng); };
  for (int round = 0; round < 150; ++round) {
    SCOPED_TRACE("seed " + std::to_string(kSeed) + " round " + std::to_string(round));
    const auto depth = static_cast<size_t>(uniform(1, 4));
    Types types(depth + 1, S);
    for (auto& t : types) t = round % 3 != 0 && uniform(0, 2) == 0 ? W : S;
    const bool allStrong = std::count(types.begin(), types.end(), W) == 0;
    auto table = TWNestedMapTable::mapTableWithDepthReferenceTypes(depth, types);

    std::map<int64_t, Value> alive;  // tokens by id (from 100 up); each weak role uses four live ones
    std::vector<std::vector<int64_t>> pools(depth + 1);
    int64_t nextId = 100;
    auto pick = [&](size_t role) -> int64_t {
      if (types[role] == S) return uniform(0, depth == 1 ? 99 : 2);  // one level: a larger map that collides
      auto& pool = pools[role];
      std::erase_if(pool, [&](int64_t id) { return !alive.count(id); });
      for (; pool.size() < 4; ++nextId) alive[nextId] = token(nextId), pool.push_back(nextId);
      return pool[static_cast<size_t>(uniform(0, 3))];
    };
    auto value = [&](int64_t id) { return id >= 100 ? alive.at(id) : Value(id); };
    auto idOf = [](const Value& v) { return v.isObject() ? static_cast<const Token&>(*v.tryObject()).id : v.integerValue(); };
    auto ids = [&](const Array& path) {
      std::vector<int64_t> out;
      for (const Value& v : path) out.push_back(idOf(v));
      return out;
    };
    auto randomPath = [&](int64_t lo, int64_t hi) {
      Array path;
      for (int64_t i = 0, n = uniform(lo, hi); i < n; ++i) path.push_back(value(pick(static_cast<size_t>(i))));
      return path;
    };
    // Path text -> (key ids, object id); ids, so that the model keeps no token alive.
    std::map<std::string, std::pair<std::vector<int64_t>, int64_t>> model;
    auto under = [](const std::vector<int64_t>& prefix, const std::vector<int64_t>& path) {
      return std::equal(prefix.begin(), prefix.end(), path.begin());
    };
    auto below = [&](const std::vector<int64_t>& prefix) {
      std::vector<std::string> out;
      for (const auto& [text, e] : model)
        if (under(prefix, e.first)) out.push_back(text + " " + value(e.second).description());
      std::sort(out.begin(), out.end());
      return out;
    };
    auto dropDead = [&] {
      auto gone = [&](int64_t id) { return id >= 100 && !alive.count(id); };
      std::erase_if(model, [&](const auto& e) {
        return gone(e.second.second) || std::any_of(e.second.first.begin(), e.second.first.end(), gone);
      });
    };

    for (int step = 0; step < (depth == 1 ? 600 : 60); ++step) {
      const int64_t op = uniform(0, 9);
      Array path = randomPath(op <= 4 ? static_cast<int64_t>(depth) : 1, static_cast<int64_t>(depth));
      Array prefix = randomPath(0, static_cast<int64_t>(depth));
      if (op == 6 || op == 8) path.clear(), prefix.clear();  // so that they keep no token alive
      if (op <= 3) {
        const Value object = types[depth] == W ? value(pick(depth)) : Value(uniform(0, 50));
        table->setObjectForKeys(object, path);
        model[Value(path).description()] = {ids(path), idOf(object)};
      } else if (op == 4) {
        auto it = model.find(Value(path).description());
        auto found = table->objectForKeys(path);
        ASSERT_EQ(found.has_value(), it != model.end());
        ASSERT_TRUE(!found || idOf(*found) == it->second.second);
      } else if (op == 5) {
        Set expected;
        for (const auto& [text, e] : model)
          if (under(ids(path), e.first)) expected.insert(value(e.second));
        auto removed = table->removeObjectsForPartialKeys(path);
        ASSERT_EQ(removed.has_value(), !expected.empty());
        ASSERT_TRUE(!removed || Value(*removed) == Value(expected));
        std::erase_if(model, [&](const auto& e) { return under(ids(path), e.second.first); });
      } else if (op == 6 && !alive.empty()) {
        alive.erase(std::next(alive.begin(), uniform(0, static_cast<int64_t>(alive.size()) - 1)));
        dropDead();
      } else if (op == 7) {
        ASSERT_EQ(entries(*table, prefix), below(ids(prefix)));
        const Array walked(prefix.begin(), prefix.end() - (prefix.empty() ? 0 : 1));
        ASSERT_TRUE(!allStrong || prefix.empty() ||
                    table->containsObjectsForPartialKeys(prefix) == (walked.empty() || !below(ids(walked)).empty()));
      } else if (op == 8) {
        // Tokens whose last outside reference goes during an enumeration are
        // not reported afterwards (those on the current path stay alive while
        // the walk is below them, so another one goes).
        table->enumerateKeysAndObjectsUsingBlock([&](const Array& keys, const Value& object, bool&) {
          for (int64_t id : ids(keys)) ASSERT_TRUE(id < 100 || alive.count(id));
          ASSERT_TRUE(idOf(object) < 100 || alive.count(idOf(object)));
          const auto onPath = ids(keys);
          auto it = std::find_if(alive.begin(), alive.end(),
                                 [&](const auto& a) { return std::count(onPath.begin(), onPath.end(), a.first) == 0; });
          if (it != alive.end() && uniform(0, 3) == 0) alive.erase(it);
        });
        dropDead();
      } else if (uniform(0, 5) == 0) {
        table->removeAllObjects();
        model.clear();
      }
      ASSERT_EQ(table->count(), model.size());
      std::set<int64_t> firstKeys;
      for (const auto& [text, e] : model) firstKeys.insert(e.first[0]);
      ASSERT_TRUE(!allStrong || table->countOfKeysAtLevel(0) == firstKeys.size());
    }
    ASSERT_EQ(entries(*table), below({}));
    ASSERT_EQ(entries(*table->copy()), entries(*table));
  }
}

}  // namespace
}  // namespace loomwork
