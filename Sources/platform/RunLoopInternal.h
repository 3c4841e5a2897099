// The Asio context under a run loop, for code inside the library and its
// benchmarks that compare against plain Asio on the same loop.
#pragma once

#include <asio/io_context.hpp>

#include "loomwork/platform/RunLoop.h"

namespace loomwork {

struct RunLoopAccess {
  static asio::io_context& context(RunLoop& loop);
};

inline asio::io_context& runLoopContext(RunLoop& loop) { return RunLoopAccess::context(loop); }

}  // namespace loomwork
