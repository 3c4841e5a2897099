// The command-line tools, run as processes: loomwork-rank and
// loomwork-listdiff. They are found beside this test in the build tree
// (<build>/tests/ -> <build>/examples/<tool>/), or through the environment
// variables LOOMWORK_RANK and LOOMWORK_LISTDIFF; tests skip when a tool was
// not built.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <numeric>
#include <random>
#include <sstream>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

constexpr unsigned kSeed = 20240917;

std::string toolPath(const char* variable, const char* relative) {
  if (const char* set = std::getenv(variable)) return set;
  std::error_code error;
  const fs::path self = fs::read_symlink("/proc/self/exe", error);
  if (error) return {};
  return (self.parent_path().parent_path() / relative).string();
}

struct Result {
  int status = -1;
  std::string out, err;
};

std::string readFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// Scratch files for one test, removed afterwards.
struct Scratch {
  fs::path dir = [] {
    std::string pattern = (fs::temp_directory_path() / "loomwork-tools-XXXXXX").string();
    return fs::path(mkdtemp(pattern.data()));
  }();
  ~Scratch() {
    std::error_code error;
    fs::remove_all(dir, error);
  }
  fs::path write(const std::string& name, const std::string& content) const {
    std::ofstream(dir / name, std::ios::binary) << content;
    return dir / name;
  }
};

std::string quoted(const std::string& text) {
  std::string out = "'";
  for (char c : text) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

// Runs the program with `input` as standard input and waits for it.
Result run(const std::string& program, const std::vector<std::string>& arguments, const std::string& input = "") {
  Scratch scratch;
  const fs::path in = scratch.write("in", input), out = scratch.dir / "out", err = scratch.dir / "err";
  std::string command = quoted(program);
  for (const auto& argument : arguments) command += " " + quoted(argument);
  command += " <" + quoted(in) + " >" + quoted(out) + " 2>" + quoted(err);
  const int status = std::system(command.c_str());
  return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), readFile(out), readFile(err)};
}

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) out.push_back(line);
  return out;
}

// Runs one tool; tests skip when it was not built.
class ToolTest : public ::testing::Test {
 protected:
  void need(std::string& path, const char* variable, const char* relative) {
    path = toolPath(variable, relative);
    if (access(path.c_str(), X_OK) != 0) GTEST_SKIP() << path << " was not built";
  }
  Result rank(std::vector<std::string> arguments, const std::string& input) { return run(rank_, arguments, input); }
  Result listdiff(std::vector<std::string> arguments, const std::string& input = "") {
    return run(listdiff_, arguments, input);
  }
  std::string rank_, listdiff_;
};
struct RankTest : ToolTest {
  void SetUp() override { need(rank_, "LOOMWORK_RANK", "examples/rank/loomwork-rank"); }
};
struct ListDiffTest : ToolTest {
  void SetUp() override { need(listdiff_, "LOOMWORK_LISTDIFF", "examples/listdiff/loomwork-listdiff"); }
};

// Each usage error exits with 2, prints nothing on standard output and names
// the option and the value that were wrong.
void expectUsageErrors(const std::string& program,
                       const std::vector<std::pair<std::vector<std::string>, std::string>>& cases) {
  for (const auto& [arguments, named] : cases) {
    SCOPED_TRACE(arguments.empty() ? std::string("(no arguments)") : arguments.front());
    const Result result = run(program, arguments);
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "");
    EXPECT_NE(result.err.find(named), std::string::npos) << result.err;
    EXPECT_NE(result.err.find("--help"), std::string::npos) << result.err;
  }
}

TEST_F(RankTest, HelpVersionAndUsageErrors) {
  const Result help = rank({"--help"}, "");
  EXPECT_EQ(help.status, 0);
  EXPECT_EQ(help.out.rfind("usage: loomwork-rank", 0), 0u);
  EXPECT_EQ(help.err, "");
  const Result version = rank({"--version"}, "");
  EXPECT_EQ(version.status, 0);
  EXPECT_EQ(version.out.rfind("loomwork-rank ", 0), 0u);
  expectUsageErrors(rank_, {{{"-n", "-5", "x"}, "'-5'"},
                            {{"-n", "abc", "x"}, "'abc'"},
                            {{"--limit=7x", "x"}, "'7x'"},
                            {{"-j", "0", "x"}, "'0'"},
                            {{"-j"}, "'-j' needs a value"},
                            {{"-x", "query"}, "'-x'"},
                            {{"--scores=yes", "x"}, "--scores"}});
  const Result missing = rank({"-f", "/nonexistent/list", "x"}, "");
  EXPECT_EQ(missing.status, 2);
  EXPECT_NE(missing.err.find("/nonexistent/list"), std::string::npos);
}

