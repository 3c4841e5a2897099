// Index ranges, against a model that lists the states of a small grid.
#include <gtest/gtest.h>

#include <cstdlib>
#include <limits>
#include <random>
#include <set>

#include "loomwork/sync.h"

namespace loomwork {
namespace {

// The seed of the randomized tests: fixed so that a failure repeats, or
// LOOMWORK_TEST_SEED to try others.
uint64_t testSeed() {
  const char* text = std::getenv("LOOMWORK_TEST_SEED");
  return text ? std::strtoull(text, nullptr, 10) : 20261123;
}

constexpr int64_t kMin = std::numeric_limits<int64_t>::min();
constexpr int64_t kMax = std::numeric_limits<int64_t>::max();

// States are written (server, client) as everywhere in sync.
TEST(OTRange, Boxes) {
  auto column = OTRange::rangeFromClientIndexToClientIndexFromServerIndexToServerIndex(2, 2, 0, kMax);
  EXPECT_TRUE(column->containsState(OTState(7, 2)));
  EXPECT_FALSE(column->containsState(OTState(7, 3)));
  EXPECT_FALSE(column->containsState(OTState(-1, 2)));

  auto empty = OTRange::emptyRange();
  auto infinite = OTRange::infiniteRange();
  EXPECT_TRUE(empty->isEmpty());
  EXPECT_FALSE(infinite->isEmpty());
  for (OTState s : {OTState(0, 0), OTState(kMin, kMax), OTState(kMax, kMin), OTState(kMax, kMax), OTState(-5, 3)}) {
    EXPECT_FALSE(empty->containsState(s));
    EXPECT_TRUE(infinite->containsState(s));
  }
  EXPECT_TRUE(OTElementaryRange(3, 2, 0, 0).isEmpty());
  EXPECT_TRUE(OTElementaryRange(0, 0, 1, 0).isEmpty());
  EXPECT_FALSE(OTElementaryRange(2, 2, 0, 0).isEmpty());

  auto bounding = OTRange::rangeContainingStates({OTState(1, 4), OTState(3, 2)});
  EXPECT_EQ(bounding->minClientIndex(), 2);
  EXPECT_EQ(bounding->maxClientIndex(), 4);
  EXPECT_EQ(bounding->minServerIndex(), 1);
  EXPECT_EQ(bounding->maxServerIndex(), 3);
  auto none = OTRange::rangeContainingStates({});
  EXPECT_TRUE(none->isEmpty());
  EXPECT_EQ(none->minClientIndex(), kMax);
  EXPECT_EQ(none->maxServerIndex(), kMin);

  auto servers = OTRange::rangeFromServerIndexToServerIndex(1, 2);
  EXPECT_TRUE(servers->containsState(OTState(2, kMin)));
  EXPECT_FALSE(servers->containsState(OTState(3, 0)));
  auto clients = OTRange::rangeFromClientIndexToClientIndex(1, 2);
  EXPECT_TRUE(clients->containsState(OTState(kMax, 1)));
  EXPECT_FALSE(clients->containsState(OTState(0, 0)));
  EXPECT_FALSE(infinite->inverseRange());
  EXPECT_EQ(column->description(), "<OTElementaryRange: client 2..2 server 0..9223372036854775807>");
}

TEST(OTRange, Compounds) {
  auto origin = OTRange::rangeFromClientIndexToClientIndexFromServerIndexToServerIndex(0, 0, 0, 0);
  auto ahead = OTRange::rangeFromClientIndexToClientIndexFromServerIndexToServerIndex(5, kMax, 5, kMax);
  auto both = OTRange::rangeFromUnionOfRanges({origin, ahead});
  EXPECT_TRUE(both->containsState(OTState(0, 0)));
  EXPECT_TRUE(both->containsState(OTState(6, 5)));
  EXPECT_FALSE(both->containsState(OTState(1, 0)));
  EXPECT_FALSE(both->isEmpty());
  EXPECT_EQ(std::distance(both->begin(), both->end()), 2);

  // Overlapping in (1,1) alone: contains it, and reports itself empty anyway.
  auto a = OTRange::rangeFromClientIndexToClientIndexFromServerIndexToServerIndex(0, 1, 0, 1);
  auto b = OTRange::rangeFromClientIndexToClientIndexFromServerIndexToServerIndex(1, 2, 1, 2);
  auto overlap = OTRange::rangeFromIntersectionOfRanges({a, b});
  EXPECT_TRUE(overlap->containsState(OTState(1, 1)));
  EXPECT_FALSE(overlap->containsState(OTState(0, 1)));
  EXPECT_TRUE(overlap->isEmpty());
  EXPECT_TRUE(OTRange::rangeFromIntersectionOfRanges({OTRange::infiniteRange()})->isEmpty());

  auto emptyUnion = OTRange::rangeFromUnionOfRanges({});
  auto emptyIntersection = OTRange::rangeFromIntersectionOfRanges({});
  EXPECT_TRUE(emptyUnion->isEmpty());
  EXPECT_FALSE(emptyUnion->containsState(OTState()));
  EXPECT_TRUE(emptyIntersection->containsState(OTState(kMax, kMin)));
  EXPECT_TRUE(OTRange::rangeFromUnionOfRanges({OTRange::emptyRange(), nullptr})->isEmpty());
  EXPECT_EQ(OTRange::rangeFromUnionOfRanges({nullptr})->ranges().size(), 0u);

  OTCompoundRange odd(7, {OTRange::infiniteRange()});
  EXPECT_FALSE(odd.containsState(OTState()));
  EXPECT_FALSE(odd.isEmpty());
  EXPECT_FALSE(odd.inverseRange());
}

// The model: the set of grid states a range holds. Box ends are drawn from
// the grid and beyond it, MIN and MAX included, so that open-ended boxes and
// empty ones occur.
constexpr int64_t kGrid = 6;
using Model = std::set<std::pair<int64_t, int64_t>>;

struct Built {
  Ref<OTRange> range;
  Model model;
  bool isModelledEmpty;  // what isEmpty() must answer
};

class RangeGenerator {
 public:
  explicit RangeGenerator(uint64_t seed) : random_(seed) {}

