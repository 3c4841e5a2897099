// A SQLite VFS that wraps the default one and gathers the writes to a
// write-ahead log that SQLite makes for one commit into a single write call.
#pragma once

namespace loomwork::sqlite_detail {

// The name to open a database with (sqlite3_open_v2's last argument). The
// VFS is registered on the first call; it is never the default one.
const char* coalescingVfsName();

}  // namespace loomwork::sqlite_detail
