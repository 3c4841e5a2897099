// OTRange and its subclasses: regions of the state space, which the sync
// controller hands its data source to select or keep path components.
#pragma once

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "loomwork/platform/Object.h"
#include "loomwork/platform/Types.h"
#include "loomwork/sync/OTState.h"

#pragma GCC visibility push(default)
namespace loomwork {

class OTElementaryRange;
class OTCompoundRange;

// A set of states, tested with containsState(). The class operations make
// boxes (OTElementaryRange) and unions or intersections (OTCompoundRange); MIN
// and MAX below are the smallest and largest 64-bit integers.
//
// Ranges never change once made and may be read from several threads.
class OTRange : public Object {
 public:
  // No range can be inverted: always empty (absent).
  virtual Ref<OTRange> inverseRange() const;
  // False here; see the subclasses.
  virtual bool containsState(const OTState& state) const;
  // False here; see the subclasses.
  virtual bool isEmpty() const;

  // Client MAX..MIN by server MAX..MIN: contains nothing.
  static Ref<OTElementaryRange> emptyRange();
  // Client MIN..MAX by server MIN..MAX: contains every state.
  static Ref<OTElementaryRange> infiniteRange();
  // Client MIN..MAX by server from..to.
  static Ref<OTElementaryRange> rangeFromServerIndexToServerIndex(int64_t fromServerIndex, int64_t toServerIndex);
  // Client from..to by server MIN..MAX.
  static Ref<OTElementaryRange> rangeFromClientIndexToClientIndex(int64_t fromClientIndex, int64_t toClientIndex);
  static Ref<OTElementaryRange> rangeFromClientIndexToClientIndexFromServerIndexToServerIndex(int64_t fromClientIndex,
                                                                                              int64_t toClientIndex,
                                                                                              int64_t fromServerIndex,
                                                                                              int64_t toServerIndex);
  // The smallest box holding every state; for no states client MAX..MIN by
  // server MAX..MIN, which is empty.
  static Ref<OTElementaryRange> rangeContainingStates(const std::vector<OTState>& states);
  // A union (type 0) or an intersection (type 1) of the ranges.
  static Ref<OTCompoundRange> rangeFromUnionOfRanges(std::vector<Ref<OTRange>> ranges);
  static Ref<OTCompoundRange> rangeFromIntersectionOfRanges(std::vector<Ref<OTRange>> ranges);
};

// A box of states, both ends of both index intervals included.
class OTElementaryRange : public OTRange {
 public:
  // initWithFromClientIndex:toClientIndex:fromServerIndex:toServerIndex:
  OTElementaryRange(int64_t minClientIndex, int64_t maxClientIndex, int64_t minServerIndex, int64_t maxServerIndex)
      : minClientIndex_(minClientIndex),
        maxClientIndex_(maxClientIndex),
        minServerIndex_(minServerIndex),
        maxServerIndex_(maxServerIndex) {}

  int64_t minClientIndex() const { return minClientIndex_; }
  int64_t maxClientIndex() const { return maxClientIndex_; }
  int64_t minServerIndex() const { return minServerIndex_; }
  int64_t maxServerIndex() const { return maxServerIndex_; }

  // The client index lies in min..maxClientIndex and the server index in
  // min..maxServerIndex.
  bool containsState(const OTState& state) const override;
  // True when either interval is empty (its min above its max).
  bool isEmpty() const override;

  // "<OTElementaryRange: client a..b server c..d>".
  std::string description() const override;

 private:
  int64_t minClientIndex_;
  int64_t maxClientIndex_;
  int64_t minServerIndex_;
  int64_t maxServerIndex_;
};

// The kinds of compound range. Unscoped with a fixed underlying type: another
// number is carried as it is (such a compound contains nothing).
enum OTCompoundRangeType : uint64_t {
  OTCompoundRangeTypeUnion = 0,
  OTCompoundRangeTypeIntersection = 1,
};

// A union or intersection of ranges. Walking it (begin()/end()) walks its
// list of ranges.
class OTCompoundRange : public OTRange {
 public:
  using const_iterator = std::vector<Ref<OTRange>>::const_iterator;

  // initWithType:ranges: the list is copied; empty members are dropped.
  OTCompoundRange(uint64_t type, std::vector<Ref<OTRange>> ranges);

  uint64_t type() const { return type_; }
  const std::vector<Ref<OTRange>>& ranges() const { return ranges_; }
  const_iterator begin() const { return ranges_.begin(); }
  const_iterator end() const { return ranges_.end(); }

  // A union contains the states any member contains (an empty union none); an
  // intersection those every member contains (an empty intersection all).
  bool containsState(const OTState& state) const override;
  // A union is empty when every member is. An intersection always reports
  // itself empty, whatever its members hold, so callers must not rely on
  // isEmpty() of an intersection. Another type is not empty.
  bool isEmpty() const override;

  // "<OTCompoundRange: union|intersection|type <n> (<member>, ...)>".
  std::string description() const override;

 private:
  uint64_t type_;
  std::vector<Ref<OTRange>> ranges_;
};

}  // namespace loomwork
#pragma GCC visibility pop