TEST_F(RankTest, OutputConventions) {
  const std::string input = "Alpha beta\r\n\ngamma\nalphabet soup\nbeta";
  // An empty query prints every line, in order, blank lines too.
  EXPECT_EQ(rank({}, input).out, "Alpha beta\n\ngamma\nalphabet soup\nbeta\n");
  EXPECT_EQ(rank({"-n", "2", ""}, input).out, "Alpha beta\n\n");
  // Nothing matches: status 1, nothing printed. An empty input matches nothing.
  const Result none = rank({"zzz"}, input);
  EXPECT_EQ(none.status, 1);
  EXPECT_EQ(none.out, "");
  EXPECT_EQ(rank({}, "").status, 1);
  // Lines only by default, case ignored, the carriage return left out.
  const Result alpha = rank({"alpha"}, input);
  EXPECT_EQ(alpha.status, 0);
  EXPECT_EQ(lines(alpha.out), (std::vector<std::string>{"Alpha beta", "alphabet soup"}));
  // Several words: every one must match, in any order; as one argument or many.
  EXPECT_EQ(rank({"beta", "alph"}, input).out, "Alpha beta\n");
  EXPECT_EQ(rank({"soup alpha"}, input).out, "alphabet soup\n");
  EXPECT_EQ(rank({"--", "-n"}, "a-n\n-n x\n").status, 0);
  // A file instead of standard input; a limit.
  Scratch scratch;
  const fs::path file = scratch.write("list", input);
  EXPECT_EQ(rank({"-n1", "-f", file.string(), "alpha"}, "").out, "Alpha beta\n");
}

TEST_F(RankTest, NamedFilesComeFirstOnPaths) {
  const std::string paths =
      "/usr/share/doc/tk8.6/changelog.gz\n"
      "/usr/lib/python3/dist-packages/pip/_vendor/colorama/initialise.py\n"
      "/usr/lib/google-cloud-sdk/lib/surface/datapipelines/pipeline/__init__.py\n"
      "/usr/lib/python3/dist-packages/pip/_vendor/__init__.py\n"
      "/usr/lib/python3/dist-packages/pip/__init__.py\n"
      "/usr/lib/python3.11/tkinter/ttk.py\n"
      "/usr/share/fpcsrc/3.2.2/packages/fcl-web/examples/httpserver\n"
      "/usr/lib/python3.11/http/server.py\n"
      "/etc/java-17-openjdk/security/blocked.certs\n"
      "/etc/ssl/certs/ca-certificates.crt\n"
      "/etc/ssl/certs\n"
      "/etc/skel/.bashrc\n"
      "/home/me/Documents/Résumé 2024.pdf\n"
      "/home/me/Fotos/Zürich/See am Morgen.jpg\n";
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{"ttk"}, "/usr/lib/python3.11/tkinter/ttk.py"},
      {{"certs"}, "/etc/ssl/certs"},
      {{"pipinit"}, "/usr/lib/python3/dist-packages/pip/__init__.py"},
      {{"pip", "init"}, "/usr/lib/python3/dist-packages/pip/__init__.py"},
      {{"httpserver"}, "/usr/lib/python3.11/http/server.py"},
      {{"bashrc"}, "/etc/skel/.bashrc"},
      {{"resumepdf"}, "/home/me/Documents/Résumé 2024.pdf"},
      {{"zurichsee"}, "/home/me/Fotos/Zürich/See am Morgen.jpg"},
      {{"zürich"}, "/home/me/Fotos/Zürich/See am Morgen.jpg"},
  };
  for (const auto& [query, expected] : cases) {
    SCOPED_TRACE(query.front());
    const Result result = rank(query, paths);
    ASSERT_EQ(result.status, 0);
    EXPECT_EQ(lines(result.out).front(), expected) << result.out;
  }
}

// A random ASCII path from a small vocabulary, so that queries match often
// and directories repeat from line to line.
std::string randomPath(std::mt19937& rng) {
  static const char* const names[] = {"usr",    "lib",  "Share", "doc", "pip",     "_vendor", "init",
                                      "certs",  "ssl",  "x-y",   "a.b", ".hidden", "Tk",      "ttk",
                                      "README", "main", "c++",   "e",   "ee"};
  static const char* const extensions[] = {"", ".py", ".h", ".tar.gz", "."};
  std::string path = rng() % 4 == 0 ? "" : "/";
  const size_t depth = rng() % 6;
  for (size_t i = 0; i < depth; ++i) path += std::string(names[rng() % std::size(names)]) + "/";
  path += names[rng() % std::size(names)];
  path += extensions[rng() % std::size(extensions)];
  if (rng() % 10 == 0) path += "/";
  return path;
}

