#include "loomwork/additions/TWNestedMapTable.h"

#include <algorithm>
#include <unordered_map>

#include "loomwork/platform/Exception.h"

namespace loomwork {

namespace {

// A key or an object as a level holds it: an Object of a weak level as a
// weak_ptr, anything else as the value itself.
struct Held {
  Value strong;
  std::weak_ptr<Object> weak;
  bool weakly = false;

  Held() = default;
  Held(const Value& value, bool weakLevel) {
    if (weakLevel && value.isObject()) {
      weak = value.object();
      weakly = true;
    } else {
      strong = value;
    }
  }

  bool alive() const { return !weakly || !weak.expired(); }
  // The value, or absent when its object is gone.
  std::optional<Value> get() const {
    if (!weakly) return strong;
    if (auto object = weak.lock()) return Value(std::move(object));
    return std::nullopt;
  }
  // Whether this holds a value equal to `value`; a key whose object is gone
  // equals nothing.
  bool matches(const Value& value) const {
    if (!weakly) return strong == value;
    Object* other = value.tryObject();
    if (other == nullptr) return false;
    auto object = weak.lock();
    return object && (object.get() == other || object->isEqual(*other));
  }
};

struct Key {
  Held held;
  size_t hash;
};

struct KeyHash {
  using is_transparent = void;
  size_t operator()(const Key& key) const noexcept { return key.hash; }
  size_t operator()(const Value& value) const noexcept { return value.hash(); }
};

struct KeyEqual {
  using is_transparent = void;
  bool operator()(const Key& a, const Value& b) const { return a.held.matches(b); }
  bool operator()(const Value& a, const Key& b) const { return b.held.matches(a); }
  bool operator()(const Key& a, const Key& b) const {
    if (a.hash != b.hash) return false;
    auto value = b.held.get();
    return value && a.held.matches(*value);
  }
};

}  // namespace

struct TWNestedMapTable::Level {
  // An inner level's entries lead to the next level; the last level's hold
  // the objects.
  struct Slot {
    std::unique_ptr<Level> child;
    Held object;
  };
  using Map = std::unordered_map<Key, Slot, KeyHash, KeyEqual>;

  Map map;
  // The size at which the next insertion first drops the entries whose weak
  // key or object is gone (maps that hold nothing weakly never need it).
  size_t sweepAt = 16;

  const Slot* find(const Value& key) const {
    auto it = map.find(key);
    return it == map.end() ? nullptr : &it->second;
  }
  Slot* find(const Value& key) {
    auto it = map.find(key);
    return it == map.end() ? nullptr : &it->second;
  }

  // The slot for `key`, made when there is none.
  Slot& slotFor(const Value& key, bool weakKeys, bool weakObjects) {
    auto it = map.find(key);
    if (it != map.end()) return it->second;
    if ((weakKeys || weakObjects) && map.size() >= sweepAt) {
      std::erase_if(map, [&](const auto& entry) {
        return !entry.first.held.alive() || (weakObjects && !entry.second.child && !entry.second.object.alive());
      });
      sweepAt = std::max<size_t>(16, map.size() * 2);
    }
    return map.emplace(Key{Held(key, weakKeys), key.hash()}, Slot{}).first->second;
  }
};

namespace {

using Level = TWNestedMapTable::Level;

// Counts enumerations in progress for the duration of one.
class EnumerationScope {
 public:
  explicit EnumerationScope(int& count) : count_(count) { ++count_; }
  ~EnumerationScope() { --count_; }
  EnumerationScope(const EnumerationScope&) = delete;
  EnumerationScope& operator=(const EnumerationScope&) = delete;

