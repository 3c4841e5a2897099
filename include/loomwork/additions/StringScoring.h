// Abbreviation scoring (LWStringScoring): how well a short typed search string
// matches a longer text as an abbreviation of it, as a number from 0 to 1 for
// ranking search results. Letters that begin words (after whitespace or "."),
// or capitals, count more than letters picked from the middle of words.
//
// Matching goes through rangeOfStringIgnoringCaseAndDiacritics (TextServices),
// so it ignores case and diacritics and follows the text locale. Positions and
// lengths count UTF-16 code units; the UTF-8 forms convert first (ill-formed
// bytes become U+FFFD) and still take their ranges in UTF-16 code units.
//
// Every score takes polynomial time: text and search string made only of plain
// ASCII take a direct path that gives the same result as the full search, and
// other text is scored with the results of the recursion memoised. All
// functions may be called from any thread.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "loomwork/platform/IndexSet.h"
#include "loomwork/platform/TextServices.h"

#pragma GCC visibility push(default)
namespace loomwork {

// The score of the search string against the text, from 0 to 1 (32-bit float):
// both are trimmed of whitespace (tab and space separators), then
// 0.8 × scoreForAbbreviationWithRanges over the whole of both, plus 0.2 when
// the text begins with the search string. 0 when either is empty or blank.
float scoreWithSearchString(std::string_view text, std::string_view searchString);
float scoreWithSearchString(std::u16string_view text, std::u16string_view searchString);

// The recursive abbreviation score of abbreviation[abbreviationRange] against
// text[textRange]: 0.9 for an empty abbreviation range, 0 when it does not
// match, else a value that rewards matched letters and penalises skipped ones.
// Throws Exception (out of range) when a range does not lie inside its string.
float scoreForAbbreviationWithRanges(std::u16string_view text, std::u16string_view abbreviation, IndexRange textRange,
                                     IndexRange abbreviationRange);
float scoreForAbbreviationWithRanges(std::string_view text, std::string_view abbreviation, IndexRange textRange,
                                     IndexRange abbreviationRange);

// Scores many texts against one search string, as scoreWithSearchString does,
// keeping the prepared search string and its scratch memory between calls. It
// takes the text locale's rules when it is made. One thread at a time.
class AbbreviationScorer {
 public:
  explicit AbbreviationScorer(std::string_view searchString);
  explicit AbbreviationScorer(std::u16string_view searchString);
  ~AbbreviationScorer();
  AbbreviationScorer(AbbreviationScorer&&) noexcept;
  AbbreviationScorer& operator=(AbbreviationScorer&&) noexcept;

  // scoreWithSearchString(text, searchString).
  float score(std::string_view text);
  float score(std::u16string_view text);

  struct State;

 private:
  std::unique_ptr<State> state_;
};

}  // namespace loomwork
#pragma GCC visibility pop