bool isSubsequence(const std::string& word, const std::string& line) {
  size_t at = 0;
  for (char c : line) {
    if (at < word.size() &&
        std::tolower(static_cast<unsigned char>(c)) == std::tolower(static_cast<unsigned char>(word[at])))
      ++at;
  }
  return at == word.size();
}

// On ASCII, a line matches exactly when each query word is a subsequence of
// it (as in fzy and fzf); scores lie in (0, 1], are printed best first, and a
// line's score depends on nothing but the line: not on its neighbours, their
// order or the number of threads.
TEST_F(RankTest, RandomPathsMatchAsSubsequencesAndScoreAlone) {
  std::mt19937 rng(kSeed);
  for (int c = 0; c < 12; ++c) {
    SCOPED_TRACE("seed " + std::to_string(kSeed) + " case " + std::to_string(c));
    std::vector<std::string> paths(300);
    for (auto& path : paths) path = randomPath(rng);
    // Lines in a row share directories, as find prints them.
    std::sort(paths.begin(), paths.begin() + 150);
    std::string input;
    for (const auto& path : paths) input += path + "\n";
    const std::string query =
        std::vector<std::string>{"ttk", "pipinit", "certs",    "e",        "usr lib", "tk.py",
                                 "c++", "i_v",     "sslcerts", "readme h", "A.B",     "hid"}[static_cast<size_t>(c)];
    std::vector<std::string> arguments{"-s", "-j", std::to_string(1 + c % 3), query};
    const Result result = rank(arguments, input);

    std::multimap<std::string, std::string> scored;  // line -> printed score
    float previous = 2.0f;
    for (const std::string& line : lines(result.out)) {
      const size_t tab = line.find('\t');
      ASSERT_NE(tab, std::string::npos);
      const float score = std::stof(line.substr(0, tab));
      EXPECT_GT(score, 0.0f);
      EXPECT_LE(score, previous) << line;
      previous = score;
      scored.emplace(line.substr(tab + 1), line.substr(0, tab));
    }
    size_t expected = 0;
    std::istringstream words(query);
    std::vector<std::string> queryWords{std::istream_iterator<std::string>(words), {}};
    for (const auto& path : paths) {
      const bool all = std::all_of(queryWords.begin(), queryWords.end(),
                                   [&](const std::string& w) { return isSubsequence(w, path); });
      EXPECT_EQ(scored.count(path) > 0, all) << path;
      expected += all ? 1 : 0;
    }
    EXPECT_EQ(scored.size(), expected);
    EXPECT_EQ(result.status, expected > 0 ? 0 : 1);

    // The same lines shuffled, and a few of them alone, score the same.
    std::shuffle(paths.begin(), paths.end(), rng);
    std::string shuffled;
    for (const auto& path : paths) shuffled += path + "\n";
    std::multimap<std::string, std::string> again;
    for (const std::string& line : lines(rank({"-s", "-j", "1", query}, shuffled).out)) {
      again.emplace(line.substr(line.find('\t') + 1), line.substr(0, line.find('\t')));
    }
    EXPECT_EQ(again, scored);
    for (size_t i = 0; i < 5 && i < paths.size(); ++i) {
      const auto found = scored.find(paths[i]);
      if (found == scored.end()) continue;
      const std::string alone = rank({"-s", query}, paths[i] + "\n").out;
      EXPECT_EQ(alone, found->second + "\t" + paths[i] + "\n");
    }
  }
}

TEST_F(ListDiffTest, HelpVersionAndUsageErrors) {
  const Result help = listdiff({"-h"});
  EXPECT_EQ(help.status, 0);
  EXPECT_EQ(help.out.rfind("usage: loomwork-listdiff", 0), 0u);
  EXPECT_NE(help.out.find("each line of a file is one item"), std::string::npos);
  EXPECT_EQ(listdiff({"--version"}).out.rfind("loomwork-listdiff ", 0), 0u);
  expectUsageErrors(listdiff_, {{{"a b c"}, "got 1"},
                                {{}, "got 0"},
                                {{"a", "b", "c"}, "got 3"},
                                {{"-q", "a", "b"}, "'-q'"},
                                {{"-w", "a", "b"}, "-f"},
                                {{"-f", "-", "-"}, "standard input"}});
  const Result missing = listdiff({"-f", "/nonexistent/old", "/nonexistent/new"});
  EXPECT_EQ(missing.status, 2);
  EXPECT_NE(missing.err.find("/nonexistent/old"), std::string::npos);
}

