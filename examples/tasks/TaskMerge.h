// The merge class of loomwork-tasks: where both devices changed one property
// of a task concurrently, the edit with the later "modified" date wins (the
// server's on a tie).
#pragma once

#include "loomwork/sync/OTMerge.h"

namespace loomwork::tasks {

class TaskMerge : public OTMerge {
 public:
  // The operation's "modified" property (a date, or a number of seconds);
  // absent for lists and for operations that carry none.
  std::optional<Date> modificationDateForEntityOperation(const UGEntityOperation& operation) const override {
    auto value = operation.valueForProperty("modified");
    if (!value) return std::nullopt;
    if (value->isDate()) return Date{value->dateValue()};
    if (value->isNumber()) return Date{value->doubleValue()};
    return std::nullopt;
  }
};

}  // namespace loomwork::tasks
