// The composition of a chain of path components.
//
// The chain chosen is defined by a breadth-first growth of paths from the
// start: in each pass every path that can go on takes the first component that
// starts where it ends, and a copy of it is made for each further such
// component; the copies join the list of paths after the existing ones. The
// first pass in which some path reaches the target ends the growth (the last
// such extension in the pass wins); without a target, or when the target is
// never reached, the growth runs until no path goes on and the furthest path
// is taken (walking the list, a path whose end is at least the choice's in
// both indexes replaces it).
//
// Written out directly, that copies every path at every branch and scans all
// components for each path in each pass. Here paths are nodes of a tree with
// parent links, so a copy is one new node; the components are grouped by
// start state once; and a pass only visits the paths that can still go on.
// The list order of the paths is the order in which their slots were made,
// which is all the selection above needs. A chain of n components with a few
// branches costs O(n) for the growth plus the appending of the chosen
// components' operations.
#include <cstdint>
#include <vector>

#include "loomwork/sync/OTSyncController.h"

namespace loomwork {

namespace {

struct PathNode {
  int32_t parent;     // -1 for the start marker
  int32_t component;  // index into the components; -1 for the marker
  OTState end;
};

bool leadsForward(const OTPathComponent& component) {
  const OTState& from = *component.fromState();
  const OTState& to = *component.toState();
  return to.serverIndex() >= from.serverIndex() && to.clientIndex() >= from.clientIndex() && !(to == from);
}

// An open-addressing table from state to group number. States along a line
// (one index fixed, the other counting up) land in neighbouring slots, so
// building it and walking a chain through it stay in cache.
class StateTable {
 public:
  explicit StateTable(size_t count) {
    size_t capacity = 16;
    while (capacity < 2 * count) capacity *= 2;
    slots_.assign(capacity, Slot{OTState(), UINT32_MAX});
    mask_ = capacity - 1;
  }
  // The group stored for the state, storing `group` first when there is none.
  uint32_t& findOrInsert(const OTState& state, uint32_t group) {
    for (size_t i = position(state);; i = (i + 1) & mask_) {
      Slot& slot = slots_[i];
      if (slot.group == UINT32_MAX) {
        slot = {state, group};
        return slot.group;
      }
      if (slot.state == state) return slot.group;
    }
  }
  // UINT32_MAX when the state has no group.
  uint32_t find(const OTState& state) const {
    for (size_t i = position(state);; i = (i + 1) & mask_) {
      const Slot& slot = slots_[i];
      if (slot.group == UINT32_MAX || slot.state == state) return slot.group;
    }
  }

 private:
  struct Slot {
    OTState state;
    uint32_t group;
  };
  size_t position(const OTState& state) const {
    return static_cast<size_t>(static_cast<uint64_t>(state.serverIndex()) + static_cast<uint64_t>(state.clientIndex())) &
           mask_;
  }
  std::vector<Slot> slots_;
  size_t mask_;
};

}  // namespace

Ref<OTPathComponent> OTSyncController::composePathComponentsFromStateUpToState(
    const std::vector<Ref<OTPathComponent>>& components, const OTState& start, const std::optional<OTState>& target) {
  // Candidates by start state, in the order given. Components that do not lead
  // forward would let the growth run forever; they are never used.
  StateTable groupOfState(components.size());
  std::vector<uint32_t> groupOfComponent(components.size(), UINT32_MAX);
  std::vector<uint32_t> groupStart(1, 0);
  for (size_t i = 0; i < components.size(); ++i) {
    const OTPathComponent* component = components[i].get();
    if (!component || !component->fromState() || !component->toState() || !leadsForward(*component)) continue;
    uint32_t& group = groupOfState.findOrInsert(*component->fromState(), static_cast<uint32_t>(groupStart.size() - 1));
    if (group == groupStart.size() - 1) groupStart.push_back(0);
    groupOfComponent[i] = group;
    ++groupStart[group + 1];
  }
  for (size_t g = 1; g < groupStart.size(); ++g) groupStart[g] += groupStart[g - 1];
  std::vector<int32_t> candidates(groupStart.back());
  {
    std::vector<uint32_t> fill(groupStart.begin(), groupStart.end() - 1);
    for (size_t i = 0; i < components.size(); ++i)
      if (groupOfComponent[i] != UINT32_MAX) candidates[fill[groupOfComponent[i]]++] = static_cast<int32_t>(i);
  }
  auto candidatesFrom = [&](const OTState& state) -> std::pair<const int32_t*, const int32_t*> {
    const uint32_t group = groupOfState.find(state);
    if (group == UINT32_MAX) return {nullptr, nullptr};
    return {candidates.data() + groupStart[group], candidates.data() + groupStart[group + 1]};
  };

  std::vector<PathNode> nodes{{-1, -1, start}};
  std::vector<int32_t> slots{0};   // the list of paths: each slot's last node
  std::vector<uint32_t> active{0}; // slots that may still go on, in list order
  std::vector<uint32_t> nextActive, born;
  int32_t found = -1;
  auto extend = [&](int32_t parent, int32_t component) {
    nodes.push_back({parent, component, *components[static_cast<size_t>(component)]->toState()});
    const auto node = static_cast<int32_t>(nodes.size() - 1);
    if (target && nodes.back().end == *target) found = node;
    return node;
  };
  while (!active.empty()) {
    nextActive.clear();
    born.clear();
    for (uint32_t slot : active) {
      const int32_t last = slots[slot];
      auto [first, end] = candidatesFrom(nodes[static_cast<size_t>(last)].end);
      if (first == end) continue;  // never goes on again: the candidates do not change
      for (const int32_t* other = first + 1; other < end; ++other) {
        slots.push_back(extend(last, *other));
        born.push_back(static_cast<uint32_t>(slots.size() - 1));
      }
      slots[slot] = extend(last, *first);
      nextActive.push_back(slot);
    }
    nextActive.insert(nextActive.end(), born.begin(), born.end());
    active.swap(nextActive);
    if (found >= 0) break;
  }

  int32_t chosen = found;
  if (chosen < 0) {
    chosen = slots[0];
    for (size_t i = 1; i < slots.size(); ++i) {
      const OTState& end = nodes[static_cast<size_t>(slots[i])].end;
      const OTState& best = nodes[static_cast<size_t>(chosen)].end;
      if (end.clientIndex() >= best.clientIndex() && end.serverIndex() >= best.serverIndex()) chosen = slots[i];
    }
  }
  std::vector<int32_t> chain;
  for (int32_t node = chosen; nodes[static_cast<size_t>(node)].parent >= 0; node = nodes[static_cast<size_t>(node)].parent)
    chain.push_back(nodes[static_cast<size_t>(node)].component);
  if (chain.empty()) return nullptr;
  Ref<OTPathComponent> result = components[static_cast<size_t>(chain.back())]->copy();
  for (auto it = chain.rbegin() + 1; it != chain.rend(); ++it)
    result->appendPathComponent(*components[static_cast<size_t>(*it)]);
  return result;
}

}  // namespace loomwork
