// Runtime helpers: hexadecimal text of bytes, number kinds, exception
// catching, delayed calls, per-object UUIDs, user defaults, well-known
// directories and resource lookup by display scale.
#pragma once

#include "loomwork/platform.h"

#include "loomwork/runtime/Directories.h"
#include "loomwork/runtime/RuntimeHelpers.h"
#include "loomwork/runtime/UserDefaults.h"
