// loomwork-tasks: one task list kept in sync between two devices, a server
// and a client, each with its own SQLite file, over TCP on loopback.
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <thread>

#include "Batch.h"
#include "Demo.h"
#include "Device.h"
#include "Driver.h"
#include "StateDrawing.h"
#include "Rows.h"
#include "loomwork/platform/Log.h"
#include "loomwork/sqlite/OTSQLiteDataSource.h"
#if __has_include("Screen.h")
#include "Screen.h"
#define LOOMWORK_TASKS_SCREEN 1
#endif

using namespace loomwork;
using namespace loomwork::tasks;

namespace {

constexpr const char* kUsageCommands = R"(usage:
  loomwork-tasks serve --db FILE --port N [--batch]    the server device, listening on 127.0.0.1:N
  loomwork-tasks connect --db FILE HOST:PORT [--batch] the client device
  loomwork-tasks inspect --db FILE --svg OUT.svg       draw a stopped device's state space
  loomwork-tasks demo                                  a scripted session of two devices
  loomwork-tasks --help | --version

On a terminal, serve and connect show the task lists; keys:
)";

#ifdef LOOMWORK_TASKS_SCREEN
const char* const kKeys = kScreenKeysHelp;
#else
const char* const kKeys = "  (this build has no screen)\n";
#endif

constexpr const char* kUsageBatch = R"(
With --batch, or when stdin is not a terminal, they read one command per line
and answer each with lines ending in one "ok ..." or "error ..." line:
  list NAME | add LIST TITLE... [YYYY-MM-DD] | edit TASK FIELD=VALUE...
  done TASK | undone TASK | move TASK LIST | delete TASK | bulk N LIST
  offline | online | status | rows | count | tasks | transforms on|off
  wait-quiet [SECONDS] | quit
)";

std::string usage() { return std::string(kUsageCommands) + kKeys + kUsageBatch; }

int usageError(const std::string& message) {
  std::fprintf(stderr, "loomwork-tasks: %s\n%s", message.c_str(), usage().c_str());
  return 2;
}

int runDevice(DeviceOptions options, bool batch) {
  asio::io_context context;
  Device device(context, options);
  try {
    device.start();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "loomwork-tasks: cannot start: %s\n", error.what());
    return 1;
  }
  if (!batch) {
#ifdef LOOMWORK_TASKS_SCREEN
    return runScreen(device, context);
#else
    std::fprintf(stderr, "loomwork-tasks: this build has no screen; use --batch\n");
    return 1;
#endif
  }
  TaskRows rows(device.model());
  auto output = [](const std::string& text) {
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
  };
  BatchSession session(context, device, rows, output, [&context] { context.stop(); });
  output("ready port=" + std::to_string(device.listeningPort()) + " device=" + device.deviceIdentifier() + "\n");
  std::thread reader([&context, &session] {
    std::string line;
    while (std::getline(std::cin, line)) asio::post(context, [&session, line] { session.enqueue(line); });
    asio::post(context, [&session] { session.endOfInput(); });
  });
  reader.detach();
  for (;;) {
    try {
      context.run();
      break;
    } catch (const std::exception& error) {
      logMessage(std::string("loomwork-tasks: ") + error.what());
    }
  }
  std::fflush(stdout);
  // The reader may still wait on stdin; leave without unwinding it.
  std::_Exit(0);
}

}  // namespace

int main(int argc, char** argv) {
  ::signal(SIGPIPE, SIG_IGN);
  setLogSink([](std::string_view message) {
    std::string line(message);
    line += '\n';
    std::fwrite(line.data(), 1, line.size(), stderr);
  });
  std::vector<std::string> args(argv + 1, argv + argc);
  if (args.empty()) return usageError("a command is needed");
  if (args[0] == "--help" || args[0] == "-h") {
    std::fputs(usage().c_str(), stdout);
    return 0;
  }
  if (args[0] == "--version") {
    std::printf("loomwork-tasks %s\n", LOOMWORK_VERSION);
    return 0;
  }
  const std::string command = args[0];
  if (command == "demo") return runDemo(currentExecutable());

  DeviceOptions options;
  bool batch = !::isatty(0);
  std::string svg;
  std::vector<std::string> positional;
  for (size_t i = 1; i < args.size(); ++i) {
    const std::string& arg = args[i];
    auto value = [&]() -> std::string {
      if (i + 1 >= args.size()) throw std::invalid_argument(arg + " needs a value");
      return args[++i];
    };
    try {
      if (arg == "--db") options.databasePath = value();
      else if (arg == "--port") options.port = static_cast<unsigned short>(std::stoul(value()));
      else if (arg == "--svg") svg = value();
      else if (arg == "--batch") batch = true;
      else if (arg.starts_with("--")) return usageError("unknown option " + arg);
      else positional.push_back(arg);
    } catch (const std::exception& error) {
      return usageError(error.what());
    }
  }
  if (options.databasePath.empty()) return usageError(command + " needs --db FILE");

  if (command == "serve") {
    if (!positional.empty()) return usageError("serve takes no " + positional[0]);
    options.role = Role::Server;
    return runDevice(options, batch);
  }
  if (command == "connect") {
    if (positional.size() != 1) return usageError("connect needs HOST:PORT");
    const auto colon = positional[0].rfind(':');
    if (colon == std::string::npos) return usageError("connect needs HOST:PORT, not " + positional[0]);
    options.role = Role::Client;
    options.host = positional[0].substr(0, colon);
    try {
      options.port = static_cast<unsigned short>(std::stoul(positional[0].substr(colon + 1)));
    } catch (const std::exception&) {
      return usageError("bad port in " + positional[0]);
    }
    return runDevice(options, batch);
  }
  if (command == "inspect") {
    if (svg.empty()) return usageError("inspect needs --svg OUT.svg");
    if (!std::filesystem::exists(options.databasePath)) {
      std::fprintf(stderr, "loomwork-tasks: no file %s\n", options.databasePath.c_str());
      return 1;
    }
    try {
      const std::string picture = stateSpaceSVG(options.databasePath);
      std::ofstream out(svg, std::ios::binary);
      out << picture;
      if (!out) throw std::runtime_error("cannot write " + svg);
    } catch (const std::exception& error) {
      std::fprintf(stderr, "loomwork-tasks: %s\n", error.what());
      return 1;
    }
    return 0;
  }
  return usageError("unknown command " + command);
}
