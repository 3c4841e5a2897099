// loomwork-rank: a fuzzy finder's filter mode. Reads lines (file paths or
// titles) from standard input or a file, scores each against a query with the
// library's abbreviation score, applied to a path's file name and directory
// names (see PathScorer.h), and prints the matching lines, best first.
//
//   find / | loomwork-rank pipinit
//   loomwork-rank -n 10 -f titles.txt meeting notes
//
// Several words form one query; every word must match. An empty query prints
// every line. Equal scores put the shorter line first, then the earlier one.
// Input is UTF-8 (ill-formed bytes are scored as U+FFFD and printed as they
// came); a trailing carriage return is not part of a line. Exit status: 0 when
// a line matched, 1 when none did, 2 for a usage or input error.

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "PathScorer.h"
#include "common/ToolSupport.h"

namespace {

constexpr const char* kHelp =
    "usage: loomwork-rank [OPTION]... [QUERY]...\n"
    "Prints the lines of standard input that match QUERY, best first, as a fuzzy\n"
    "finder's filter mode does. A line is a file path or a title; the letters of\n"
    "each query word are looked for in the file name first and in the directory\n"
    "names above it. Several words form one query and every word must match; an\n"
    "empty query prints every line. Case and accents are ignored.\n"
    "\n"
    "  -f, --file=FILE     read the lines from FILE instead of standard input\n"
    "  -n, --limit=N       print at most the N best lines\n"
    "  -s, --scores        print each line's score (0 to 1) and a tab before it\n"
    "  -j, --threads=N     score with N threads (default: one per processor)\n"
    "  -h, --help          print this help and exit\n"
    "  -V, --version       print the version and exit\n"
    "  --                  the arguments after it are query words\n"
    "\n"
    "Exit status: 0 when a line matched, 1 when none did, 2 for a usage or input\n"
    "error.\n";

struct Options {
  size_t limit = SIZE_MAX;
  const char* file = nullptr;
  bool scores = false;
  unsigned threads = 0;
  std::string query;
};

[[noreturn]] void usageError(const std::string& what) { tool::usageError("loomwork-rank", what); }

bool parseCount(std::string_view text, size_t& out) {
  auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), out);
  return ec == std::errc() && ptr == text.data() + text.size() && !text.empty();
}

Options parseOptions(int argc, char** argv) {
  Options options;
  bool haveQuery = false;
  auto addWord = [&](std::string_view word) {
    if (haveQuery) options.query += ' ';
    options.query += word;
    haveQuery = true;
  };
  for (int i = 1; i < argc; ++i) {
    const std::string_view arg = argv[i];
    if (arg == "--") {
      for (++i; i < argc; ++i) addWord(argv[i]);
      break;
    }
    if (arg.size() < 2 || arg[0] != '-') {
      addWord(arg);
      continue;
    }
    // The option's name and, for "--name=value" and "-nVALUE", its value.
    std::string_view name = arg;
    const char* attached = nullptr;
    if (arg.substr(0, 2) == "--") {
      const size_t equals = arg.find('=');
      if (equals != std::string_view::npos) {
        name = arg.substr(0, equals);
        attached = argv[i] + equals + 1;
      }
    } else if (arg.size() > 2) {
      name = arg.substr(0, 2);
      attached = argv[i] + 2;
    }
    auto value = [&]() -> std::string_view {
      if (attached != nullptr) return attached;
      if (i + 1 >= argc) usageError("option '" + std::string(name) + "' needs a value");
      return argv[++i];
    };
    auto noValue = [&] {
      if (attached != nullptr)
        usageError("option '" + std::string(name) + "' takes no value, got '" + std::string(arg) + "'");
    };
    if (name == "-h" || name == "--help") {
      noValue();
      tool::printHelpAndExit(kHelp);
    } else if (name == "-V" || name == "--version") {
      noValue();
      tool::printVersionAndExit("loomwork-rank");
    } else if (name == "-n" || name == "--limit") {
      const std::string_view text = value();
      if (!parseCount(text, options.limit))
        usageError("option '" + std::string(name) + "' needs a count of lines (0 or more), not '" + std::string(text) +
                   "'");
    } else if (name == "-f" || name == "--file") {
      const std::string_view text = value();
      if (text.empty()) usageError("option '" + std::string(name) + "' needs a file name");
      options.file = text.data();
    } else if (name == "-s" || name == "--scores") {
      noValue();
      options.scores = true;
    } else if (name == "-j" || name == "--threads") {
      const std::string_view text = value();
      size_t threads = 0;
      if (!parseCount(text, threads) || threads == 0 || threads > 256)
        usageError("option '" + std::string(name) + "' needs a number of threads from 1 to 256, not '" +
                   std::string(text) + "'");
      options.threads = static_cast<unsigned>(threads);
    } else {
      usageError("unknown option '" + std::string(arg) + "'");
    }
  }
  return options;
}

// The whole input: a regular file is mapped, anything else is read.
class Input {
 public:
  Input() = default;
  Input(const Input&) = delete;
  Input& operator=(const Input&) = delete;
  ~Input() {
    if (mapped_ != nullptr) munmap(mapped_, size_);
  }

