// Two loomwork-tasks processes, each on a pseudo-terminal of its own: what
// is typed on one device's screen shows up on the other's.
#include <gtest/gtest.h>

#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <vector>

namespace {

// Enough of a terminal to read the screen back: a grid of characters, the
// cursor, and the cursor, erase, repeat and scroll-region sequences ncurses
// sends to xterm.
// Attributes are recorded as a per-cell underline flag.
class Terminal {
 public:
  Terminal(int rows, int columns)
      : rows_(rows),
        columns_(columns),
        cells_(rows, std::string(columns, ' ')),
        underlined_(rows, std::vector<bool>(columns, false)) {
    bottom_ = rows - 1;
  }

  void feed(const std::string& bytes) {
    for (char c : bytes) step(c);
  }
  std::string line(int row) const { return cells_[row]; }
  std::string text() const {
    std::string all;
    for (const auto& row : cells_) all += row + "\n";
    return all;
  }
  // The underlined characters of a row.
  std::string underlinedText(int row) const {
    std::string text;
    for (int c = 0; c < columns_; ++c)
      if (underlined_[row][c]) text += cells_[row][c];
    return text;
  }

 private:
  void put(char c) {
    if (x_ >= columns_) return;
    cells_[y_][x_] = c;
    underlined_[y_][x_] = underline_;
    last_ = c;
    ++x_;
  }
  void erase(int row, int from, int to) {
    for (int c = std::max(0, from); c < std::min(columns_, to); ++c) cells_[row][c] = ' ', underlined_[row][c] = false;
  }
  int arg(size_t i, int fallback) const { return i < args_.size() && args_[i] > 0 ? args_[i] : fallback; }
  void csi(char final) {
    switch (final) {
      case 'H':
      case 'f':
        y_ = arg(0, 1) - 1, x_ = arg(1, 1) - 1;
        break;
      case 'A':
        y_ -= arg(0, 1);
        break;
      case 'B':
        y_ += arg(0, 1);
        break;
      case 'C':
        x_ += arg(0, 1);
        break;
      case 'D':
        x_ -= arg(0, 1);
        break;
      case 'G':
        x_ = arg(0, 1) - 1;
        break;
      case 'd':
        y_ = arg(0, 1) - 1;
        break;
      case 'K':
        erase(y_, args_.empty() || args_[0] == 0 ? x_ : 0,
              args_.empty() || args_[0] == 0 || args_[0] == 2 ? columns_ : x_ + 1);
        break;
      case 'J':
        if (args_.empty() || args_[0] == 0) {
          erase(y_, x_, columns_);
          for (int r = y_ + 1; r < rows_; ++r) erase(r, 0, columns_);
        } else {
          for (int r = 0; r < rows_; ++r) erase(r, 0, columns_);
        }
        break;
      case 'X':
        erase(y_, x_, x_ + arg(0, 1));
        break;
      case 'r':
        top_ = arg(0, 1) - 1, bottom_ = arg(1, rows_) - 1;
        x_ = y_ = 0;
        break;
      case 'b':
        for (int n = arg(0, 1); n > 0; --n) put(last_);
        break;
      case 'm':
        if (args_.empty()) args_.push_back(0);
        for (int a : args_) underline_ = a == 4 ? true : a == 0 || a == 24 ? false : underline_;
        break;
      default:
        break;
    }
    y_ = std::clamp(y_, 0, rows_ - 1);
    x_ = std::clamp(x_, 0, columns_);
  }
  // Moves the rows of the scroll region up (down) by one, blanking the row
  // that comes in.
  void scroll(bool up) {
    auto cells = cells_.begin();
    auto marks = underlined_.begin();
    if (up) {
      std::rotate(cells + top_, cells + top_ + 1, cells + bottom_ + 1);
      std::rotate(marks + top_, marks + top_ + 1, marks + bottom_ + 1);
    } else {
      std::rotate(cells + top_, cells + bottom_, cells + bottom_ + 1);
      std::rotate(marks + top_, marks + bottom_, marks + bottom_ + 1);
    }
    erase(up ? bottom_ : top_, 0, columns_);
  }
  void lineFeed() { y_ == bottom_ ? scroll(true) : void(y_ = std::min(y_ + 1, rows_ - 1)); }
  void step(char c) {
    if (state_ == 1) {  // after ESC
      state_ = c == '[' ? 2 : (c == '(' || c == ')') ? 3 : 0;
      args_.clear();
      if (c == '7') saved_ = {x_, y_};
      if (c == '8') x_ = saved_.first, y_ = saved_.second;
      if (c == 'D') lineFeed();
      if (c == 'M') y_ == top_ ? scroll(false) : void(y_ = std::max(y_ - 1, 0));
      return;
    }
    if (state_ == 3) {
      state_ = 0;
      return;
    }
    if (state_ == 2) {
      if (c >= '0' && c <= '9') {
        if (args_.empty()) args_.push_back(0);
        args_.back() = args_.back() * 10 + (c - '0');
      } else if (c == ';') {
        if (args_.empty()) args_.push_back(0);
        args_.push_back(0);
      } else if (c >= 0x40 && c <= 0x7E) {
        state_ = 0;
        if (!private_) csi(c);
        private_ = false;
      } else if (c == '?' || c == '>' || c == '=') {
        private_ = true;
      }
      return;
    }
    switch (c) {
      case '\x1b':
        state_ = 1;
        break;
      case '\r':
        x_ = 0;
        break;
      case '\n':
        lineFeed();
        break;
      case '\b':
        x_ = std::max(0, x_ - 1);
        break;
      case '\t':
        x_ = std::min(columns_ - 1, (x_ / 8 + 1) * 8);
        break;
      default:
        if (static_cast<unsigned char>(c) >= 32) put(c);
    }
  }

