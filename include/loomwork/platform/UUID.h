// Random UUIDs in their canonical text form.
#pragma once

#include <string>

#pragma GCC visibility push(default)
namespace loomwork {

// A newly generated random (version 4) UUID as 36 characters: upper-case
// hexadecimal digits in groups of 8-4-4-4-12 separated by "-". Safe to call
// from any thread.
std::string newUUIDString();

}  // namespace loomwork
#pragma GCC visibility pop
