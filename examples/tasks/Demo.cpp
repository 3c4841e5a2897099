#include "Demo.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <string_view>

#include "Driver.h"

namespace loomwork::tasks {

namespace {

constexpr size_t kColumn = 58;

// Display width, counting each UTF-8 sequence as one column.
size_t columns(std::string_view text) {
  return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xC0) != 0x80; }));
}

std::string fit(const std::string& text) {
  if (columns(text) <= kColumn) return text + std::string(kColumn - columns(text), ' ');
  std::string cut;
  size_t width = 0;
  for (char c : text) {
    if ((c & 0xC0) != 0x80 && ++width > kColumn - 1) break;
    cut += c;
  }
  return cut + "…";
}

struct Side {
  const char* name;
  BatchProcess* process;
};

std::vector<std::string> snapshot(BatchProcess& process) {
  auto lines = process.command("rows");
  lines.pop_back();
  std::vector<std::string> shown;
  // Each transform, wrapped at its steps to fit the column.
  for (const auto& transform : process.takeTransforms()) {
    std::string line = "  ~ ";
    for (size_t start = 0; start < transform.size();) {
      size_t end = transform.find(", ", start);
      end = end == std::string::npos ? transform.size() : end + 2;
      const std::string step = transform.substr(start, end - start);
      if (line.size() > 4 && columns(line + step) > kColumn) {
        shown.push_back(line);
        line = "    ";
      }
      line += step;
      start = end;
    }
    shown.push_back(line);
  }
  if (!shown.empty()) shown.insert(shown.begin(), "transforms:");
  shown.insert(shown.end(), lines.begin(), lines.end());
  return shown;
}

void show(const std::string& title, BatchProcess& server, BatchProcess& client) {
  const auto left = snapshot(server), right = snapshot(client);
  std::printf("\n=== %s\n%s %s\n%s %s\n", title.c_str(), fit("server").c_str(), "client",
              std::string(kColumn, '-').c_str(), std::string(kColumn, '-').c_str());
  for (size_t i = 0; i < std::max(left.size(), right.size()); ++i)
    std::printf("%s %s\n", fit(i < left.size() ? left[i] : "").c_str(), i < right.size() ? right[i].c_str() : "");
  std::fflush(stdout);
}

void run(BatchProcess& process, const std::vector<std::string>& commands) {
  for (const auto& command : commands) process.expectOk(command);
}

}  // namespace

int runDemo(const std::string& program) {
  const auto directory = std::filesystem::temp_directory_path() / ("loomwork-tasks-demo-" + std::to_string(::getpid()));
  std::filesystem::remove_all(directory);
  std::filesystem::create_directories(directory);
  int result = 1;
  try {
    const std::string log = (directory / "devices.log").string();
    BatchProcess server({program, "serve", "--batch", "--db", (directory / "server.db").string(), "--port", "0"}, log);
    const std::string ready = server.readLine(10);
    const auto port = ready.substr(ready.find("port=") + 5, ready.find(' ', ready.find("port=")) - ready.find("port=") - 5);
    BatchProcess client({program, "connect", "--batch", "--db", (directory / "client.db").string(), "127.0.0.1:" + port},
                        log);
    client.readLine(10);
    std::printf("A server (listening on 127.0.0.1:%s) and a client, each a process with its own file in %s\n",
                port.c_str(), directory.c_str());
    run(server, {"transforms on"});
    run(client, {"transforms on"});

    run(server, {"list Home", "list Work", "add Home \"Buy milk\" 2026-11-25", "add Home \"Call Bob\" 2026-11-24",
                 "add Work \"Write report\" 2026-11-27", "add Work \"Book flights\""});
    run(server, {"wait-quiet"});
    run(client, {"wait-quiet"});
    show("1. The server makes two lists and four tasks; the client receives them", server, client);

    run(client, {"add Work \"Review slides\" 2026-11-26"});
    run(client, {"wait-quiet"});
    run(server, {"wait-quiet"});
    show("2. The client adds a task; the server receives it", server, client);

    run(server, {"offline"});
    run(client, {"offline"});
    run(server, {"edit \"Buy milk\" title=\"Buy oat milk\"", "delete \"Call Bob\"", "add Home \"Water plants\" 2026-11-23"});
    ::usleep(20000);  // the client's edits are the later ones
    run(client, {"edit \"Buy milk\" title=\"Buy milk and eggs\" due=2026-11-23", "edit \"Call Bob\" notes=\"ask about Friday\"",
                 "done \"Write report\""});
    show("3. Both offline. Server: renames 'Buy milk', deletes 'Call Bob', adds a task. "
         "Client, later: renames 'Buy milk' and moves its day, adds notes to 'Call Bob', completes 'Write report'",
         server, client);

    run(server, {"online"});
    run(client, {"online"});
    run(client, {"wait-quiet 20"});
    run(server, {"wait-quiet 20"});
    show("4. Both online again: the server merges the two lines (the later rename wins, the deletion wins over the "
         "edit) and the client takes the result",
         server, client);

    auto serverTasks = server.command("tasks"), clientTasks = client.command("tasks");
    if (serverTasks == clientTasks) {
      std::printf("\nBoth devices hold the same %zu tasks.\n", serverTasks.size() - 1);
      result = 0;
    } else {
      std::printf("\nThe devices differ.\nserver:\n");
      for (const auto& line : serverTasks) std::printf("  %s\n", line.c_str());
      std::printf("client:\n");
      for (const auto& line : clientTasks) std::printf("  %s\n", line.c_str());
    }
    server.send("quit");
    client.send("quit");
    server.wait(5);
    client.wait(5);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "loomwork-tasks demo: %s\n", error.what());
  }
  std::error_code ignored;
  std::filesystem::remove_all(directory, ignored);
  return result;
}

}  // namespace loomwork::tasks
