// OTState: a point of the two-dimensional state space shared by one server
// and one client.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "loomwork/platform/Value.h"

#pragma GCC visibility push(default)
namespace loomwork {

// The keys of a state's property-list form.
inline constexpr std::string_view kServerIndex = "s";
inline constexpr std::string_view kClientIndex = "c";

// How many server transactions and how many client transactions have been
// applied. Written (server index, client index): (1,0) is one server step and
// no client step.
//
// A small immutable value: copies are equal and interchangeable, so it is
// passed and stored by value, and an absent state is std::nullopt. Any two
// 64-bit indexes are accepted, negative ones included (they may come from
// another device); no operation here does arithmetic on them. Safe to share
// between threads.
class OTState {
 public:
  // (0,0), the origin.
  constexpr OTState() = default;
  // initWithServerIndex:clientIndex:
  constexpr OTState(int64_t serverIndex, int64_t clientIndex) : serverIndex_(serverIndex), clientIndex_(clientIndex) {}

  // Reads the two-entry dictionary of extendedPropertyListRepresentation().
  // Absent unless `plist` is a dictionary whose "s" and "c" are both integers
  // (booleans, reals and strings are refused); other entries are ignored.
  static std::optional<OTState> initWithExtendedPropertyList(const Value& plist);

  constexpr int64_t serverIndex() const { return serverIndex_; }
  constexpr int64_t clientIndex() const { return clientIndex_; }

  // The componentwise minimum: the smaller server index and the smaller client
  // index, which need not be either argument.
  static constexpr OTState baseStateOfStateAndState(const OTState& a, const OTState& b) {
    return OTState(a.serverIndex_ < b.serverIndex_ ? a.serverIndex_ : b.serverIndex_,
                   a.clientIndex_ < b.clientIndex_ ? a.clientIndex_ : b.clientIndex_);
  }
  // This state with one index replaced.
  constexpr OTState stateByUpdatingServerIndex(int64_t serverIndex) const { return OTState(serverIndex, clientIndex_); }
  constexpr OTState stateByUpdatingClientIndex(int64_t clientIndex) const { return OTState(serverIndex_, clientIndex); }

  // Both indexes equal. An absent other state is never equal.
  constexpr bool isEqual(const OTState& other) const {
    return serverIndex_ == other.serverIndex_ && clientIndex_ == other.clientIndex_;
  }
  constexpr bool isEqual(const std::optional<OTState>& other) const { return other && isEqual(*other); }
  friend constexpr bool operator==(const OTState& a, const OTState& b) { return a.isEqual(b); }

  // serverIndex XOR clientIndex, so every state (k,k) hashes to 0. Hash
  // containers that hold many states should use OTStateHash instead.
  constexpr size_t hash() const { return static_cast<size_t>(serverIndex_ ^ clientIndex_); }

  // "<OTState: s:<server index> c:<client index> >" (the blank before ">" is
  // part of the form).
  std::string description() const;

  // {"s": server index, "c": client index}, both integers.
  Value extendedPropertyListRepresentation() const;

 private:
  int64_t serverIndex_ = 0;
  int64_t clientIndex_ = 0;
};

// A hash for unordered containers keyed by states. It agrees with equality like
// OTState::hash() but mixes both indexes, so the states of one diagonal or one
// line spread over the buckets.
struct OTStateHash {
  size_t operator()(const OTState& state) const noexcept {
    uint64_t x = static_cast<uint64_t>(state.serverIndex()) * 0x9E3779B97F4A7C15ull;
    x ^= static_cast<uint64_t>(state.clientIndex()) + 0x632BE59BD9B4E019ull + (x << 6) + (x >> 2);
    x ^= x >> 31;
    x *= 0xBF58476D1CE4E5B9ull;
    x ^= x >> 29;
    return static_cast<size_t>(x);
  }
};

}  // namespace loomwork
#pragma GCC visibility pop