  bool load(int fd) {
    struct stat info;
    if (fstat(fd, &info) == 0 && S_ISREG(info.st_mode)) {
      if (info.st_size == 0) return true;
      void* mapped = mmap(nullptr, static_cast<size_t>(info.st_size), PROT_READ, MAP_PRIVATE, fd, 0);
      if (mapped != MAP_FAILED) {
        mapped_ = mapped;
        size_ = static_cast<size_t>(info.st_size);
        madvise(mapped_, size_, MADV_SEQUENTIAL | MADV_WILLNEED);
        return true;
      }
    }
    size_t used = 0;
    buffer_.resize(size_t{1} << 20);
    while (true) {
      if (used == buffer_.size()) buffer_.resize(buffer_.size() * 2);
      const ssize_t got = read(fd, buffer_.data() + used, buffer_.size() - used);
      if (got == 0) break;
      if (got < 0) {
        if (errno == EINTR) continue;
        return false;
      }
      used += static_cast<size_t>(got);
    }
    buffer_.resize(used);
    return true;
  }

  std::string_view text() const {
    return mapped_ != nullptr ? std::string_view(static_cast<const char*>(mapped_), size_) : std::string_view(buffer_);
  }

 private:
  void* mapped_ = nullptr;
  size_t size_ = 0;
  std::string buffer_;
};

// A matching line, by its place in the input.
struct Candidate {
  float score;
  size_t length;
  size_t offset;
};

// Calls visit(line, offset) for every line that starts in text[begin, end)
// (begin is a line start); the carriage return before a newline is left out.
template <class Visit>
void forEachLine(std::string_view text, size_t begin, size_t end, Visit&& visit) {
  while (begin < end) {
    const void* newline = std::memchr(text.data() + begin, '\n', text.size() - begin);
    const size_t stop = newline ? static_cast<size_t>(static_cast<const char*>(newline) - text.data()) : text.size();
    std::string_view line = text.substr(begin, stop - begin);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    visit(line, begin);
    begin = stop + 1;
  }
}

void scoreLines(std::string_view text, size_t begin, size_t end, const std::vector<std::string>& words,
                std::vector<Candidate>& found) {
  rank::PathScorer scorer(words);
  forEachLine(text, begin, end, [&](std::string_view line, size_t offset) {
    const float score = scorer.score(line);
    if (score > 0) found.push_back({score, line.size(), offset});
  });
}

// Buffered standard output, a line at a time, each after its score when asked.
class Output : public tool::BufferedOutput {
 public:
  void line(std::string_view text, const float* score) {
    if (score != nullptr) {
      char number[32];
      auto result = std::to_chars(number, number + sizeof number, *score, std::chars_format::fixed, 6);
      append(std::string_view(number, static_cast<size_t>(result.ptr - number)));
      append("\t");
    }
    append(text);
    append("\n");
  }
};

}  // namespace

int main(int argc, char** argv) {
  const Options options = parseOptions(argc, argv);

  Input input;
  const int fd = options.file != nullptr ? open(options.file, O_RDONLY) : STDIN_FILENO;
  if (fd < 0) {
    std::fprintf(stderr, "loomwork-rank: cannot open %s: %s\n", options.file, std::strerror(errno));
    return 2;
  }
  const bool loaded = input.load(fd);
  const int readError = errno;
  if (fd != STDIN_FILENO) close(fd);
  if (!loaded) {
    std::fprintf(stderr, "loomwork-rank: cannot read %s: %s\n",
                 options.file != nullptr ? options.file : "standard input", std::strerror(readError));
    return 2;
  }
  const std::string_view text = input.text();
  const std::vector<std::string> words = rank::queryWords(options.query);
  Output out;
  const float zero = 0.0f;

  if (words.empty()) {
    size_t printed = 0;
    forEachLine(text, 0, text.size(), [&](std::string_view line, size_t) {
      if (printed++ < options.limit) out.line(line, options.scores ? &zero : nullptr);
    });
    if (!out.finish()) return 2;
    return printed > 0 ? 0 : 1;
  }

  // Lines are independent: each thread takes a slice of the input that starts
  // and ends at line boundaries and keeps its matches apart.
  unsigned threads = options.threads != 0 ? options.threads : std::max(1u, std::thread::hardware_concurrency());
  threads = static_cast<unsigned>(std::min<size_t>(threads, text.size() / (size_t{1} << 18) + 1));
  std::vector<size_t> bounds(threads + 1, text.size());
  bounds[0] = 0;
  for (unsigned slice = 1; slice < threads; ++slice) {
    size_t at = std::max(bounds[slice - 1], text.size() / threads * slice);
    const size_t newline = text.find('\n', at == 0 ? 0 : at - 1);
    bounds[slice] = newline == std::string_view::npos ? text.size() : newline + 1;
  }
  std::vector<std::vector<Candidate>> found(threads);
  std::vector<std::thread> workers;
  for (unsigned slice = 1; slice < threads; ++slice) {
    workers.emplace_back(scoreLines, text, bounds[slice], bounds[slice + 1], std::cref(words), std::ref(found[slice]));
  }
  scoreLines(text, bounds[0], bounds[1], words, found[0]);
  for (auto& worker : workers) worker.join();

  std::vector<Candidate>& matches = found[0];
  for (unsigned slice = 1; slice < threads; ++slice)
    matches.insert(matches.end(), found[slice].begin(), found[slice].end());
  auto better = [](const Candidate& a, const Candidate& b) {
    if (a.score != b.score) return a.score > b.score;
    return a.length != b.length ? a.length < b.length : a.offset < b.offset;
  };
  const size_t shown = std::min(options.limit, matches.size());
  if (shown < matches.size() / 2) {
    std::partial_sort(matches.begin(), matches.begin() + static_cast<std::ptrdiff_t>(shown), matches.end(), better);
  } else {
    std::sort(matches.begin(), matches.end(), better);
  }
  for (size_t i = 0; i < shown; ++i) {
    out.line(text.substr(matches[i].offset, matches[i].length), options.scores ? &matches[i].score : nullptr);
  }
  if (!out.finish()) return 2;
  return matches.empty() ? 1 : 0;
}
