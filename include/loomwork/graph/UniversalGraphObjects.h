// Graph identity of objects: the UUID under which an object's changes are
// recorded in transactions.
#pragma once

#include <string>

#include "loomwork/platform/Object.h"

#pragma GCC visibility push(default)
namespace loomwork {

// The object's "globalObjectUUID" (read through valueForKey()) when that is a
// string; otherwise "MemoryBasedUUID-<n>" with n the object's address
// truncated to a signed 32-bit integer, which is stable only while the object
// lives. The transaction queries that take objects
// (UGTransaction::containsDeletedObject and the rest, in UGTransaction.h) go
// through this.
std::string universalGraphUUID(const Object& object);

}  // namespace loomwork
#pragma GCC visibility pop
