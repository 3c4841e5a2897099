#include "loomwork/additions/TWNestedMapTable.h"

#include <algorithm>

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

}  // namespace

// One map of the tree: open addressing with linear probing over two arrays, a
// tag byte per slot (0 for empty, else 0x80 and seven bits of the hash) that
// the probe scans, and the entries themselves. Removal shifts the entries
// that follow back into the gap, so no slot is ever marked deleted. Iteration
// goes by slot.
struct TWNestedMapTable::Level {
  struct Entry {
    size_t hash = 0;
    Held key;
    Held object;                   // the last level's object
    std::unique_ptr<Level> child;  // an inner level's next map
  };

  std::vector<uint8_t> tags;
  std::vector<Entry> entries;
  size_t used = 0;
  // The size at which the next insertion first drops the entries whose weak
  // key or object is gone (maps that hold nothing weakly never need it).
  size_t sweepAt = 16;

  static uint8_t tagOf(size_t hash) { return static_cast<uint8_t>(0x80 | (hash >> 57)); }
  size_t mask() const { return tags.size() - 1; }
  bool empty() const { return used == 0; }

  // The slot of the live entry whose key equals `key`, or npos.
  static constexpr size_t npos = static_cast<size_t>(-1);
  size_t indexOf(const Value& key, size_t hash) const {
    if (used == 0) return npos;
    const uint8_t tag = tagOf(hash);
    for (size_t i = hash & mask();; i = (i + 1) & mask()) {
      if (tags[i] == 0) return npos;
      if (tags[i] == tag && entries[i].hash == hash && entries[i].key.matches(key)) return i;
    }
  }
  const Entry* find(const Value& key) const {
    size_t i = indexOf(key, key.hash());
    return i == npos ? nullptr : &entries[i];
  }
  Entry* find(const Value& key) {
    size_t i = indexOf(key, key.hash());
    return i == npos ? nullptr : &entries[i];
  }

  // The entry for `key`, made when there is none.
  Entry& entryFor(const Value& key, bool weakKeys, bool weakObjects) {
    const size_t hash = key.hash();
    size_t i = indexOf(key, hash);
    if (i != npos) return entries[i];
    if ((weakKeys || weakObjects) && used >= sweepAt) {
      sweep(weakObjects);
      sweepAt = std::max<size_t>(16, used * 2);
    }
    if ((used + 1) * 8 > tags.size() * 7) grow();
    i = place(hash);
    entries[i].hash = hash;
    entries[i].key = Held(key, weakKeys);
    ++used;
    return entries[i];
  }

  // Claims the first free slot of the probe sequence of `hash`.
  size_t place(size_t hash) {
    size_t i = hash & mask();
    while (tags[i] != 0) i = (i + 1) & mask();
    tags[i] = tagOf(hash);
    return i;
  }

  void grow() {
    std::vector<Entry> old = std::move(entries);
    std::vector<uint8_t> oldTags = std::move(tags);
    const size_t capacity = std::max<size_t>(8, oldTags.size() * 2);
    tags.assign(capacity, 0);
    entries.clear();
    entries.resize(capacity);
    for (size_t j = 0; j < oldTags.size(); ++j) {
      if (oldTags[j] != 0) entries[place(old[j].hash)] = std::move(old[j]);
    }
  }

  void eraseAt(size_t i) {
    entries[i] = Entry{};
    tags[i] = 0;
    --used;
    // Moves back every entry of the run after the gap that may sit there:
    // one whose home slot does not lie cyclically in (gap, j].
    for (size_t j = (i + 1) & mask(); tags[j] != 0; j = (j + 1) & mask()) {
      const size_t home = entries[j].hash & mask();
      if (((j - home) & mask()) < ((j - i) & mask())) continue;
      entries[i] = std::move(entries[j]);
      tags[i] = tags[j];
      entries[j] = Entry{};
      tags[j] = 0;
      i = j;
    }
  }

  void erase(const Value& key) {
    size_t i = indexOf(key, key.hash());
    if (i != npos) eraseAt(i);
  }

  void clear() {
    tags.clear();
    entries.clear();
    used = 0;
    sweepAt = 16;
  }

