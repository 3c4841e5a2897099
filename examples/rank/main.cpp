// loomwork-rank: reads candidate lines from standard input or a file, scores
// each against a query as an abbreviation (scoreWithSearchString), and prints
// the best ones, best first, with their scores: a fuzzy finder's filter mode.
//
//   loomwork-rank [-n N] [-f FILE] [-l] [-j THREADS] QUERY
//
// Lines that do not match (score 0), blank lines included, are left out. Equal
// scores keep the input order. Input is UTF-8 (ill-formed bytes are scored as
// U+FFFD and printed as they came); a trailing carriage return is not part of
// a line.

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "loomwork/additions.h"

namespace {

constexpr const char* kUsage =
    "usage: loomwork-rank [-n N] [-f FILE] [-l] [-j THREADS] QUERY\n"
    "  -n N        print at most the N best lines (default: every matching line)\n"
    "  -f FILE     read candidates from FILE instead of standard input\n"
    "  -l          print the lines only, without their scores\n"
    "  -j THREADS  score with this many threads (default: one per processor)\n";

struct Options {
  size_t limit = SIZE_MAX;
  const char* file = nullptr;
  bool linesOnly = false;
  unsigned threads = 0;
  std::string query;
};

bool parseCount(const char* text, size_t& out) {
  const char* end = text + std::strlen(text);
  auto [ptr, ec] = std::from_chars(text, end, out);
  return ec == std::errc() && ptr == end && ptr != text;
}

bool parseOptions(int argc, char** argv, Options& options) {
  bool haveQuery = false;
  for (int i = 1; i < argc; ++i) {
    std::string_view arg = argv[i];
    // "-n 5" and "-n5" both work.
    const char* attached = nullptr;
    if (arg.size() > 2 && arg[0] == '-' && (arg[1] == 'n' || arg[1] == 'f' || arg[1] == 'j')) {
      attached = argv[i] + 2;
      arg = arg.substr(0, 2);
    }
    auto value = [&]() -> const char* {
      if (attached != nullptr) return attached;
      return i + 1 < argc ? argv[++i] : nullptr;
    };
    if (arg == "-h" || arg == "--help") {
      std::fputs(kUsage, stdout);
      std::exit(0);
    } else if (arg == "-n") {
      const char* text = value();
      if (text == nullptr || !parseCount(text, options.limit)) return false;
    } else if (arg == "-f") {
      options.file = value();
      if (options.file == nullptr) return false;
    } else if (arg == "-l") {
      options.linesOnly = true;
    } else if (arg == "-j") {
      size_t threads = 0;
      const char* text = value();
      if (text == nullptr || !parseCount(text, threads) || threads == 0 || threads > 256) return false;
      options.threads = static_cast<unsigned>(threads);
    } else if (arg == "--" && i + 1 < argc && !haveQuery) {
      options.query = argv[++i];
      haveQuery = true;
    } else if (arg.size() > 1 && arg[0] == '-') {
      return false;
    } else if (!haveQuery) {
      options.query = std::string(arg);
      haveQuery = true;
    } else {
      return false;
    }
  }
  return haveQuery;
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

// A matching line, by its place in the input (which also orders equal scores).
struct Candidate {
  float score;
  uint32_t length;
  size_t offset;
};

// Scores the lines that start in text[begin, end) (begin is a line start).
void scoreLines(std::string_view text, size_t begin, size_t end, const std::string& query,
                std::vector<Candidate>& found) {
  loomwork::AbbreviationScorer scorer(query);
  while (begin < end) {
    const void* newline = std::memchr(text.data() + begin, '\n', text.size() - begin);
    const size_t stop = newline ? static_cast<size_t>(static_cast<const char*>(newline) - text.data()) : text.size();
    std::string_view line = text.substr(begin, stop - begin);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    const float score = scorer.score(line);
    // A line longer than 4 GiB keeps its score but is cut when printed.
    if (score > 0) found.push_back({score, static_cast<uint32_t>(std::min<size_t>(line.size(), UINT32_MAX)), begin});
    begin = stop + 1;
  }
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!parseOptions(argc, argv, options)) {
    std::fputs(kUsage, stderr);
    return 2;
  }

  Input input;
  const int fd = options.file != nullptr ? open(options.file, O_RDONLY) : STDIN_FILENO;
  if (fd < 0) {
    std::fprintf(stderr, "loomwork-rank: cannot open %s: %s\n", options.file, std::strerror(errno));
    return 1;
  }
  const bool loaded = input.load(fd);
  if (fd != STDIN_FILENO) close(fd);
  if (!loaded) {
    std::fprintf(stderr, "loomwork-rank: read error: %s\n", std::strerror(errno));
    return 1;
  }
  const std::string_view text = input.text();

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
    workers.emplace_back(scoreLines, text, bounds[slice], bounds[slice + 1], std::cref(options.query),
                         std::ref(found[slice]));
  }
  scoreLines(text, bounds[0], bounds[1], options.query, found[0]);
  for (auto& worker : workers) worker.join();

  std::vector<Candidate>& matches = found[0];
  for (unsigned slice = 1; slice < threads; ++slice)
    matches.insert(matches.end(), found[slice].begin(), found[slice].end());
  auto better = [](const Candidate& a, const Candidate& b) {
    return a.score != b.score ? a.score > b.score : a.offset < b.offset;
  };
  const size_t shown = std::min(options.limit, matches.size());
  if (shown < matches.size() / 2) {
    std::partial_sort(matches.begin(), matches.begin() + static_cast<std::ptrdiff_t>(shown), matches.end(), better);
  } else {
    std::sort(matches.begin(), matches.end(), better);
  }

  constexpr size_t kFlushAt = size_t{1} << 18;
  std::string out;
  out.reserve(kFlushAt + 64);
  char number[32];
  for (size_t i = 0; i < shown; ++i) {
    if (!options.linesOnly) {
      auto result = std::to_chars(number, number + sizeof number, matches[i].score, std::chars_format::fixed, 6);
      out.append(number, result.ptr);
      out += '\t';
    }
    out.append(text.data() + matches[i].offset, matches[i].length);
    out += '\n';
    if (out.size() >= kFlushAt) {
      std::fwrite(out.data(), 1, out.size(), stdout);
      out.clear();
    }
  }
  std::fwrite(out.data(), 1, out.size(), stdout);
  return std::fflush(stdout) == 0 ? 0 : 1;
}