TEST_F(ListDiffTest, PrintsTheTransformAndEachStepOnce) {
  const Result result = listdiff({"a b c d e f", "f b x c a e"});
  EXPECT_EQ(result.status, 0);
  const std::vector<std::string> out = lines(result.out);
  EXPECT_EQ(out[0], "old: 6 items (a, b, c, d, e, f)");
  EXPECT_EQ(out[1], "new: 6 items (f, b, x, c, a, e)");
  // Steps are the lines indented by two spaces.
  const auto steps =
      std::count_if(out.begin(), out.end(), [](const std::string& l) { return l.rfind("  ", 0) == 0 && l[2] != ' '; });
  EXPECT_EQ(out.back(), std::to_string(steps) + " steps turn the old list into the new one");
  EXPECT_NE(result.out.find("  insert 2 (x)\n"), std::string::npos);
  // Commas separate items, empty ones too.
  EXPECT_EQ(lines(listdiff({"a,,b", "a,b"}).out).front(), "old: 3 items (a, \"\", b)");
}

// Parses "N deletions, M moves, K insertions".
std::vector<long> counts(const std::string& out) {
  const std::string line = lines(out).at(2);
  std::vector<long> numbers;
  std::istringstream in(line);
  for (std::string word; in >> word;) {
    if (std::isdigit(static_cast<unsigned char>(word[0]))) numbers.push_back(std::stol(word));
  }
  return numbers;
}

// For random lists with repeated items, from files or standard input, the
// steps turn the old list into the new one, there are as many as the counts
// say, and the fewest-moves transition has the same deletions and insertions
// and no more moves.
TEST_F(ListDiffTest, RandomListsFromFilesAndStandardInput) {
  std::mt19937 rng(kSeed + 1);
  Scratch scratch;
  for (int c = 0; c < 40; ++c) {
    SCOPED_TRACE("seed " + std::to_string(kSeed + 1) + " case " + std::to_string(c));
    std::string oldText, newText;
    const size_t alphabet = 1 + rng() % 12;
    for (size_t i = rng() % 30; i > 0; --i) oldText += "item " + std::to_string(rng() % alphabet) + "\r\n";
    for (size_t i = rng() % 30; i > 0; --i) newText += "item " + std::to_string(rng() % alphabet) + "\n";
    const fs::path oldFile = scratch.write("old", oldText);
    const Result plain = listdiff({"-f", oldFile.string(), "-"}, newText);
    ASSERT_EQ(plain.status, 0) << plain.out;
    const Result fewest = listdiff({"-m", "-s", "-f", oldFile.string(), "-"}, newText);
    ASSERT_EQ(fewest.status, 0) << fewest.out;
    const std::vector<long> a = counts(plain.out), b = counts(fewest.out);
    ASSERT_EQ(a.size(), 3u);
    ASSERT_EQ(b.size(), 3u);
    EXPECT_EQ(a[0], b[0]);
    EXPECT_LE(b[1], a[1]);
    EXPECT_EQ(a[2], b[2]);
    EXPECT_EQ(lines(plain.out).back(), std::to_string(a[0] + a[1] + a[2]) +
                                           (a[0] + a[1] + a[2] == 1 ? " step" : " steps") +
                                           " turn the old list into the new one");
    // As words, "item" and the numbers are separate items.
    EXPECT_EQ(listdiff({"-w", "-s", "-f", oldFile.string(), "-"}, newText).status, 0);
  }
}

TEST_F(ListDiffTest, HundredThousandShuffledItems) {
  std::vector<int> items(100000);
  std::iota(items.begin(), items.end(), 0);
  std::string sorted, shuffled;
  for (int item : items) sorted += std::to_string(item) + "\n";
  std::shuffle(items.begin(), items.end(), std::mt19937(kSeed + 2));
  for (int item : items) shuffled += std::to_string(item) + "\n";
  Scratch scratch;
  const Result result = listdiff({"-s", "-f", "-", scratch.write("sorted", sorted).string()}, shuffled);
  EXPECT_EQ(result.status, 0);
  EXPECT_NE(result.out.find("steps turn the old list into the new one"), std::string::npos) << result.out;
}

}  // namespace
