// Runtime helpers: hexadecimal text of bytes, number-kind tests on values,
// catching exceptions around a callable, delayed calls on the current thread's
// run loop, and the per-object UUID.
//
// Exchanging the implementations of two methods of a class at run time
// (swizzleMethod, swizzleClassMethod) has no meaning for C++ classes, whose
// member functions are bound when the program is built; it is left out. Code
// that needs to replace behaviour does it with virtual functions or stored
// callables.
#pragma once

#include <exception>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "loomwork/platform/Object.h"
#include "loomwork/platform/RunLoop.h"
#include "loomwork/platform/Value.h"

#pragma GCC visibility push(default)
namespace loomwork {

// Two lower-case hexadecimal digits per byte, in order ("00ff10").
std::string hexadecimalStringFromData(const Data& bytes);
// The bytes of a text of hexadecimal digit pairs (either case). Absent for an
// odd length or any character that is not a hexadecimal digit.
std::optional<Data> dataFromHexadecimalString(std::string_view text);

// The number kind of a value; false for values that are not numbers.
bool isBOOL(const Value& value);     // a boolean
bool isInteger(const Value& value);  // an integer (not a boolean)
bool isDouble(const Value& value);   // a real

// Runs `block` and hands back what it threw instead of letting it escape:
// an empty pointer when it returned normally. Rethrow it to inspect it.
template <class Block>
std::exception_ptr catchException(Block&& block) noexcept {
  try {
    std::forward<Block>(block)();
    return nullptr;
  } catch (...) {
    return std::current_exception();
  }
}

// Runs `block` on the calling thread's run loop `delay` seconds from now (the
// thread must run its loop; see RunLoop.h). The returned identifier cancels it
// through RunLoop::current()->cancelTask().
RunLoop::TaskID performBlockAfterDelay(std::function<void()> block, double delay);

// The object's UUID, made on first request and kept for its life.
inline const std::string& globalObjectUUID(const Object& object) { return object.globalObjectUUID(); }

}  // namespace loomwork
#pragma GCC visibility pop
