// Runs a loomwork-tasks device as a child process in line-command mode and
// talks to it through pipes: what the scripted demo and the tests use.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace loomwork::tasks {

class BatchProcess {
 public:
  // Starts `arguments` (the program first) with stdin and stdout on pipes
  // and stderr appended to `logPath` (inherited when empty). Throws
  // std::runtime_error when it cannot start.
  BatchProcess(const std::vector<std::string>& arguments, const std::string& logPath = {});
  // Kills the process (SIGKILL) if it still runs.
  ~BatchProcess();
  BatchProcess(const BatchProcess&) = delete;
  BatchProcess& operator=(const BatchProcess&) = delete;

  // Sends one command and returns its answer: the lines before the final
  // "ok"/"error" line, then that line. Throws std::runtime_error when the
  // process ends or `timeoutSeconds` pass first.
  std::vector<std::string> command(const std::string& line, double timeoutSeconds = 30);
  // The final line of command(); throws when it is an "error" line.
  std::string expectOk(const std::string& line, double timeoutSeconds = 30);
  // Writes a line without waiting for its answer.
  void send(const std::string& line);
  // The next line that is not a transform line.
  std::string readLine(double timeoutSeconds);
  // Waits for the next transform line and takes it.
  std::string readTransform(double timeoutSeconds);
  // The "~ " transform lines read so far, taken.
  std::vector<std::string> takeTransforms();

  void kill();  // SIGKILL and reap
  // Waits for the process to end on its own; its exit status, or -1.
  int wait(double timeoutSeconds);
  pid_t pid() const { return pid_; }

 private:
  std::string readUntil(double timeoutSeconds, bool transform);

  pid_t pid_ = -1;
  int input_ = -1, output_ = -1;
  std::string buffer_;
  std::vector<std::string> transforms_;
};

// The path of the running program.
std::string currentExecutable();

}  // namespace loomwork::tasks
