// What the command-line tools share: usage errors, --help and --version, and
// buffered standard output. Header only; each tool includes it as
// "common/ToolSupport.h".
#pragma once

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#ifndef LOOMWORK_VERSION
#define LOOMWORK_VERSION "unknown"
#endif

namespace tool {

// Reports a usage error the way the tools do and exits with status 2.
[[noreturn]] inline void usageError(const char* name, const std::string& what) {
  std::fprintf(stderr, "%s: %s\nTry '%s --help' for more information.\n", name, what.c_str(), name);
  std::exit(2);
}

// Prints the help text and exits: 0, or 2 when standard output failed.
[[noreturn]] inline void printHelpAndExit(const char* help) {
  std::fputs(help, stdout);
  std::exit(std::fflush(stdout) == 0 ? 0 : 2);
}

// Prints "<name> <version>" and exits: 0, or 2 when standard output failed.
[[noreturn]] inline void printVersionAndExit(const char* name) {
  std::printf("%s %s\n", name, LOOMWORK_VERSION);
  std::exit(std::fflush(stdout) == 0 ? 0 : 2);
}

// Standard output gathered in blocks of 256 KiB; finish() says whether every
// byte was written.
class BufferedOutput {
 public:
  BufferedOutput() { buffer_.reserve(kFlushAt + 64); }
  void append(std::string_view text) {
    buffer_.append(text);
    if (buffer_.size() >= kFlushAt) flush();
  }
  void flush() {
    if (std::fwrite(buffer_.data(), 1, buffer_.size(), stdout) != buffer_.size()) failed_ = true;
    buffer_.clear();
  }
  bool finish() {
    flush();
    return std::fflush(stdout) == 0 && !failed_;
  }

 private:
  static constexpr size_t kFlushAt = size_t{1} << 18;
  std::string buffer_;
  bool failed_ = false;
};

}  // namespace tool
