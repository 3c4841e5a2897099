// loomwork-listdiff: prints the change between two lists as a list transform,
// then as single steps (each index valid when its step is made), and checks
// that the steps turn the old list into the new one.
//
//   loomwork-listdiff "a b c d" "b c d a"
//   loomwork-listdiff a,b,c,d b,c,d,a
//   seq 1000000 | shuf | loomwork-listdiff -s -f - <(seq 1000000)
//
// Exit status: 0 when the steps give the new list, 1 when they do not, 2 for
// a usage or input error.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "common/ToolSupport.h"
#include "loomwork/listtransform.h"

using namespace loomwork;

namespace {

constexpr const char* kHelp =
    "usage: loomwork-listdiff [OPTION]... OLD NEW\n"
    "Prints the change from the list OLD to the list NEW as a list transform\n"
    "(deletions, moves and insertions), then as single steps, each index valid\n"
    "when its step is made, and checks that the steps turn OLD into NEW.\n"
    "\n"
    "OLD and NEW are written out as arguments: items separated by white space\n"
    "(\"a b c\"), or by commas when there is a comma (\"a,b,,c\" has an empty item).\n"
    "With -f they are files instead, \"-\" for standard input (one of them at most):\n"
    "each line of a file is one item, or with -w each word.\n"
    "\n"
    "  -f, --files         OLD and NEW name files (\"-\": standard input)\n"
    "  -w, --words         with -f, items are separated by white space, not lines\n"
    "  -m, --fewest-moves  keep the most items in place: only the items outside one\n"
    "                      longest run that keeps its order are moves\n"
    "  -s, --summary       print the counts and the check only\n"
    "  -h, --help          print this help and exit\n"
    "  -V, --version       print the version and exit\n"
    "\n"
    "Lists of up to 100 items are printed too. Exit status: 0 when the steps give\n"
    "the new list, 1 when they do not, 2 for a usage or input error.\n";

struct Options {
  bool files = false;
  bool words = false;
  bool fewestMoves = false;
  bool summary = false;
  std::vector<std::string> lists;
};

[[noreturn]] void usageError(const std::string& what) { tool::usageError("loomwork-listdiff", what); }

Options parseOptions(int argc, char** argv) {
  Options options;
  bool endOfOptions = false;
  for (int i = 1; i < argc; ++i) {
    const std::string_view arg = argv[i];
    if (endOfOptions || arg.size() < 2 || arg[0] != '-') {
      options.lists.emplace_back(arg);
      continue;
    }
    if (arg == "--") {
      endOfOptions = true;
    } else if (arg == "-h" || arg == "--help") {
      tool::printHelpAndExit(kHelp);
    } else if (arg == "-V" || arg == "--version") {
      tool::printVersionAndExit("loomwork-listdiff");
    } else if (arg == "-f" || arg == "--files") {
      options.files = true;
    } else if (arg == "-w" || arg == "--words") {
      options.words = true;
    } else if (arg == "-m" || arg == "--fewest-moves") {
      options.fewestMoves = true;
    } else if (arg == "-s" || arg == "--summary") {
      options.summary = true;
    } else {
      usageError("unknown option '" + std::string(arg) + "'");
    }
  }
  if (options.lists.size() != 2) {
    usageError(options.lists.size() < 2 ? "needs two lists, OLD and NEW; got " + std::to_string(options.lists.size())
                                        : "needs two lists, OLD and NEW; got " + std::to_string(options.lists.size()) +
                                              " (quote a list that holds spaces)");
  }
  if (options.words && !options.files) usageError("option '-w' works with -f only");
  if (options.files && options.lists[0] == "-" && options.lists[1] == "-") {
    usageError("only one of the lists can come from standard input");
  }
  return options;
}

bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f'; }

// Items separated by white space.
Array splitWords(std::string_view text) {
  Array list;
  size_t at = 0;
  while (at < text.size()) {
    while (at < text.size() && isSpace(text[at])) ++at;
    size_t end = at;
    while (end < text.size() && !isSpace(text[end])) ++end;
    if (end > at) list.emplace_back(std::string(text.substr(at, end - at)));
    at = end;
  }
  return list;
}

// One item per line; a carriage return before the newline is left out, and
// the text after the last newline is an item when it is not empty.
Array splitLines(std::string_view text) {
  Array list;
  size_t at = 0;
  while (at < text.size()) {
    size_t end = text.find('\n', at);
    if (end == std::string_view::npos) end = text.size();
    std::string_view line = text.substr(at, end - at);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    list.emplace_back(std::string(line));
    at = end + 1;
  }
  return list;
}

// A list written as an argument: split at commas when there is one (so
// empty items can be written), else at white space.
Array parseArgument(std::string_view text) {
  if (text.find(',') == std::string_view::npos) return splitWords(text);
  Array list;
  size_t at = 0;
  while (true) {
    const size_t comma = text.find(',', at);
    list.emplace_back(
        std::string(text.substr(at, comma == std::string_view::npos ? std::string_view::npos : comma - at)));
    if (comma == std::string_view::npos) break;
    at = comma + 1;
  }
  return list;
}

Array readList(const std::string& name, bool words) {
  const bool standardInput = name == "-";
  const int fd = standardInput ? STDIN_FILENO : open(name.c_str(), O_RDONLY);
  if (fd < 0) {
    std::fprintf(stderr, "loomwork-listdiff: cannot open %s: %s\n", name.c_str(), std::strerror(errno));
    std::exit(2);
  }
  std::string text;
  char buffer[1 << 16];
  while (true) {
    const ssize_t got = read(fd, buffer, sizeof buffer);
    if (got == 0) break;
    if (got < 0) {
      if (errno == EINTR) continue;
      std::fprintf(stderr, "loomwork-listdiff: cannot read %s: %s\n", standardInput ? "standard input" : name.c_str(),
                   std::strerror(errno));
      std::exit(2);
    }
    text.append(buffer, static_cast<size_t>(got));
  }
  if (!standardInput) close(fd);
  return words ? splitWords(text) : splitLines(text);
}

// A list of item numbers with insertion and removal at any position, to
// replay a million steps: the items lie in blocks of one to two thousand, a
// Fenwick tree over the block sizes finds a position's block in O(log n), and
// a change moves at most one block's items.
class PositionList {
 public:
  explicit PositionList(size_t count) : size_(count) {
    for (size_t at = 0; at < count; at += kBlock) {
      std::vector<uint32_t>& block = blocks_.emplace_back();
      for (size_t i = at; i < std::min(count, at + kBlock); ++i) block.push_back(static_cast<uint32_t>(i));
    }
    rebuild();
  }

