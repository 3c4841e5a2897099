// loomwork-listdiff: prints the change between two lists as a list transform
// and replays it one valid step at a time.
//
//   loomwork-listdiff "a b c d" "b c d a"
//   loomwork-listdiff a,b,c,d b,c,d,a
#include <cstdio>
#include <iostream>
#include <sstream>
#include <string>

#include "loomwork/listtransform.h"

using namespace loomwork;

namespace {

// Splits on commas when the text has any, else on white space.
Array parseList(const std::string& text) {
  Array list;
  const bool commas = text.find(',') != std::string::npos;
  std::string element;
  auto flush = [&] {
    if (!element.empty() || commas) list.push_back(Value(element));
    element.clear();
  };
  for (char c : text) {
    if (commas ? c == ',' : (c == ' ' || c == '\t' || c == '\n')) {
      flush();
    } else {
      element += c;
    }
  }
  if (!element.empty() || (commas && !text.empty())) flush();
  return list;
}

void usage() {
  std::fprintf(stderr,
               "usage: loomwork-listdiff OLD NEW\n"
               "  OLD and NEW are lists of words (\"a b c\") or comma-separated items (\"a,b,c\").\n"
               "  Prints the list transform from OLD to NEW and its single steps.\n");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    usage();
    return 2;
  }
  const Array oldList = parseList(argv[1]);
  const Array newList = parseList(argv[2]);
  auto transform = transformForTransitioningFromArrayToArrayObjectComparison(oldList, newList,
                                                                             UGListTransformObjectComparisonEquality);

  std::cout << "old: " << Value(oldList).description() << "\n";
  std::cout << "new: " << Value(newList).description() << "\n\n";
  std::cout << transform->description() << "\n";

  // Replay the single steps on a copy of the old list; each index is valid
  // when its step is made.
  Array list = oldList;
  std::cout << "steps:\n";
  auto show = [&list] { std::cout << "      " << Value(list).description() << "\n"; };
  transform->enumerateTransformAsLinearizedDeletionsMovesInsertions(
      [&](int64_t index) {
        std::cout << "  delete " << index << "\n";
        list.erase(list.begin() + index);
        show();
      },
      [&](int64_t from, int64_t to) {
        std::cout << "  move " << from << " -> " << to << "\n";
        Value moved = list[static_cast<size_t>(from)];
        list.erase(list.begin() + from);
        list.insert(list.begin() + to, moved);
        show();
      },
      [&](int64_t index) {
        // The insertion step carries no object; the transform's insertion at
        // that final index does.
        Value inserted;
        for (const auto& item : transform->insertions()) {
          if (item->index() == index) inserted = item->object().value_or(Value::null());
        }
        std::cout << "  insert " << index << " (" << inserted.description() << ")\n";
        list.insert(list.begin() + index, inserted);
        show();
      });
  const bool reached = list == newList;
  std::cout << (reached ? "reached the new list\n" : "did NOT reach the new list\n");
  return reached ? 0 : 1;
}