  // Drops the entries whose key, or (at the last level) object, is gone.
  void sweep(bool weakObjects) {
    for (size_t i = 0; i < tags.size();) {
      const Entry& e = entries[i];
      if (tags[i] != 0 && (!e.key.alive() || (weakObjects && !e.child && !e.object.alive()))) {
        eraseAt(i);  // may move a later entry into slot i, so look at it again
      } else {
        ++i;
      }
    }
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
  for (size_t i = 0; i < level.tags.size(); ++i) {
    const Level::Entry& entry = level.entries[i];
    if (level.tags[i] == 0 || !entry.key.alive()) continue;
    count += remaining == 1 ? (entry.object.alive() ? 1 : 0) : countBelow(*entry.child, remaining - 1);
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
  auto weak = [this](size_t i) { return referenceTypes_[i] == TWNestedMapTableReferenceTypeWeak; };
  Level* level = root_.get();
  for (size_t i = 0; i + 1 < keys.size(); ++i) {
    Level::Entry& entry = level->entryFor(keys[i], weak(i), false);
    if (!entry.child) entry.child = std::make_unique<Level>();
    level = entry.child.get();
  }
  const size_t last = keys.size() - 1;
  level->entryFor(keys[last], weak(last), weak(last + 1)).object = Held(object, weak(last + 1));
}

std::optional<Value> TWNestedMapTable::objectForKeys(const Array& keys) const {
  if (keys.size() != depth_) return std::nullopt;
  const Level* level = root_.get();
  for (size_t i = 0; i + 1 < keys.size(); ++i) {
    const Level::Entry* entry = level->find(keys[i]);
    if (entry == nullptr) return std::nullopt;
    level = entry->child.get();
  }
  const Level::Entry* entry = level->find(keys.back());
  if (entry == nullptr) return std::nullopt;
  return entry->object.get();
}

std::optional<Value> TWNestedMapTable::removeObjectForKeys(const Array& keys) {
  std::optional<Value> first;
  removeBelow(keys, "removeObjectForKeys", [&](const Value& object) {
    if (!first) first = object;
  });
  return first;
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
    const Level::Entry* entry = level->find(keys[i]);
    if (entry == nullptr) return false;
    level = entry->child.get();
  }
  return true;
}

void TWNestedMapTable::enumerateKeysAndObjectsWithPartialKeysBlock(const Array& keys,
                                                                   const EnumerationBlock& block) const {
  if (keys.size() > depth_) prefixTooLong("enumerateKeysAndObjectsWithPartialKeysBlock", keys.size(), depth_);
  EnumerationScope scope(enumerations_);
  const Level* level = root_.get();
  for (size_t i = 0; i < keys.size(); ++i) {
    const Level::Entry* entry = level->find(keys[i]);
    if (entry == nullptr) return;
    if (i + 1 == depth_) {
      // The whole path: the entry itself.
      if (auto object = entry->object.get()) {
        bool stop = false;
        block(keys, *object, stop);
      }
      return;
    }
    level = entry->child.get();
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
    const Level* level;
    size_t next;
  };
  const size_t lastLevel = depth_ - 1;
  Array path = prefix;
  std::vector<Cursor> cursors{{start, 0}};
  bool stop = false;
  while (!cursors.empty()) {
    Cursor& cursor = cursors.back();
    const Level& level = *cursor.level;
    while (cursor.next < level.tags.size() && level.tags[cursor.next] == 0) ++cursor.next;
    if (cursor.next == level.tags.size()) {
      cursors.pop_back();
      if (!cursors.empty()) path.pop_back();
      continue;
    }
    const Level::Entry& entry = level.entries[cursor.next++];
    auto key = entry.key.get();
    if (!key) continue;
    path.push_back(std::move(*key));
    if (prefix.size() + cursors.size() - 1 == lastLevel) {
      if (auto object = entry.object.get()) {
        block(path, *object, stop);
        if (stop) return;
      }
      path.pop_back();
    } else {
      cursors.push_back({entry.child.get(), 0});
    }
  }
}

template <class Collect>
void TWNestedMapTable::removeBelow(const Array& keys, const char* operation, Collect&& collect) {
  checkNotEnumerating(operation);
  if (keys.empty()) {
    throw Exception(ExceptionKind::OutOfRange,
                    std::string("TWNestedMapTable::") + operation + ": index 0 beyond bounds for empty array");
  }
  if (keys.size() > depth_) prefixTooLong(operation, keys.size(), depth_);
  // The maps along the prefix, the root first.
  Level* small[8];
  std::vector<Level*> large;
  Level** path = small;
  if (keys.size() > 8) {
    large.resize(keys.size());
    path = large.data();
  }
  path[0] = root_.get();
  for (size_t i = 0; i + 1 < keys.size(); ++i) {
    Level::Entry* entry = path[i]->find(keys[i]);
    if (entry == nullptr) return;
    path[i + 1] = entry->child.get();
  }
  Level& reached = *path[keys.size() - 1];
  const size_t index = reached.indexOf(keys.back(), keys.back().hash());
  if (index == Level::npos) return;
  Level::Entry& entry = reached.entries[index];
  if (keys.size() == depth_) {
    if (auto object = entry.object.get()) collect(*object);
  } else {
    enumerateFrom(keys, entry.child.get(), [&](const Array&, const Value& object, bool&) { collect(object); });
  }
  reached.eraseAt(index);
  // Every level on the path is examined, not only up to the first map that
  // still holds something.
  for (size_t j = keys.size() - 1; j-- > 0;) {
    if (path[j + 1]->empty()) path[j]->erase(keys[j]);
  }
}

std::optional<Set> TWNestedMapTable::removeObjectsForPartialKeys(const Array& keys) {
  Set removed;
  removeBelow(keys, "removeObjectsForPartialKeys", [&](const Value& object) { removed.insert(object); });
  if (removed.empty()) return std::nullopt;
  return removed;
}

void TWNestedMapTable::removeAllObjects() {
  checkNotEnumerating("removeAllObjects");
  root_->clear();
}

uint64_t TWNestedMapTable::count() const { return countBelow(*root_, depth_); }

uint64_t TWNestedMapTable::countOfKeysAtLevel(uint64_t level) const {
  if (level != 0) return 0;
  uint64_t count = 0;
  for (size_t i = 0; i < root_->tags.size(); ++i) count += root_->tags[i] != 0 && root_->entries[i].key.alive();
  return count;
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
