// LWIsEqual: the equality used for sync metadata, where either side may be
// absent.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "loomwork/platform/Object.h"
#include "loomwork/platform/Value.h"
#include "loomwork/sync/OTState.h"

#pragma GCC visibility push(default)
namespace loomwork {

// Equal when both are the same value (isIdenticalTo) or both absent; not
// equal when exactly one is absent, or when one is the null value and the
// other is not the same value; otherwise Value equality.
bool LWIsEqual(const std::optional<Value>& a, const std::optional<Value>& b);

// The same for objects: the same object or both null is equal, exactly one
// null is not, otherwise a->isEqual(*b).
bool LWIsEqual(const Object* a, const Object* b);
template <class A, class B>
bool LWIsEqual(const std::shared_ptr<A>& a, const std::shared_ptr<B>& b) {
  return LWIsEqual(static_cast<const Object*>(a.get()), static_cast<const Object*>(b.get()));
}

// The same for states and strings, which are plain values here: both absent
// is equal, exactly one absent is not, otherwise ==.
bool LWIsEqual(const std::optional<OTState>& a, const std::optional<OTState>& b);
bool LWIsEqual(const std::optional<std::string>& a, const std::optional<std::string>& b);

}  // namespace loomwork
#pragma GCC visibility pop
