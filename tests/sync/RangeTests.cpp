// Index ranges: the worked cases, and random ranges against a model that
// lists the states of a small grid.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <limits>
#include <random>
#include <set>

#include "loomwork/sync.h"

namespace loomwork {
namespace {

constexpr int64_t kMin = std::numeric_limits<int64_t>::min();
constexpr int64_t kMax = std::numeric_limits<int64_t>::max();

// Fixed so that a failure repeats; LOOMWORK_TEST_SEED tries others.
uint64_t testSeed() {
  const char* text = std::getenv("LOOMWORK_TEST_SEED");
  return text ? std::strtoull(text, nullptr, 10) : 20261123;
}

Ref<OTElementaryRange> box(int64_t minClient, int64_t maxClient, int64_t minServer, int64_t maxServer) {
  return OTRange::rangeFromClientIndexToClientIndexFromServerIndexToServerIndex(minClient, maxClient, minServer,
                                                                                maxServer);
}

// States are (server, client) as everywhere in sync. Boxes, unions and
// intersections are checked against the grid model below.
TEST(OTRange, WorkedCases) {
  EXPECT_TRUE(OTRange::emptyRange()->isEmpty());
  EXPECT_FALSE(OTRange::infiniteRange()->isEmpty());
  for (OTState s : {OTState(0, 0), OTState(kMin, kMax), OTState(kMax, kMax)}) {
    EXPECT_FALSE(OTRange::emptyRange()->containsState(s));
    EXPECT_TRUE(OTRange::infiniteRange()->containsState(s));
  }
  EXPECT_TRUE(OTRange::rangeFromServerIndexToServerIndex(1, 2)->containsState(OTState(2, kMin)));
  EXPECT_FALSE(OTRange::rangeFromClientIndexToClientIndex(1, 2)->containsState(OTState(1, 0)));
  EXPECT_FALSE(OTRange::infiniteRange()->inverseRange());
  EXPECT_EQ(OTRange::rangeContainingStates({OTState(1, 4), OTState(3, 2)})->description(),
            "<OTElementaryRange: client 2..4 server 1..3>");
  EXPECT_EQ(OTRange::rangeContainingStates({})->description(),
            "<OTElementaryRange: client 9223372036854775807..-9223372036854775808 server "
            "9223372036854775807..-9223372036854775808>");

  // Overlapping in (1,1) alone: contains it, and reports itself empty anyway.
  auto overlap = OTRange::rangeFromIntersectionOfRanges({box(0, 1, 0, 1), box(1, 2, 1, 2)});
  EXPECT_TRUE(overlap->containsState(OTState(1, 1)));
  EXPECT_TRUE(overlap->isEmpty());
  EXPECT_TRUE(OTRange::rangeFromIntersectionOfRanges({})->containsState(OTState(kMax, kMin)));
  EXPECT_TRUE(OTRange::rangeFromUnionOfRanges({OTRange::emptyRange(), nullptr})->isEmpty());
  EXPECT_FALSE(OTCompoundRange(7, {OTRange::infiniteRange()}).containsState(OTState()));
}

// The model is the set of grid states a range holds. Box ends are drawn from
// around the grid and from MIN and MAX, so that open and empty boxes occur.
constexpr int64_t kGrid = 6;
using Model = std::set<std::pair<int64_t, int64_t>>;

struct Built {
  Ref<OTRange> range;
  Model model;
  bool empty;  // what isEmpty() answers: every member empty for a union, always for an intersection
};

Built randomRange(std::mt19937_64& random, int depth = 0) {
  auto end = [&]() -> int64_t {
    uint64_t r = random() % 8;
    return r == 0 ? kMin : r == 1 ? kMax : static_cast<int64_t>(random() % (kGrid + 2)) - 1;
  };
  auto grid = [](const std::function<bool(int64_t, int64_t)>& holds) {
    Model model;
    for (int64_t s = -1; s <= kGrid; ++s) {
      for (int64_t c = -1; c <= kGrid; ++c) {
        if (holds(s, c)) model.insert({s, c});
      }
    }
    return model;
  };
  if (depth >= 3 || random() % 3 != 0) {
    int64_t c0 = end(), c1 = end(), s0 = end(), s1 = end();
    return {box(c0, c1, s0, s1), grid([&](int64_t s, int64_t c) { return c0 <= c && c <= c1 && s0 <= s && s <= s1; }),
            c0 > c1 || s0 > s1};
  }
  bool isUnion = random() % 2 == 0;
  std::vector<Built> members;
  for (uint64_t n = random() % 4; n > 0; --n) members.push_back(randomRange(random, depth + 1));
  std::vector<Ref<OTRange>> ranges;
  bool allEmpty = true;
  for (const Built& member : members) {
    ranges.push_back(member.range);
    allEmpty = allEmpty && member.empty;
  }
  Model model = grid([&](int64_t s, int64_t c) {
    auto holds = [&](const Built& member) { return member.model.count({s, c}) == 1; };
    return isUnion ? std::any_of(members.begin(), members.end(), holds)
                   : std::all_of(members.begin(), members.end(), holds);
  });
  if (isUnion) return {OTRange::rangeFromUnionOfRanges(ranges), model, allEmpty};
  return {OTRange::rangeFromIntersectionOfRanges(ranges), model, true};
}

TEST(OTRange, RandomRangesAgreeWithTheModel) {
  const uint64_t seed = testSeed();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937_64 random(seed);
  for (int i = 0; i < 3000; ++i) {
    Built built = randomRange(random);
    for (int64_t s = -1; s <= kGrid; ++s) {
      for (int64_t c = -1; c <= kGrid; ++c) {
        ASSERT_EQ(built.range->containsState(OTState(s, c)), built.model.count({s, c}) == 1)
            << built.range->description() << " at (" << s << "," << c << ")";
      }
    }
    ASSERT_EQ(built.range->isEmpty(), built.empty) << built.range->description();
  }
}

}  // namespace
}  // namespace loomwork