  Built range(int depth = 0) {
    if (depth >= 3 || random_() % 3 != 0) return box();
    bool isUnion = random_() % 2 == 0;
    std::vector<Ref<OTRange>> members;
    Model model;
    bool allEmpty = true;
    bool first = true;
    for (uint64_t n = random_() % 4; n > 0; --n) {
      Built member = range(depth + 1);
      members.push_back(member.range);
      allEmpty = allEmpty && member.isModelledEmpty;
      if (isUnion) {
        model.insert(member.model.begin(), member.model.end());
      } else if (first) {
        model = member.model;
      } else {
        Model both;
        for (const auto& state : model) {
          if (member.model.count(state)) both.insert(state);
        }
        model = both;
      }
      first = false;
    }
    if (!isUnion && members.empty()) model = everything();
    if (isUnion) return {OTRange::rangeFromUnionOfRanges(members), model, allEmpty};
    return {OTRange::rangeFromIntersectionOfRanges(members), model, true};
  }

 private:
  int64_t end() {
    switch (random_() % 8) {
      case 0: return kMin;
      case 1: return kMax;
      default: return static_cast<int64_t>(random_() % (kGrid + 2)) - 1;
    }
  }

  Built box() {
    int64_t c0 = end(), c1 = end(), s0 = end(), s1 = end();
    Model model;
    for (int64_t s = -1; s <= kGrid; ++s) {
      for (int64_t c = -1; c <= kGrid; ++c) {
        if (c0 <= c && c <= c1 && s0 <= s && s <= s1) model.insert({s, c});
      }
    }
    return {OTRange::rangeFromClientIndexToClientIndexFromServerIndexToServerIndex(c0, c1, s0, s1), model,
            c0 > c1 || s0 > s1};
  }

  static Model everything() {
    Model model;
    for (int64_t s = -1; s <= kGrid; ++s) {
      for (int64_t c = -1; c <= kGrid; ++c) model.insert({s, c});
    }
    return model;
  }

  std::mt19937_64 random_;
};

TEST(OTRange, RandomRangesAgreeWithTheModel) {
  const uint64_t seed = testSeed();
  SCOPED_TRACE("seed " + std::to_string(seed));
  RangeGenerator generate(seed);
  for (int i = 0; i < 3000; ++i) {
    Built built = generate.range();
    for (int64_t s = -1; s <= kGrid; ++s) {
      for (int64_t c = -1; c <= kGrid; ++c) {
        ASSERT_EQ(built.range->containsState(OTState(s, c)), built.model.count({s, c}) == 1)
            << i << " " << built.range->description() << " at (" << s << "," << c << ")";
      }
    }
    ASSERT_EQ(built.range->isEmpty(), built.isModelledEmpty) << built.range->description();
    // A box is empty exactly when it holds no state of any size.
    if (auto box = std::dynamic_pointer_cast<OTElementaryRange>(built.range); box && built.model.empty() && !box->isEmpty()) {
      EXPECT_TRUE(box->minClientIndex() > kGrid || box->maxClientIndex() < -1 || box->minServerIndex() > kGrid ||
                  box->maxServerIndex() < -1)
          << box->description();
    }
  }
}

}  // namespace
}  // namespace loomwork