  size_t size() const { return size_; }

  void insert(size_t position, uint32_t item) {
    if (blocks_.empty()) {
      blocks_.emplace_back();
      rebuild();
    }
    auto [b, offset] = locate(position == size_ ? position - 1 : position);
    if (position == size_) ++offset;  // after the last item
    std::vector<uint32_t>& block = blocks_[b];
    block.insert(block.begin() + static_cast<std::ptrdiff_t>(offset), item);
    add(b, 1);
    ++size_;
    if (block.size() >= 2 * kBlock) {
      std::vector<uint32_t> upper(block.begin() + kBlock, block.end());
      block.resize(kBlock);
      blocks_.insert(blocks_.begin() + static_cast<std::ptrdiff_t>(b) + 1, std::move(upper));
      rebuild();
    }
  }

  uint32_t remove(size_t position) {
    auto [b, offset] = locate(position);
    std::vector<uint32_t>& block = blocks_[b];
    const uint32_t item = block[offset];
    block.erase(block.begin() + static_cast<std::ptrdiff_t>(offset));
    add(b, -1);
    --size_;
    if (block.empty()) {
      blocks_.erase(blocks_.begin() + static_cast<std::ptrdiff_t>(b));
      rebuild();
    }
    return item;
  }

  std::vector<uint32_t> items() const {
    std::vector<uint32_t> out;
    out.reserve(size_);
    for (const auto& block : blocks_) out.insert(out.end(), block.begin(), block.end());
    return out;
  }

 private:
  static constexpr size_t kBlock = 1024;

  void rebuild() {
    tree_.assign(blocks_.size() + 1, 0);
    for (size_t b = 0; b < blocks_.size(); ++b) add(b, static_cast<int64_t>(blocks_[b].size()));
  }
  void add(size_t b, int64_t delta) {
    for (size_t i = b + 1; i < tree_.size(); i += i & (~i + 1)) tree_[i] += delta;
  }
  // The block that holds the item at `position` (< size_), and its offset there.
  std::pair<size_t, size_t> locate(size_t position) const {
    size_t at = 0;
    auto rest = static_cast<int64_t>(position);
    size_t step = 1;
    while (step * 2 < tree_.size()) step *= 2;
    for (; step > 0; step /= 2) {
      if (at + step < tree_.size() && tree_[at + step] <= rest) {
        at += step;
        rest -= tree_[at];
      }
    }
    return {at, static_cast<size_t>(rest)};
  }

  std::vector<std::vector<uint32_t>> blocks_;
  std::vector<int64_t> tree_;  // Fenwick tree of the block sizes, from index 1
  size_t size_;
};

}  // namespace

