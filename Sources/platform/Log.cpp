#include "loomwork/platform/Log.h"

#include <syslog.h>

#include <memory>
#include <mutex>
#include <string>
#include <utility>

namespace loomwork {

namespace {

std::mutex& sinkMutex() {
  static std::mutex mutex;
  return mutex;
}

// Held through a shared pointer so that logMessage() can call the sink after
// releasing the lock while a concurrent setLogSink() replaces it.
std::shared_ptr<const LogSink>& currentSink() {
  static std::shared_ptr<const LogSink> sink;
  return sink;
}

void writeToSystemLog(std::string_view message) {
  const std::string line(message);
  syslog(LOG_NOTICE, "%s", line.c_str());
}

}  // namespace

LogSink setLogSink(LogSink sink) {
  std::shared_ptr<const LogSink> replacement;
  if (sink) replacement = std::make_shared<const LogSink>(std::move(sink));
  std::shared_ptr<const LogSink> previous;
  {
    std::lock_guard lock(sinkMutex());
    previous = std::exchange(currentSink(), std::move(replacement));
  }
  return previous ? *previous : LogSink();
}

void logMessage(std::string_view message) {
  std::shared_ptr<const LogSink> sink;
  {
    std::lock_guard lock(sinkMutex());
    sink = currentSink();
  }
  if (sink) {
    (*sink)(message);
  } else {
    writeToSystemLog(message);
  }
}

}  // namespace loomwork
