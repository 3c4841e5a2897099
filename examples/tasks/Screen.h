// The terminal screen of loomwork-tasks: the device's lists as sections of
// rows, a search line, the selected task's notes with their links, and a
// status line with the sync state.
#pragma once

#include <asio.hpp>

#include "Device.h"

namespace loomwork::tasks {

// The screen's keys, one per line, as --help prints them.
extern const char* const kScreenKeysHelp;

// Runs the screen on the terminal of stdin/stdout until the user quits: reads
// keys through the context (no thread of its own), commits the user's edits
// on the device, and shows every change of the rows as the rows' transform
// replayed onto the screen's lines. Runs the context; returns an exit code.
int runScreen(Device& device, asio::io_context& context);

}  // namespace loomwork::tasks
