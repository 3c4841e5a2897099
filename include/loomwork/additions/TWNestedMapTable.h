// TWNestedMapTable: a map keyed by a fixed-length path of keys, built as a
// tree of hash maps whose levels hold their keys, and the last level its
// objects, strongly or weakly.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "loomwork/platform/Object.h"
#include "loomwork/platform/Types.h"
#include "loomwork/platform/Value.h"

#pragma GCC visibility push(default)
namespace loomwork {

// How a level holds its keys, or the last level its objects.
enum TWNestedMapTableReferenceType : uint64_t {
  // The map owns the reference.
  TWNestedMapTableReferenceTypeStrong = 0,
  // An Object is held as a std::weak_ptr and does not stay alive for the map:
  // once it is destroyed its entry is no longer found, counted or enumerated.
  // A value that is not an Object (a number, a string, a container, null) has
  // no life of its own to follow, so a weak level keeps a copy of it, as a
  // strong level does, until it is removed.
  TWNestedMapTableReferenceTypeWeak = 1,
};

// Maps a path of `depth` keys (level 0 first) to an object. Each level is a
// hash map from keys to the maps of the next level, the last one from keys to
// the objects; keys compare by Value equality and hash(), whatever their
// reference type. Inner maps always belong to their parent. Besides whole-path
// access the table tests, enumerates and removes everything below a prefix of
// keys; removal drops the inner maps it leaves empty, and nothing else prunes.
//
// Entries whose weak key or weak object is gone stay in their map, invisible,
// until the map next grows past twice the size it had at its last sweep; then
// they are dropped together with what they held.
//
// depth() and referenceTypes() are fixed at construction and may be read from
// any thread. Everything else is used by one thread at a time. The table must
// not be changed from inside one of its own enumeration blocks: such a change
// throws Exception (internal inconsistency) and leaves the table as it was.
class TWNestedMapTable : public Object {
 public:
  // The block of an enumeration: the full key path, the object, and a flag,
  // false on entry, that ends the enumeration when set. `keys` is the
  // enumerator's one working array, changed after the block returns: a block
  // that keeps the path copies it.
  using EnumerationBlock = std::function<void(const Array& keys, const Value& object, bool& stop)>;

  // Depth 1 with strong keys and strong objects.
  TWNestedMapTable();
  // `referenceTypes` has depth + 1 entries: one per level for its keys, then
  // one for the objects. A depth of 0, another number of entries, or an entry
  // other than 0 or 1 throws Exception (invalid argument).
  TWNestedMapTable(uint64_t depth, std::vector<TWNestedMapTableReferenceType> referenceTypes);
  ~TWNestedMapTable() override;

  static Ref<TWNestedMapTable> mapTableWithDepthReferenceTypes(uint64_t depth,
                                                               std::vector<TWNestedMapTableReferenceType> referenceTypes);
  // Every level and the objects strong.
  static Ref<TWNestedMapTable> strongMapTableWithDepth(uint64_t depth);
  // Depth-2 tables named by how they hold the keys of level 0, the keys of
  // level 1 and the objects, in that order.
  static Ref<TWNestedMapTable> strongToStrongToStrongObjectsMapTable();
  static Ref<TWNestedMapTable> strongToStrongToWeakObjectsMapTable();
  static Ref<TWNestedMapTable> strongToWeakToStrongObjectsMapTable();
  static Ref<TWNestedMapTable> strongToWeakToWeakObjectsMapTable();
  static Ref<TWNestedMapTable> weakToStrongToStrongObjectsMapTable();
  static Ref<TWNestedMapTable> weakToStrongToWeakObjectsMapTable();
  static Ref<TWNestedMapTable> weakToWeakToStrongObjectsMapTable();
  static Ref<TWNestedMapTable> weakToWeakToWeakObjectsMapTable();

  uint64_t depth() const { return depth_; }
  const std::vector<TWNestedMapTableReferenceType>& referenceTypes() const { return referenceTypes_; }

  // A new table of the same depth and reference types into which every live
  // entry of this one is set again: keys and objects are shared, maps are new.
  Ref<TWNestedMapTable> copy() const;

  // Stores `object` under the path, replacing what was there. A path whose
  // length is not depth() is ignored.
  void setObjectForKeys(const Value& object, const Array& keys);
  // The object under the path; absent when there is none or the path's
  // length is not depth().
  std::optional<Value> objectForKeys(const Array& keys) const;
  // removeObjectsForPartialKeys(keys), answering one of the removed objects
  // (for a full path, the one object) or absent when none was removed.
  std::optional<Value> removeObjectForKeys(const Array& keys);
  // The full-path operations with the path [key1, key2], for depth-2 tables.
  std::optional<Value> objectForKey1Key2(const Value& key1, const Value& key2) const;
  void setObjectForKey1Key2(const Value& object, const Value& key1, const Value& key2);
  std::optional<Value> removeObjectForKey1Key2(const Value& key1, const Value& key2);

  // A shallow test, kept as it is: false for a prefix longer than depth();
  // otherwise true when every key but the last is found along the path. The
  // last key is never looked up, so a one-key prefix is always true.
  bool containsObjectsForPartialKeys(const Array& keys) const;
  // Calls the block for every entry whose path begins with `keys` (depth
  // first; the keys of one map in that map's order). An empty prefix
  // enumerates the whole table; a prefix longer than depth() throws
  // Exception (invalid argument).
  void enumerateKeysAndObjectsWithPartialKeysBlock(const Array& keys, const EnumerationBlock& block) const;
  // Removes everything below the prefix and returns the live objects removed;
  // then each map on the prefix's path that is left empty is removed from its
  // parent, down to the root. Absent, never an empty set, when no live object
  // was below the prefix. An empty prefix throws Exception (out of range), a
  // prefix longer than depth() Exception (invalid argument).
  std::optional<Set> removeObjectsForPartialKeys(const Array& keys);

  // Empties the root map.
  void removeAllObjects();
  // Every entry, as enumerateKeysAndObjectsWithPartialKeysBlock() with an
  // empty prefix.
  void enumerateKeysAndObjectsUsingBlock(const EnumerationBlock& block) const;
  // The number of live entries. Linear in the table.
  uint64_t count() const;
  // The number of live keys of the root map for level 0, and 0 for every
  // other level whatever it holds (only level 0 is answered, on purpose).
  uint64_t countOfKeysAtLevel(uint64_t level) const;

  // "TWNestedMapTable {\n", then for every entry in enumeration order
  // "    {\n", a line "        (i) : key" per key of the path (i from 0),
  // "        =>\n", "        object\n" and "    }\n"; then "}\n". Keys and
  // objects appear in their Value text form.
  std::string description() const override;

  // One map of the tree; opaque outside the implementation.
  struct Level;

 private:
  void checkNotEnumerating(const char* operation) const;
  void enumerateFrom(const Array& prefix, const Level* start, const EnumerationBlock& block) const;
  // Removes what lies below a prefix, handing each live object to `collect`.
  template <class Collect>
  void removeBelow(const Array& keys, const char* operation, Collect&& collect);

  uint64_t depth_;
  std::vector<TWNestedMapTableReferenceType> referenceTypes_;
  std::unique_ptr<Level> root_;
  mutable int enumerations_ = 0;
};

}  // namespace loomwork
#pragma GCC visibility pop
