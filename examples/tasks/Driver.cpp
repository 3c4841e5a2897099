#include "Driver.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <stdexcept>
#include <utility>

namespace loomwork::tasks {

BatchProcess::BatchProcess(const std::vector<std::string>& arguments, const std::string& logPath) {
  int in[2], out[2];
  if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  std::vector<char*> argv;
  for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  pid_ = ::fork();
  if (pid_ < 0) throw std::runtime_error("fork failed");
  if (pid_ == 0) {
    ::dup2(in[0], 0);
    ::dup2(out[1], 1);
    if (!logPath.empty()) {
      int log = ::open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
      if (log >= 0) ::dup2(log, 2);
    }
    ::execv(argv[0], argv.data());
    ::_exit(127);
  }
  ::close(in[0]);
  ::close(out[1]);
  input_ = in[1];
  output_ = out[0];
  ::signal(SIGPIPE, SIG_IGN);
}

BatchProcess::~BatchProcess() {
  kill();
  if (input_ >= 0) ::close(input_);
  if (output_ >= 0) ::close(output_);
}

void BatchProcess::send(const std::string& line) {
  const std::string text = line + "\n";
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = ::write(input_, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) throw std::runtime_error("the device's input is closed");
    done += static_cast<size_t>(n);
  }
}

std::string BatchProcess::readTransform(double timeoutSeconds) {
  readUntil(timeoutSeconds, true);
  std::string transform = std::move(transforms_.front());
  transforms_.erase(transforms_.begin());
  return transform;
}

std::string BatchProcess::readLine(double timeoutSeconds) { return readUntil(timeoutSeconds, false); }

std::string BatchProcess::readUntil(double timeoutSeconds, bool transform) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(timeoutSeconds);
  for (;;) {
    if (transform && !transforms_.empty()) return {};
    for (size_t end; (end = buffer_.find('\n')) != std::string::npos;) {
      std::string line = buffer_.substr(0, end);
      buffer_.erase(0, end + 1);
      if (line.starts_with("~ ")) {
        transforms_.push_back(line.substr(2));
        if (transform) return {};
        continue;
      }
      if (transform) throw std::runtime_error("an answer came while waiting for a transform: " + line);
      return line;
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) throw std::runtime_error("the device did not answer in time");
    pollfd descriptor{output_, POLLIN, 0};
    if (::poll(&descriptor, 1, static_cast<int>(left.count())) <= 0) continue;
    char chunk[65536];
    const ssize_t n = ::read(output_, chunk, sizeof chunk);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) throw std::runtime_error("the device's output ended");
    buffer_.append(chunk, static_cast<size_t>(n));
  }
}

std::vector<std::string> BatchProcess::command(const std::string& line, double timeoutSeconds) {
  send(line);
  std::vector<std::string> lines;
  for (;;) {
    lines.push_back(readLine(timeoutSeconds));
    if (lines.back().starts_with("ok") || lines.back().starts_with("error")) return lines;
  }
}

std::string BatchProcess::expectOk(const std::string& line, double timeoutSeconds) {
  auto lines = command(line, timeoutSeconds);
  if (!lines.back().starts_with("ok")) throw std::runtime_error("'" + line + "' answered '" + lines.back() + "'");
  return lines.back();
}

std::vector<std::string> BatchProcess::takeTransforms() { return std::exchange(transforms_, {}); }

void BatchProcess::kill() {
  if (pid_ <= 0) return;
  ::kill(pid_, SIGKILL);
  ::waitpid(pid_, nullptr, 0);
  pid_ = -1;
}

int BatchProcess::wait(double timeoutSeconds) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(timeoutSeconds);
  while (pid_ > 0) {
    int status = 0;
    const pid_t done = ::waitpid(pid_, &status, WNOHANG);
    if (done == pid_) {
      pid_ = -1;
      return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    if (std::chrono::steady_clock::now() > deadline) return -1;
    ::usleep(5000);
  }
  return -1;
}

std::string currentExecutable() { return std::filesystem::read_symlink("/proc/self/exe").string(); }

}  // namespace loomwork::tasks
