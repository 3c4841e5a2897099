// PathScorer: how well a line matches a query typed into a fuzzy filter, for
// loomwork-rank. A line is a file path or a plain title; a query is one or
// more words, and every word must match.
//
// The library's abbreviation score is made for titles: it divides by the
// length of the text and counts only spaces and "." as word starts, so on a
// whole path it prefers short paths that hold the letters anywhere over the
// file the user named. So each word is scored against the parts of a path:
// the word is cut in two, its end is scored against the file name (the last
// component) and its start against the directory names above, and the best
// cut wins:
//
//   - letters in the file name count fully; letters in a directory name count
//     0.9 as much, and 0.8 less for every level the directory lies above the
//     file (the nearest directory that matches counts);
//   - a word that matches only directory names scores 0.75 of that, and a
//     word start that no single directory name holds is scored against all of
//     them together at half weight;
//   - "_" and "-" count as spaces (word starts), and a leading "." of a name
//     counts as nothing (".bashrc" is named "bashrc"), unless the word holds
//     them;
//   - a name whose stem (the name without an extension of up to 8 letters
//     and digits) holds the letters is scored by its stem, so "ttk.tcl"
//     matches "ttk" as "ttk" does;
//   - deeper paths score less: the score is divided by 1 + 0.003 per byte of
//     the directories, so that of two equal matches the shallower one wins.
//
// A line without "/" is all file name, so a plain title is scored as the
// library scores it, with "_" and "-" read as spaces.
//
// One PathScorer is used by one thread at a time.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "loomwork/additions/StringScoring.h"
#include "loomwork/platform/TextServices.h"

namespace rank {

// The words of a query, split at spaces and tabs; none for a blank query.
std::vector<std::string> queryWords(std::string_view query);

// Scores against names seen before: directory names repeat from path to path
// ("usr", "lib", "python3"), and a score depends only on the name. Holds at
// most 65,536 names, and starts again when full.
class NameScores {
 public:
  // The index-th of `count` scores of the name, from score() when not known.
  template <class Score>
  float score(std::string_view name, size_t index, size_t count, Score&& score) {
    auto found = scores_.find(name);
    if (found == scores_.end()) {
      if (scores_.size() >= kLimit) scores_.clear();
      found = scores_.emplace(std::string(name), std::vector<float>(count, -1.0f)).first;
    }
    float& known = found->second[index];
    if (known < 0.0f) known = score();
    return known;
  }

 private:
  static constexpr size_t kLimit = 65536;
  struct Hash {
    using is_transparent = void;
    size_t operator()(std::string_view text) const { return std::hash<std::string_view>{}(text); }
  };
  std::unordered_map<std::string, std::vector<float>, Hash, std::equal_to<>> scores_;
};

class PathScorer {
 public:
  explicit PathScorer(const std::vector<std::string>& words);
  PathScorer(const PathScorer&) = delete;
  PathScorer& operator=(const PathScorer&) = delete;

  // From 0 (some word does not match) to 1: the mean of the words' scores.
  float score(std::string_view line);

 private:
  struct Word {
    std::string text;
    std::vector<size_t> cuts;       // byte offsets of the characters' starts, then text.size()
    std::vector<uint8_t> ids;       // search ids of the bytes when all are simple ASCII, then a 0
    std::vector<uint8_t> skeleton;  // the ids of the characters' ASCII equivalents, where they have one, then a 0
    bool simple = false;
    int twin = -1;  // index in twins_ of the ASCII twin of a word that is not simple
    bool hasSlash = false;
    char keep[3] = {0, 0, 0};  // "_", "-", "." when the word holds it (it then stays in the text)
    std::vector<loomwork::AbbreviationScorer> tails;  // tails[i] scores the word from cuts[i] on
    std::vector<loomwork::AbbreviationScorer> heads;  // heads[i - 1] scores the word up to cuts[i]
    // The directories of the last line scored, and by cut the directory and
    // spanning scores found for them so far (-1 when not yet known).
    std::string directories;
    std::vector<float> directoryScores, spanningScores;
    NameScores directoryNames;  // by cut
  };
  struct Part {
    size_t begin, end;
  };

  void prepare(Word& word, const std::string& text);
  char asciiEquivalent(std::string_view character) const;
  float scoreWord(Word& word, bool simpleLine);
  // The best score of the word's first `cut` characters against one
  // directory name, with the distance factor; 0 when no name holds them.
  // `fast`: the line and the word are simple ASCII, so subsequence tests
  // skip the names that cannot match.
  float directoryScore(Word& word, size_t cut, bool fast);
  // The same characters against the directory names they need, joined,
  // weighted.
  float spanningScore(Word& word, size_t cut, bool fast);
  void mapFor(const Word& word);
  void mapRange(size_t begin, size_t end);
  void splitDirectories();
  size_t heldPrefix(const Word& word, Part part) const;
  size_t heldSuffix(const Word& word, Part part) const;

  const loomwork::AsciiSearchClasses& classes_;
  std::array<uint8_t, 256> ids_{};  // classes_.ids, and 0 for the bytes from 128 up
  std::vector<Word> words_;
  std::vector<Word> twins_;

  // The line being scored (without trailing slashes) and its parts.
  std::string_view line_;
  Part file_{0, 0};
  Part stem_{0, 0};                   // the file name without its extension
  std::vector<Part> directories_;     // nearest first
  std::vector<size_t> heldPrefixes_;  // for the word being scored: heldPrefix() of each directory, once known
  std::string mapped_;                // the line's parts as the word wants them (mapFor())
  std::string spanned_;               // the directories of mapped_, "/" as spaces
  std::array<std::array<char, 256>, 8> mapTables_{};  // by keep[] pattern, filled on first use
  int mappedFor_ = -1;                                // the keep[] pattern mapped_ holds, -1 before the first
  bool spannedValid_ = false;
  bool directoriesSplit_ = false;                   // directories_ holds this line's directories
  std::vector<std::pair<size_t, float>> spanning_;  // cuts left to spanningScore(), with their file scores
};

}  // namespace rank