 private:
  int& count_;
};

[[noreturn]] void prefixTooLong(const char* operation, size_t count, uint64_t depth) {
  throw Exception(ExceptionKind::InvalidArgument, std::string(operation) + ": a prefix of " + std::to_string(count) +
                                                      " keys is longer than the depth " + std::to_string(depth));
}

// The live entries below a level, `remaining` levels deep.
uint64_t countBelow(const Level& level, uint64_t remaining) {
  uint64_t count = 0;
  for (const auto& [key, slot] : level.map) {
    if (!key.held.alive()) continue;
    if (remaining == 1) {
      count += slot.object.alive() ? 1 : 0;
    } else {
      count += countBelow(*slot.child, remaining - 1);
    }
  }
  return count;
}

}  // namespace

TWNestedMapTable::TWNestedMapTable()
    : TWNestedMapTable(1, {TWNestedMapTableReferenceTypeStrong, TWNestedMapTableReferenceTypeStrong}) {}

TWNestedMapTable::TWNestedMapTable(uint64_t depth, std::vector<TWNestedMapTableReferenceType> referenceTypes)
    : depth_(depth), referenceTypes_(std::move(referenceTypes)), root_(std::make_unique<Level>()) {
  if (depth_ == 0) throw Exception(ExceptionKind::InvalidArgument, "TWNestedMapTable: the depth must be at least 1");
  if (referenceTypes_.size() != depth_ + 1) {
    throw Exception(ExceptionKind::InvalidArgument, "TWNestedMapTable: " + std::to_string(referenceTypes_.size()) +
                                                        " reference types for depth " + std::to_string(depth_) +
                                                        ", which needs " + std::to_string(depth_ + 1));
  }
  for (auto type : referenceTypes_) {
    if (type != TWNestedMapTableReferenceTypeStrong && type != TWNestedMapTableReferenceTypeWeak) {
      throw Exception(ExceptionKind::InvalidArgument,
                      "TWNestedMapTable: unknown reference type " + std::to_string(static_cast<uint64_t>(type)));
    }
  }
}

TWNestedMapTable::~TWNestedMapTable() = default;

Ref<TWNestedMapTable> TWNestedMapTable::mapTableWithDepthReferenceTypes(
    uint64_t depth, std::vector<TWNestedMapTableReferenceType> referenceTypes) {
  return make<TWNestedMapTable>(depth, std::move(referenceTypes));
}

Ref<TWNestedMapTable> TWNestedMapTable::strongMapTableWithDepth(uint64_t depth) {
  return make<TWNestedMapTable>(depth, std::vector<TWNestedMapTableReferenceType>(depth + 1,
                                                                                 TWNestedMapTableReferenceTypeStrong));
}

namespace {
Ref<TWNestedMapTable> twoLevels(uint64_t level0, uint64_t level1, uint64_t objects) {
  return TWNestedMapTable::mapTableWithDepthReferenceTypes(
      2, {TWNestedMapTableReferenceType(level0), TWNestedMapTableReferenceType(level1),
          TWNestedMapTableReferenceType(objects)});
}
}  // namespace

Ref<TWNestedMapTable> TWNestedMapTable::strongToStrongToStrongObjectsMapTable() { return twoLevels(0, 0, 0); }
Ref<TWNestedMapTable> TWNestedMapTable::strongToStrongToWeakObjectsMapTable() { return twoLevels(0, 0, 1); }
Ref<TWNestedMapTable> TWNestedMapTable::strongToWeakToStrongObjectsMapTable() { return twoLevels(0, 1, 0); }
Ref<TWNestedMapTable> TWNestedMapTable::strongToWeakToWeakObjectsMapTable() { return twoLevels(0, 1, 1); }
Ref<TWNestedMapTable> TWNestedMapTable::weakToStrongToStrongObjectsMapTable() { return twoLevels(1, 0, 0); }
Ref<TWNestedMapTable> TWNestedMapTable::weakToStrongToWeakObjectsMapTable() { return twoLevels(1, 0, 1); }
Ref<TWNestedMapTable> TWNestedMapTable::weakToWeakToStrongObjectsMapTable() { return twoLevels(1, 1, 0); }
Ref<TWNestedMapTable> TWNestedMapTable::weakToWeakToWeakObjectsMapTable() { return twoLevels(1, 1, 1); }

Ref<TWNestedMapTable> TWNestedMapTable::copy() const {
  auto result = make<TWNestedMapTable>(depth_, referenceTypes_);
  enumerateKeysAndObjectsUsingBlock(
      [&](const Array& keys, const Value& object, bool&) { result->setObjectForKeys(object, keys); });
  return result;
}

void TWNestedMapTable::checkNotEnumerating(const char* operation) const {
  if (enumerations_ > 0) {
    throw Exception(ExceptionKind::InternalInconsistency,
                    std::string("TWNestedMapTable::") + operation + " called while the table is being enumerated");
  }
}

void TWNestedMapTable::setObjectForKeys(const Value& object, const Array& keys) {
  checkNotEnumerating("setObjectForKeys");
  if (keys.size() != depth_) return;
  Level* level = root_.get();
  for (size_t i = 0; i + 1 < keys.size(); ++i) {
    Level::Slot& slot = level->slotFor(keys[i], referenceTypes_[i] == TWNestedMapTableReferenceTypeWeak, false);
    if (!slot.child) slot.child = std::make_unique<Level>();
    level = slot.child.get();
  }
  const size_t last = keys.size() - 1;
  Level::Slot& slot = level->slotFor(keys[last], referenceTypes_[last] == TWNestedMapTableReferenceTypeWeak,
                                     referenceTypes_[last + 1] == TWNestedMapTableReferenceTypeWeak);
  slot.object = Held(object, referenceTypes_[last + 1] == TWNestedMapTableReferenceTypeWeak);
}

std::optional<Value> TWNestedMapTable::objectForKeys(const Array& keys) const {
  if (keys.size() != depth_) return std::nullopt;
  const Level* level = root_.get();
  for (size_t i = 0; i + 1 < keys.size(); ++i) {
    const Level::Slot* slot = level->find(keys[i]);
    if (slot == nullptr) return std::nullopt;
    level = slot->child.get();
  }
  const Level::Slot* slot = level->find(keys.back());
  if (slot == nullptr) return std::nullopt;
  return slot->object.get();
}

std::optional<Value> TWNestedMapTable::removeObjectForKeys(const Array& keys) {
  auto removed = removeObjectsForPartialKeys(keys);
  if (!removed || removed->empty()) return std::nullopt;
  return *removed->begin();
}

std::optional<Value> TWNestedMapTable::objectForKey1Key2(const Value& key1, const Value& key2) const {
  return objectForKeys(Array{key1, key2});
}

void TWNestedMapTable::setObjectForKey1Key2(const Value& object, const Value& key1, const Value& key2) {
  setObjectForKeys(object, Array{key1, key2});
}

std::optional<Value> TWNestedMapTable::removeObjectForKey1Key2(const Value& key1, const Value& key2) {
  return removeObjectForKeys(Array{key1, key2});
}

bool TWNestedMapTable::containsObjectsForPartialKeys(const Array& keys) const {
  if (keys.size() > depth_) return false;
  const Level* level = root_.get();
  for (size_t i = 0; i + 1 < keys.size(); ++i) {
    const Level::Slot* slot = level->find(keys[i]);
    if (slot == nullptr) return false;
    level = slot->child.get();
  }
  return true;
}

void TWNestedMapTable::enumerateKeysAndObjectsWithPartialKeysBlock(const Array& keys,
                                                                   const EnumerationBlock& block) const {
  if (keys.size() > depth_) prefixTooLong("enumerateKeysAndObjectsWithPartialKeysBlock", keys.size(), depth_);
  EnumerationScope scope(enumerations_);
  const Level* level = root_.get();
  for (size_t i = 0; i < keys.size(); ++i) {
    const Level::Slot* slot = level->find(keys[i]);
    if (slot == nullptr) return;
    if (i + 1 == depth_) {
      // The whole path: the entry itself.
      if (auto object = slot->object.get()) {
        bool stop = false;
        block(keys, *object, stop);
      }
      return;
    }
    level = slot->child.get();
  }
  enumerateFrom(keys, level, block);
}

void TWNestedMapTable::enumerateKeysAndObjectsUsingBlock(const EnumerationBlock& block) const {
  EnumerationScope scope(enumerations_);
  enumerateFrom({}, root_.get(), block);
}

// A depth-first walk with a stack of map cursors and one working path. The
// path holds each key as a strong value, so a weak key stays alive while the
// walk is below it; an entry whose key or object is gone when its turn comes
// is skipped.
void TWNestedMapTable::enumerateFrom(const Array& prefix, const Level* start, const EnumerationBlock& block) const {
  struct Cursor {
    Level::Map::const_iterator next, end;
  };
  const size_t lastLevel = depth_ - 1;
  Array path = prefix;
  std::vector<Cursor> cursors{{start->map.begin(), start->map.end()}};
  bool stop = false;
  while (!cursors.empty()) {
    Cursor& cursor = cursors.back();
    if (cursor.next == cursor.end) {
      cursors.pop_back();
      if (!cursors.empty()) path.pop_back();
      continue;
    }
    const auto& [key, slot] = *cursor.next++;
    auto keyValue = key.held.get();
    if (!keyValue) continue;
    const size_t level = prefix.size() + cursors.size() - 1;
    path.push_back(std::move(*keyValue));
    if (level == lastLevel) {
      if (auto object = slot.object.get()) {
        block(path, *object, stop);
        if (stop) return;
      }
      path.pop_back();
    } else {
      cursors.push_back({slot.child->map.begin(), slot.child->map.end()});
    }
  }
}

std::optional<Set> TWNestedMapTable::removeObjectsForPartialKeys(const Array& keys) {
  checkNotEnumerating("removeObjectsForPartialKeys");
  if (keys.empty()) {
    throw Exception(ExceptionKind::OutOfRange,
                    "TWNestedMapTable::removeObjectsForPartialKeys: index 0 beyond bounds for empty array");
  }
  if (keys.size() > depth_) prefixTooLong("removeObjectsForPartialKeys", keys.size(), depth_);
  std::vector<Level*> path{root_.get()};
  for (size_t i = 0; i + 1 < keys.size(); ++i) {
    Level::Slot* slot = path.back()->find(keys[i]);
    if (slot == nullptr) return std::nullopt;
    path.push_back(slot->child.get());
  }
  Level& reached = *path.back();
  auto entry = reached.map.find(keys.back());
  if (entry == reached.map.end()) return std::nullopt;

  Set removed;
  enumerateKeysAndObjectsWithPartialKeysBlock(keys,
                                              [&](const Array&, const Value& object, bool&) { removed.insert(object); });
  reached.map.erase(entry);
  // Every level on the path is examined, not only up to the first map that
  // still holds something.
  for (size_t j = path.size() - 1; j-- > 0;) {
    if (!path[j + 1]->map.empty()) continue;
    auto emptied = path[j]->map.find(keys[j]);
    if (emptied != path[j]->map.end()) path[j]->map.erase(emptied);
  }
  if (removed.empty()) return std::nullopt;
  return removed;
}

void TWNestedMapTable::removeAllObjects() {
  checkNotEnumerating("removeAllObjects");
  root_->map.clear();
  root_->sweepAt = 16;
}

uint64_t TWNestedMapTable::count() const { return countBelow(*root_, depth_); }

uint64_t TWNestedMapTable::countOfKeysAtLevel(uint64_t level) const {
  if (level != 0) return 0;
  return static_cast<uint64_t>(std::count_if(root_->map.begin(), root_->map.end(),
                                             [](const auto& entry) { return entry.first.held.alive(); }));
}

std::string TWNestedMapTable::description() const {
  std::string text = "TWNestedMapTable {\n";
  enumerateKeysAndObjectsUsingBlock([&](const Array& keys, const Value& object, bool&) {
    text += "    {\n";
    for (size_t i = 0; i < keys.size(); ++i) {
      text += "        (" + std::to_string(i) + ") : " + keys[i].description() + "\n";
    }
    text += "        =>\n        " + object.description() + "\n    }\n";
  });
  return text + "}\n";
}

}  // namespace loomwork
