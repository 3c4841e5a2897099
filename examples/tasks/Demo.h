// The scripted session of `loomwork-tasks demo`: a server and a client as two
// child processes on loopback, edits on both while disconnected (one task
// edited on both sides, one deleted on one side and edited on the other),
// reconnection, and after each step both devices' rows side by side with the
// transforms that moved them. Returns 0 when both end with the same tasks.
#pragma once

#include <string>

namespace loomwork::tasks {

int runDemo(const std::string& program);

}  // namespace loomwork::tasks
