#include "loomwork/sync/OTRange.h"

#include <algorithm>
#include <limits>

#include <fmt/format.h>

namespace loomwork {

namespace {

constexpr int64_t kMin = std::numeric_limits<int64_t>::min();
constexpr int64_t kMax = std::numeric_limits<int64_t>::max();

}  // namespace

Ref<OTRange> OTRange::inverseRange() const { return nullptr; }

bool OTRange::containsState(const OTState&) const { return false; }

bool OTRange::isEmpty() const { return false; }

Ref<OTElementaryRange> OTRange::emptyRange() { return make<OTElementaryRange>(kMax, kMin, kMax, kMin); }

Ref<OTElementaryRange> OTRange::infiniteRange() { return make<OTElementaryRange>(kMin, kMax, kMin, kMax); }

Ref<OTElementaryRange> OTRange::rangeFromServerIndexToServerIndex(int64_t fromServerIndex, int64_t toServerIndex) {
  return make<OTElementaryRange>(kMin, kMax, fromServerIndex, toServerIndex);
}

Ref<OTElementaryRange> OTRange::rangeFromClientIndexToClientIndex(int64_t fromClientIndex, int64_t toClientIndex) {
  return make<OTElementaryRange>(fromClientIndex, toClientIndex, kMin, kMax);
}

Ref<OTElementaryRange> OTRange::rangeFromClientIndexToClientIndexFromServerIndexToServerIndex(int64_t fromClientIndex,
                                                                                              int64_t toClientIndex,
                                                                                              int64_t fromServerIndex,
                                                                                              int64_t toServerIndex) {
  return make<OTElementaryRange>(fromClientIndex, toClientIndex, fromServerIndex, toServerIndex);
}

Ref<OTElementaryRange> OTRange::rangeContainingStates(const std::vector<OTState>& states) {
  int64_t minClient = kMax, maxClient = kMin, minServer = kMax, maxServer = kMin;
  for (const OTState& state : states) {
    minClient = std::min(minClient, state.clientIndex());
    maxClient = std::max(maxClient, state.clientIndex());
    minServer = std::min(minServer, state.serverIndex());
    maxServer = std::max(maxServer, state.serverIndex());
  }
  return make<OTElementaryRange>(minClient, maxClient, minServer, maxServer);
}

Ref<OTCompoundRange> OTRange::rangeFromUnionOfRanges(std::vector<Ref<OTRange>> ranges) {
  return make<OTCompoundRange>(OTCompoundRangeTypeUnion, std::move(ranges));
}

Ref<OTCompoundRange> OTRange::rangeFromIntersectionOfRanges(std::vector<Ref<OTRange>> ranges) {
  return make<OTCompoundRange>(OTCompoundRangeTypeIntersection, std::move(ranges));
}

bool OTElementaryRange::containsState(const OTState& state) const {
  return state.clientIndex() >= minClientIndex_ && state.clientIndex() <= maxClientIndex_ &&
         state.serverIndex() >= minServerIndex_ && state.serverIndex() <= maxServerIndex_;
}

bool OTElementaryRange::isEmpty() const {
  return minClientIndex_ > maxClientIndex_ || minServerIndex_ > maxServerIndex_;
}

std::string OTElementaryRange::description() const {
  return fmt::format("<OTElementaryRange: client {}..{} server {}..{}>", minClientIndex_, maxClientIndex_,
                     minServerIndex_, maxServerIndex_);
}

OTCompoundRange::OTCompoundRange(uint64_t type, std::vector<Ref<OTRange>> ranges)
    : type_(type), ranges_(std::move(ranges)) {
  std::erase(ranges_, nullptr);
}

bool OTCompoundRange::containsState(const OTState& state) const {
  switch (type_) {
    case OTCompoundRangeTypeUnion:
      return std::any_of(ranges_.begin(), ranges_.end(),
                         [&](const Ref<OTRange>& r) { return r->containsState(state); });
    case OTCompoundRangeTypeIntersection:
      return std::all_of(ranges_.begin(), ranges_.end(),
                         [&](const Ref<OTRange>& r) { return r->containsState(state); });
    default:
      return false;
  }
}

bool OTCompoundRange::isEmpty() const {
  switch (type_) {
    case OTCompoundRangeTypeUnion:
      return std::all_of(ranges_.begin(), ranges_.end(), [](const Ref<OTRange>& r) { return r->isEmpty(); });
    case OTCompoundRangeTypeIntersection:
      // Kept as it has always answered; containsState() is the reliable test.
      return true;
    default:
      return false;
  }
}

std::string OTCompoundRange::description() const {
  std::string out = "<OTCompoundRange: ";
  if (type_ == OTCompoundRangeTypeUnion) {
    out += "union";
  } else if (type_ == OTCompoundRangeTypeIntersection) {
    out += "intersection";
  } else {
    out += fmt::format("type {}", type_);
  }
  out += " (";
  for (size_t i = 0; i < ranges_.size(); ++i) {
    if (i > 0) out += ", ";
    out += ranges_[i]->description();
  }
  out += ")>";
  return out;
}

}  // namespace loomwork
