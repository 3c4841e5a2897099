// The log sink: where the library's diagnostic lines go.
#pragma once

#include <functional>
#include <string_view>

#pragma GCC visibility push(default)
namespace loomwork {

// Receives one diagnostic line, without a trailing newline. Called on the
// thread that logs; it must not log itself.
using LogSink = std::function<void(std::string_view message)>;

// Replaces the process-wide sink and returns the one it replaces (empty when
// that was the default). An empty sink restores the default, which writes
// each line to the system log (syslog, priority LOG_NOTICE). Thread-safe.
LogSink setLogSink(LogSink sink);

// Writes one line through the current sink. Thread-safe; the sink is called
// with the sink lock released, so a slow sink does not block other setters.
void logMessage(std::string_view message);

}  // namespace loomwork
#pragma GCC visibility pop