  int rows_, columns_;
  std::vector<std::string> cells_;
  std::vector<std::vector<bool>> underlined_;
  int x_ = 0, y_ = 0, state_ = 0, top_ = 0, bottom_ = 0;
  std::pair<int, int> saved_{0, 0};
  bool private_ = false, underline_ = false;
  char last_ = ' ';
  std::vector<int> args_;
};

// One loomwork-tasks process on a pseudo-terminal.
class Device {
 public:
  static constexpr int kRows = 24, kColumns = 100;

  explicit Device(std::vector<std::string> arguments) : terminal_(kRows, kColumns) {
    winsize size{kRows, kColumns, 0, 0};
    pid_ = forkpty(&fd_, nullptr, nullptr, &size);
    if (pid_ == 0) {
      setenv("TERM", "xterm", 1);
      std::vector<char*> argv;
      for (auto& argument : arguments) argv.push_back(argument.data());
      argv.push_back(nullptr);
      execv(argv[0], argv.data());
      _exit(127);
    }
  }
  ~Device() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    if (fd_ >= 0) close(fd_);
  }

  void type(const std::string& keys) {
    for (char c : keys) {
      ASSERT_EQ(write(fd_, &c, 1), 1);
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
  }
  // Reads the screen until the predicate holds on it or the time is up.
  template <class Predicate>
  bool waitFor(Predicate predicate, int milliseconds = 10000) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    while (!predicate(terminal_)) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
      if (left.count() <= 0) return false;
      pollfd in{fd_, POLLIN, 0};
      if (poll(&in, 1, static_cast<int>(left.count())) <= 0) continue;
      char buffer[65536];
      const ssize_t count = read(fd_, buffer, sizeof buffer);
      if (count <= 0) return predicate(terminal_);
      terminal_.feed(std::string(buffer, static_cast<size_t>(count)));
    }
    return true;
  }
  bool waitForText(const std::string& text, int milliseconds = 10000) {
    return waitFor([&](const Terminal& t) { return t.text().find(text) != std::string::npos; }, milliseconds);
  }
  const Terminal& screen() const { return terminal_; }

 private:
  pid_t pid_ = -1;
  int fd_ = -1;
  Terminal terminal_;
};

TEST(TaskScreen, TypedTaskShowsOnTheOtherDevice) {
  char scratch[] = "/tmp/loomwork-screen-XXXXXX";
  ASSERT_NE(mkdtemp(scratch), nullptr);
  const std::string dir = scratch;
  // Removed after both devices are gone, also when an assertion fails.
  std::unique_ptr<const std::string, void (*)(const std::string*)> cleanup(
      &dir, [](const std::string* path) { std::filesystem::remove_all(*path); });
  Device server({LOOMWORK_TASKS_BINARY, "serve", "--db", dir + "/s.db", "--port", "0"});
  std::string port;
  ASSERT_TRUE(server.waitFor([&](const Terminal& t) {
    static const std::regex pattern("server on port ([0-9]+)");
    const std::string header = t.line(0);
    std::smatch found;
    if (!std::regex_search(header, found, pattern) || found[1] == "0") return false;
    port = found[1].str();
    return true;
  })) << server.screen().text();
  const std::string address = "127.0.0.1:" + port;
  Device client({LOOMWORK_TASKS_BINARY, "connect", "--db", dir + "/c.db", address});
  ASSERT_TRUE(client.waitForText(" online  connected")) << client.screen().text();

  // A task typed on the server reaches the client's rows.
  server.type("aBuy milk by the pier\r");
  ASSERT_TRUE(server.waitForText("[ ] Buy milk by the pier")) << server.screen().text();
  ASSERT_TRUE(client.waitForText("[ ] Buy milk by the pier")) << client.screen().text();

  // Completed and given a due day on the client, it changes on the server.
  client.type(" d2031-04-05\r");
  ASSERT_TRUE(server.waitFor([](const Terminal& t) {
    const std::string all = t.text();
    return all.find("[x] Buy milk by the pier") != std::string::npos && all.find("2031-04-05") != std::string::npos;
  })) << server.screen().text();

  // A second list and a move into it; searching hides what does not match.
  server.type("LErrands\r");
  ASSERT_TRUE(client.waitForText("== Errands")) << client.screen().text();
  server.type("aCall the plumber\rm");
  ASSERT_TRUE(client.waitFor([](const Terminal& t) {
    for (int row = 1; row + 1 < Device::kRows; ++row)
      if (t.line(row).find("== Errands") == 0) return t.line(row + 1).find("[ ] Call the plumber") != std::string::npos;
    return false;
  })) << client.screen().text();
  client.type("/plum");
  ASSERT_TRUE(client.waitFor([](const Terminal& t) {
    const std::string all = t.text();
    return all.find("Call the plumber") != std::string::npos && all.find("Buy milk") == std::string::npos;
  })) << client.screen().text();
  client.type("\x1b");
  ASSERT_TRUE(client.waitForText("Buy milk by the pier")) << client.screen().text();

  // Links in the selected task's notes are underlined.
  server.type("nsee https://example.com/plumbing soon\r");
  ASSERT_TRUE(server.waitFor([](const Terminal& t) {
    return t.underlinedText(Device::kRows - 3).find("https://example.com/plumbing") != std::string::npos;
  })) << server.screen().text();

  server.type("q");
  client.type("q");
}

}  // namespace
