#include "PathScorer.h"

#include <algorithm>
#include <cctype>
#include <cstring>

namespace rank {

namespace {

// How much letters matched in a directory name count against letters in the
// file name, and the further factor per level the directory lies above it.
constexpr float kDirectoryWeight = 0.9f;
constexpr float kDistanceDecay = 0.8f;
// A word matched in directory names only; a word start spread over several.
constexpr float kDirectoryOnly = 0.75f;
constexpr float kSpanning = 0.5f;
// Per byte of the directories, so that the shallower of two equal matches wins.
constexpr float kDepth = 0.003f;

bool isBlank(char c) { return c == ' ' || c == '\t'; }

int keepPattern(const char keep[3]) { return (keep[0] != 0 ? 1 : 0) | (keep[1] != 0 ? 2 : 0) | (keep[2] != 0 ? 4 : 0); }

}  // namespace

// The simple ASCII character that the search takes as equal to `character`
// ("e" for "é"), or 0 when there is none ("ß" equals "ss").
char PathScorer::asciiEquivalent(std::string_view character) const {
  if (character.size() == 1) {
    const auto byte = static_cast<unsigned char>(character[0]);
    return byte < 128 && classes_.ids[byte] != 0 ? character[0] : 0;
  }
  const std::u16string pattern = loomwork::utf16FromUTF8(character);
  for (char16_t c = 0; c < 128; ++c) {
    if (classes_.ids[c] == 0) continue;
    const std::u16string_view text(&c, 1);
    const auto match = loomwork::rangeOfStringIgnoringCaseAndDiacritics(text, pattern);
    if (match && match->location == 0 && match->length == 1) return static_cast<char>(c);
  }
  return 0;
}

std::vector<std::string> queryWords(std::string_view query) {
  std::vector<std::string> words;
  size_t at = 0;
  while (at < query.size()) {
    while (at < query.size() && isBlank(query[at])) ++at;
    size_t end = at;
    while (end < query.size() && !isBlank(query[end])) ++end;
    if (end > at) words.emplace_back(query.substr(at, end - at));
    at = end;
  }
  return words;
}

PathScorer::PathScorer(const std::vector<std::string>& words) : classes_(loomwork::asciiSearchClasses()) {
  std::copy(classes_.ids.begin(), classes_.ids.end(), ids_.begin());
  words_.reserve(words.size());
  for (const std::string& text : words) {
    words_.emplace_back();
    prepare(words_.back(), text);
    Word& word = words_.back();
    // On a simple line, a word whose every character has an ASCII equivalent
    // matches as that equivalent does; the ASCII twin takes the fast path.
    if (!word.simple && word.skeleton.size() == word.cuts.size()) {
      std::string twin;
      for (size_t i = 0; i + 1 < word.cuts.size(); ++i) {
        twin += asciiEquivalent(std::string_view(text).substr(word.cuts[i], word.cuts[i + 1] - word.cuts[i]));
      }
      twins_.emplace_back();
      prepare(twins_.back(), twin);
      word.twin = static_cast<int>(twins_.size()) - 1;
    }
  }
}

void PathScorer::prepare(Word& word, const std::string& text) {
  word.text = text;
  word.simple = true;
  for (size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    // A cut never falls inside a UTF-8 sequence.
    if ((byte & 0xC0) != 0x80) word.cuts.push_back(i);
    const uint8_t id = byte < 128 ? classes_.ids[byte] : 0;
    if (id == 0) word.simple = false;
    word.ids.push_back(id);
    if (byte == '/') word.hasSlash = true;
    if (byte == '_') word.keep[0] = '_';
    if (byte == '-') word.keep[1] = '-';
    if (byte == '.') word.keep[2] = '.';
  }
  word.cuts.push_back(text.size());
  word.ids.push_back(0);
  for (size_t i = 0; i + 1 < word.cuts.size(); ++i) {
    const std::string_view character = std::string_view(text).substr(word.cuts[i], word.cuts[i + 1] - word.cuts[i]);
    if (const char ascii = asciiEquivalent(character))
      word.skeleton.push_back(classes_.ids[static_cast<unsigned char>(ascii)]);
  }
  word.skeleton.push_back(0);
  const std::string_view view = word.text;
  for (size_t i = 0; i + 1 < word.cuts.size(); ++i) word.tails.emplace_back(view.substr(word.cuts[i]));
  for (size_t i = 1; i < word.cuts.size(); ++i) word.heads.emplace_back(view.substr(0, word.cuts[i]));
  word.directoryScores.assign(word.cuts.size(), -1.0f);
  word.spanningScores.assign(word.cuts.size(), -1.0f);
}

// Rewrites the file name in mapped_ for the word: "_" and "-", and "." at the
// start of a component (".bashrc"), become spaces unless the word holds them.
// Byte offsets stay those of the line; directory names are mapped (mapRange())
// when they are scored.
void PathScorer::mapFor(const Word& word) {
  const int pattern = keepPattern(word.keep);
  if (pattern == mappedFor_) return;
  std::array<char, 256>& table = mapTables_[static_cast<size_t>(pattern)];
  if (table['a'] != 'a') {
    for (size_t c = 0; c < 256; ++c) table[c] = static_cast<char>(c);
    if (word.keep[0] == 0) table['_'] = ' ';
    if (word.keep[1] == 0) table['-'] = ' ';
  }
  mappedFor_ = pattern;
  mapped_.resize(line_.size());
  mapRange(file_.begin, file_.end);
  spannedValid_ = false;
}

void PathScorer::mapRange(size_t begin, size_t end) {
  const std::array<char, 256>& table = mapTables_[static_cast<size_t>(mappedFor_)];
  for (size_t i = begin; i < end; ++i) mapped_[i] = table[static_cast<unsigned char>(line_[i])];
  if ((mappedFor_ & 4) == 0) {
    for (size_t i = line_.find('.', begin); i < end; i = line_.find('.', i + 1)) {
      if (i == 0 || line_[i - 1] == '/') mapped_[i] = ' ';
    }
  }
}

// Finds the directory names, once per line.
void PathScorer::splitDirectories() {
  if (directoriesSplit_) return;
  directoriesSplit_ = true;
  directories_.clear();
  heldPrefixes_.clear();
  // Forward with memchr, then nearest first.
  const char* text = line_.data();
  size_t begin = 0;
  while (begin < file_.begin) {
    const void* slash = std::memchr(text + begin, '/', file_.begin - begin);
    const size_t end = slash ? static_cast<size_t>(static_cast<const char*>(slash) - text) : file_.begin;
    if (end > begin) directories_.push_back(Part{begin, end});
    begin = end + 1;
  }
  std::reverse(directories_.begin(), directories_.end());
}

// How many of the word's first characters are a subsequence of the line's
// part, with both simple ASCII.
size_t PathScorer::heldPrefix(const Word& word, Part part) const {
  // Locals and a register for the wanted id keep the loop free of reloads.
  const uint8_t* ids = ids_.data();
  const char* text = line_.data();
  const uint8_t* want = word.ids.data();
  uint8_t wanted = *want;
  for (size_t i = part.begin; i < part.end && wanted != 0; ++i) {
    if (ids[static_cast<unsigned char>(text[i])] == wanted) [[unlikely]]
      wanted = *++want;
  }
  return static_cast<size_t>(want - word.ids.data());
}

// How many of the word's last characters are a subsequence of the part.
size_t PathScorer::heldSuffix(const Word& word, Part part) const {
  const uint8_t* ids = ids_.data();
  const char* text = line_.data();
  const size_t m = word.text.size();
  size_t matched = 0;
  uint8_t wanted = m > 0 ? word.ids[m - 1] : 0;
  for (size_t i = part.end; i > part.begin && matched < m; --i) {
    if (ids[static_cast<unsigned char>(text[i - 1])] == wanted) [[unlikely]] {
      ++matched;
      wanted = matched < m ? word.ids[m - 1 - matched] : 0;
    }
  }
  return matched;
}

float PathScorer::directoryScore(Word& word, size_t cut, bool fast) {
  float& cached = word.directoryScores[cut];
  if (cached >= 0.0f) return cached;
  splitDirectories();
  if (fast && heldPrefixes_.empty()) heldPrefixes_.assign(directories_.size(), SIZE_MAX);
  loomwork::AbbreviationScorer& head = word.heads[cut - 1];
  const size_t length = word.cuts[cut];
  float best = 0.0f;
  float factor = 1.0f;
  for (size_t j = 0; j < directories_.size(); ++j) {
    if (factor <= best) break;  // no farther directory can do better
    const Part& part = directories_[j];
    if (fast && heldPrefixes_[j] == SIZE_MAX) heldPrefixes_[j] = heldPrefix(word, part);
    if (!fast || heldPrefixes_[j] >= length) {
      // The cache knows names by their text in the line, which the word's
      // mapping turns into one text only; map it on a miss.
      const float score =
          word.directoryNames.score(line_.substr(part.begin, part.end - part.begin), cut, word.heads.size() + 1, [&] {
            mapRange(part.begin, part.end);
            return head.score(std::string_view(mapped_).substr(part.begin, part.end - part.begin));
          });
      best = std::max(best, score * factor);
    }
    factor *= kDistanceDecay;
  }
  cached = best;
  return best;
}

float PathScorer::spanningScore(Word& word, size_t cut, bool fast) {
  float& cached = word.spanningScores[cut];
  if (cached >= 0.0f) return cached;
  cached = 0.0f;
  splitDirectories();
  if (directories_.empty()) return cached;
  if (!spannedValid_) {
    mapRange(0, directories_.front().end);
    spanned_.assign(std::string_view(mapped_).substr(0, directories_.front().end));
    std::replace(spanned_.begin(), spanned_.end(), '/', ' ');
    spannedValid_ = true;
  }
  // From the farthest directory the letters need: the nearest names that
  // hold them, matched from the last letter back.
  size_t begin = 0;
  if (fast) {
    size_t matched = 0;
    const size_t length = word.cuts[cut];
    for (begin = directories_.front().end; begin > 0 && matched < length; --begin) {
      if (ids_[static_cast<unsigned char>(line_[begin - 1])] == word.ids[length - 1 - matched]) ++matched;
    }
    while (begin > 0 && line_[begin - 1] != '/') --begin;
  }
  cached = word.heads[cut - 1].score(std::string_view(spanned_).substr(begin)) * kSpanning;
  return cached;
}

float PathScorer::scoreWord(Word& word, bool simpleLine) {
  if (simpleLine && word.twin >= 0) return scoreWord(twins_[static_cast<size_t>(word.twin)], true);
  if (word.hasSlash) return word.tails[0].score(line_);
  const size_t characters = word.cuts.size() - 1;
  // Cuts from `first` to `last` put a subsequence of the word's end in the
  // file name and of its start in the directories.
  size_t first = 0;
  size_t last = characters;
  const bool fast = simpleLine && word.simple;
  size_t stemHeld = 0;  // how many of the word's last characters the stem holds
  heldPrefixes_.clear();
  if (fast) {
    first = characters - heldSuffix(word, file_);
    last = heldPrefix(word, Part{0, file_.begin});
    if (first > last) return 0.0f;
    stemHeld = heldSuffix(word, stem_);
  } else if (word.tails[0].score(line_) == 0.0f) {
    return 0.0f;
  }
  mapFor(word);
  // Lines in a row often share their directories (find lists a directory's
  // files together), and the directory scores depend only on them.
  const std::string_view directories = line_.substr(0, file_.begin);
  if (word.directories != directories) {
    word.directories.assign(directories);
    word.directoryScores.assign(characters + 1, -1.0f);
    word.spanningScores.assign(characters + 1, -1.0f);
  }
  const std::string_view mapped = mapped_;
  const std::string_view file = mapped.substr(file_.begin, file_.end - file_.begin);
  const std::string_view stem = mapped.substr(stem_.begin, stem_.end - stem_.begin);
  auto combined = [characters](size_t cut, float inFile, float inDirectories) {
    if (cut == 0) return inFile;
    if (cut == characters) return inDirectories * kDirectoryWeight * kDirectoryOnly;
    const auto fileLetters = static_cast<float>(characters - cut);
    const auto directoryLetters = static_cast<float>(cut);
    return (fileLetters * inFile + directoryLetters * kDirectoryWeight * inDirectories) /
           static_cast<float>(characters);
  };
  float best = 0.0f;
  spanning_.clear();
  for (size_t cut = first; cut <= last; ++cut) {
    // Every later cut puts fewer letters in the file name, so it can do no
    // better than this bound either.
    if (combined(cut, 1.0f, 1.0f) <= best) break;
    float inFile = 0.0f;
    if (cut < characters) {
      // A name whose stem holds the letters is scored by its stem: "ttk.tcl"
      // for "ttk" as "ttk" is.
      if (stem.size() == file.size()) {
        inFile = word.tails[cut].score(file);
      } else if (fast) {
        inFile = word.tails[cut].score(characters - cut <= stemHeld ? stem : file);
      } else {
        // Without the subsequence test, take the better of the two.
        inFile = std::max(word.tails[cut].score(stem), word.tails[cut].score(file));
      }
      if (inFile == 0.0f) continue;
    }
    if (cut == 0) {
      best = std::max(best, inFile);
      continue;
    }
    if (combined(cut, inFile, 1.0f) <= best) continue;
    const float inDirectories = directoryScore(word, cut, fast);
    if (inDirectories > 0.0f) {
      best = std::max(best, combined(cut, inFile, inDirectories));
    } else {
      spanning_.push_back({cut, inFile});
    }
  }
  // The cuts whose start no single directory name holds, last: most lines
  // that get here match better some other way, and the joined directories
  // are the longest text to score.
  for (const auto& [cut, inFile] : spanning_) {
    // A joined text never starts with a start of the word that no single
    // name holds, so it misses the score's prefix bonus: at most 0.8.
    if (combined(cut, inFile, 0.8f * kSpanning) <= best) continue;
    best = std::max(best, combined(cut, inFile, spanningScore(word, cut, fast)));
  }
  return best;
}

float PathScorer::score(std::string_view line) {
  if (words_.empty()) return 0.0f;
  // One pass tells whether the line is simple ASCII and rejects most lines: a
  // simple line that matches holds each word's ASCII equivalents in order.
  // The wanted id stays in a register and the rare match is a branch, so the
  // scan has no chain of loads from one byte to the next.
  bool simpleLine = true;
  const uint8_t* want = words_.front().skeleton.data();
  uint8_t wanted = *want;
  for (char c : line) {
    const uint8_t id = ids_[static_cast<unsigned char>(c)];
    if (id == 0) [[unlikely]] {
      simpleLine = false;
      break;
    }
    if (id == wanted) [[unlikely]]
      wanted = *++want;
  }
  if (simpleLine) {
    if (wanted != 0) return 0.0f;
    for (size_t i = 1; i < words_.size(); ++i) {
      want = words_[i].skeleton.data();
      wanted = *want;
      for (char c : line) {
        if (ids_[static_cast<unsigned char>(c)] == wanted) [[unlikely]]
          wanted = *++want;
      }
      if (wanted != 0) return 0.0f;
    }
  }
  line_ = line;

  // The parts: the file name is the last component; trailing slashes are left
  // out, and the directories are the non-empty components before it.
  size_t end = line.size();
  while (end > 1 && line[end - 1] == '/') --end;
  line_ = line.substr(0, end);
  const size_t slash = end > 0 ? line_.rfind('/', end - 1) : std::string_view::npos;
  file_ = (slash == std::string_view::npos || slash + 1 == end) ? Part{0, end} : Part{slash + 1, end};
  // An extension is up to 8 letters or digits after the last "." ("Dr. No"
  // has none).
  const size_t dot = line_.rfind('.');
  stem_ = file_;
  if (dot != std::string_view::npos && dot > file_.begin && end - dot - 1 >= 1 && end - dot - 1 <= 8 &&
      std::all_of(line_.begin() + static_cast<std::ptrdiff_t>(dot) + 1, line_.end(),
                  [](char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0; })) {
    stem_ = Part{file_.begin, dot};
  }
  directoriesSplit_ = false;
  mappedFor_ = -1;

  float total = 0.0f;
  for (Word& word : words_) {
    const float score = scoreWord(word, simpleLine);
    if (score == 0.0f) return 0.0f;
    total += score;
  }
  const float depth = static_cast<float>(file_.begin);
  return total / static_cast<float>(words_.size()) / (1.0f + kDepth * depth);
}

}  // namespace rank