int main(int argc, char** argv) {
  const Options options = parseOptions(argc, argv);
  const Array oldList = options.files ? readList(options.lists[0], options.words) : parseArgument(options.lists[0]);
  const Array newList = options.files ? readList(options.lists[1], options.words) : parseArgument(options.lists[1]);
  if (oldList.size() + newList.size() >= UINT32_MAX) {
    std::fprintf(stderr, "loomwork-listdiff: the lists are too long\n");
    return 2;
  }

  const auto transform = options.fewestMoves ? transformWithFewestMovesForTransitioningFromArrayToArrayObjectComparison(
                                                   oldList, newList, UGListTransformObjectComparisonEquality)
                                             : transformForTransitioningFromArrayToArrayObjectComparison(
                                                   oldList, newList, UGListTransformObjectComparisonEquality);
  size_t deletions = 0, moves = 0, insertions = 0;
  for (const auto& item : transform->deletions()) (item->hasMoveLink() ? moves : deletions) += 1;
  for (const auto& item : transform->insertions()) insertions += item->hasMoveLink() ? 0 : 1;

  tool::BufferedOutput out;
  auto describeList = [&](const char* name, const Array& list) {
    out.append(std::string(name) + ": " + std::to_string(list.size()) + (list.size() == 1 ? " item" : " items"));
    if (list.size() <= 100) out.append(" " + Value(list).description());
    out.append("\n");
  };
  describeList("old", oldList);
  describeList("new", newList);
  out.append(std::to_string(deletions) + " deletions, " + std::to_string(moves) + " moves, " +
             std::to_string(insertions) + " insertions\n");
  if (!options.summary) {
    out.append("\n" + transform->description() + "\nsteps:\n");
  }

  // Replay the steps on the old list's item numbers (new items are numbered
  // after the old ones); every index must be valid when its step is made.
  PositionList list(oldList.size());
  const auto firstNew = static_cast<uint32_t>(oldList.size());
  size_t steps = 0;
  std::string invalid;  // the first step whose index is not valid
  // Whether 0 <= index < count (a removal) or <= count (an insertion).
  auto valid = [&](int64_t index, size_t count, bool insertion, const char* what) {
    if (invalid.empty() &&
        (index < 0 || static_cast<size_t>(index) > count || (!insertion && static_cast<size_t>(index) == count))) {
      invalid = "step " + std::to_string(steps) + " " + what + " " + std::to_string(index) + " in a list of " +
                std::to_string(count);
    }
    return invalid.empty();
  };
  transform->enumerateTransformAsLinearizedDeletionsMovesInsertions(
      [&](int64_t index) {
        ++steps;
        if (!options.summary) out.append("  delete " + std::to_string(index) + "\n");
        if (valid(index, list.size(), false, "deletes at")) list.remove(static_cast<size_t>(index));
      },
      [&](int64_t from, int64_t to) {
        ++steps;
        if (!options.summary) out.append("  move " + std::to_string(from) + " -> " + std::to_string(to) + "\n");
        if (valid(from, list.size(), false, "moves from")) {
          const uint32_t item = list.remove(static_cast<size_t>(from));
          if (valid(to, list.size(), true, "moves to")) list.insert(static_cast<size_t>(to), item);
        }
      },
      [&](int64_t index) {
        ++steps;
        // An insertion's index is its item's place in the new list.
        const bool known = index >= 0 && static_cast<size_t>(index) < newList.size();
        if (!options.summary) {
          out.append("  insert " + std::to_string(index) + " (" +
                     (known ? newList[static_cast<size_t>(index)].description() : std::string("?")) + ")\n");
        }
        if (valid(index, known ? list.size() : 0, true, "inserts at")) {
          list.insert(static_cast<size_t>(index), firstNew + static_cast<uint32_t>(index));
        }
      });

  bool reached = invalid.empty() && list.size() == newList.size();
  if (reached) {
    const std::vector<uint32_t> items = list.items();
    for (size_t i = 0; i < items.size() && reached; ++i) {
      const Value& item = items[i] < firstNew ? oldList[items[i]] : newList[items[i] - firstNew];
      reached = item == newList[i];
    }
  }
  out.append(std::to_string(steps) + (steps == 1 ? " step" : " steps"));
  if (reached) {
    out.append(" turn the old list into the new one\n");
  } else {
    out.append(" do NOT turn the old list into the new one" + (invalid.empty() ? "" : ": " + invalid) + "\n");
  }
  if (!out.finish()) return 2;
  return reached ? 0 : 1;
}
