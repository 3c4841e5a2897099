// Draws a device's state space as an SVG picture: every stored path
// component as an arrow on the (server index, client index) grid, the current
// state and the state the other device last claimed marked, with a legend.
#pragma once

#include <string>

namespace loomwork::tasks {

// Reads the SQLite file at `databasePath` and returns the picture; throws
// loomwork::OTSQLiteError when the file cannot be read.
std::string stateSpaceSVG(const std::string& databasePath);
// Escapes text for SVG character data and attribute values.
std::string escapeXML(const std::string& text);

}  // namespace loomwork::tasks
