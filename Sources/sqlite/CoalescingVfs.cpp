#include "CoalescingVfs.h"

#include <sqlite3.h>

#include <cstdlib>
#include <cstring>
#include <mutex>

// SQLite appends each frame of the write-ahead log with two write calls, its
// 24-byte header and then its page, so a commit that changes six pages costs
// twelve system calls. Here the log's file keeps appended bytes in a buffer
// and writes them with one call when the commit frame's page has arrived: the
// commit is in the file before SQLite goes on, as without the buffer, and a
// process killed earlier leaves no more of the commit than SQLite's own
// writes would (the log's checksums end it at the last whole commit). Every
// other call on the log (read, size, truncate, sync, close, file controls)
// writes the buffer first, so the file is never seen without it. The
// database file and every other file go straight to the wrapped VFS.

namespace loomwork::sqlite_detail {

namespace {

constexpr int kFrameHeaderSize = 24;
// The unix VFS writes at most 128 KiB - 1 bytes in one call; a buffer never
// holds more than this.
constexpr size_t kBufferLimit = size_t{1} << 16;

struct LogFile {
  sqlite3_file base;
  sqlite3_file* real;
  unsigned char* buffer;
  size_t capacity;
  size_t length;
  sqlite3_int64 offset;  // where buffer[0] goes
  bool commitFrameStarted;
};

constexpr size_t realOffset() { return (sizeof(LogFile) + 15) & ~size_t{15}; }

sqlite3_vfs* wrapped = nullptr;

int flush(LogFile* file) {
  if (file->length == 0) return SQLITE_OK;
  const int rc =
      file->real->pMethods->xWrite(file->real, file->buffer, static_cast<int>(file->length), file->offset);

  file->length = 0;
  return rc;
}

bool append(LogFile* file, const void* data, int amount, sqlite3_int64 offset) {
  const auto size = static_cast<size_t>(amount);
  if (file->length > 0 && offset != file->offset + static_cast<sqlite3_int64>(file->length)) return false;
  if (file->length + size > kBufferLimit) return false;
  if (file->length + size > file->capacity) {
    size_t capacity = file->capacity ? file->capacity : 8192;
    while (capacity < file->length + size) capacity *= 2;
    auto* grown = static_cast<unsigned char*>(std::realloc(file->buffer, capacity));
    if (!grown) return false;
    file->buffer = grown;
    file->capacity = capacity;
  }
  if (file->length == 0) file->offset = offset;
  std::memcpy(file->buffer + file->length, data, size);
  file->length += size;
  return true;
}

LogFile* logFile(sqlite3_file* file) { return reinterpret_cast<LogFile*>(file); }

int logClose(sqlite3_file* file) {
  LogFile* log = logFile(file);
  const int flushed = flush(log);
  const int closed = log->real->pMethods ? log->real->pMethods->xClose(log->real) : SQLITE_OK;
  std::free(log->buffer);
  log->buffer = nullptr;
  log->capacity = 0;
  return flushed != SQLITE_OK ? flushed : closed;
}

int logRead(sqlite3_file* file, void* data, int amount, sqlite3_int64 offset) {
  LogFile* log = logFile(file);
  if (const int rc = flush(log); rc != SQLITE_OK) return rc;
  return log->real->pMethods->xRead(log->real, data, amount, offset);
}

int logWrite(sqlite3_file* file, const void* data, int amount, sqlite3_int64 offset) {
  LogFile* log = logFile(file);

  const bool commitPage = log->commitFrameStarted;
  log->commitFrameStarted = false;
  if (!append(log, data, amount, offset)) {
    if (const int rc = flush(log); rc != SQLITE_OK) return rc;
    if (!append(log, data, amount, offset)) return log->real->pMethods->xWrite(log->real, data, amount, offset);
  }
  if (commitPage) return flush(log);
  // A frame header whose second word (the database size after the commit) is
  // not zero starts the last frame of a commit.
  if (amount == kFrameHeaderSize) {
    const auto* bytes = static_cast<const unsigned char*>(data);
    log->commitFrameStarted = (bytes[4] | bytes[5] | bytes[6] | bytes[7]) != 0;
  }
  return SQLITE_OK;
}

int logTruncate(sqlite3_file* file, sqlite3_int64 size) {
  LogFile* log = logFile(file);
  if (const int rc = flush(log); rc != SQLITE_OK) return rc;
  return log->real->pMethods->xTruncate(log->real, size);
}

int logSync(sqlite3_file* file, int flags) {
  LogFile* log = logFile(file);
  if (const int rc = flush(log); rc != SQLITE_OK) return rc;
  return log->real->pMethods->xSync(log->real, flags);
}

int logFileSize(sqlite3_file* file, sqlite3_int64* size) {
  LogFile* log = logFile(file);
  if (const int rc = flush(log); rc != SQLITE_OK) return rc;
  return log->real->pMethods->xFileSize(log->real, size);
}

int logLock(sqlite3_file* file, int level) { return logFile(file)->real->pMethods->xLock(logFile(file)->real, level); }
int logUnlock(sqlite3_file* file, int level) {
  return logFile(file)->real->pMethods->xUnlock(logFile(file)->real, level);
}
int logCheckReservedLock(sqlite3_file* file, int* out) {
  return logFile(file)->real->pMethods->xCheckReservedLock(logFile(file)->real, out);
}
int logFileControl(sqlite3_file* file, int op, void* argument) {
  LogFile* log = logFile(file);
  if (const int rc = flush(log); rc != SQLITE_OK) return rc;
  return log->real->pMethods->xFileControl(log->real, op, argument);
}
int logSectorSize(sqlite3_file* file) { return logFile(file)->real->pMethods->xSectorSize(logFile(file)->real); }
int logDeviceCharacteristics(sqlite3_file* file) {
  return logFile(file)->real->pMethods->xDeviceCharacteristics(logFile(file)->real);
}

// Version 1: SQLite maps and shares memory through the database file, never
// through its log.
const sqlite3_io_methods kLogMethods = {
    1,        logClose,         logRead,        logWrite,       logTruncate,
    logSync,  logFileSize,      logLock,        logUnlock,      logCheckReservedLock,
    logFileControl, logSectorSize, logDeviceCharacteristics,
    nullptr,  nullptr,          nullptr,        nullptr,        nullptr,
    nullptr};

int vfsOpen(sqlite3_vfs*, const char* name, sqlite3_file* file, int flags, int* outFlags) {
  if (!(flags & SQLITE_OPEN_WAL)) return wrapped->xOpen(wrapped, name, file, flags, outFlags);
  LogFile* log = logFile(file);
  std::memset(log, 0, sizeof(LogFile));
  log->real = reinterpret_cast<sqlite3_file*>(reinterpret_cast<char*>(file) + realOffset());
  std::memset(log->real, 0, static_cast<size_t>(wrapped->szOsFile));
  const int rc = wrapped->xOpen(wrapped, name, log->real, flags, outFlags);
  if (rc != SQLITE_OK) {
    if (log->real->pMethods) log->real->pMethods->xClose(log->real);
    log->base.pMethods = nullptr;
    return rc;
  }
  log->base.pMethods = &kLogMethods;
  return SQLITE_OK;
}

int vfsDelete(sqlite3_vfs*, const char* name, int syncDirectory) {
  return wrapped->xDelete(wrapped, name, syncDirectory);
}
int vfsAccess(sqlite3_vfs*, const char* name, int flags, int* out) {
  return wrapped->xAccess(wrapped, name, flags, out);
}
int vfsFullPathname(sqlite3_vfs*, const char* name, int size, char* out) {
  return wrapped->xFullPathname(wrapped, name, size, out);
}
void* vfsDlOpen(sqlite3_vfs*, const char* name) { return wrapped->xDlOpen(wrapped, name); }
void vfsDlError(sqlite3_vfs*, int size, char* out) { wrapped->xDlError(wrapped, size, out); }
void (*vfsDlSym(sqlite3_vfs*, void* handle, const char* symbol))(void) {
  return wrapped->xDlSym(wrapped, handle, symbol);
}
void vfsDlClose(sqlite3_vfs*, void* handle) { wrapped->xDlClose(wrapped, handle); }
int vfsRandomness(sqlite3_vfs*, int size, char* out) { return wrapped->xRandomness(wrapped, size, out); }
int vfsSleep(sqlite3_vfs*, int microseconds) { return wrapped->xSleep(wrapped, microseconds); }
int vfsCurrentTime(sqlite3_vfs*, double* out) { return wrapped->xCurrentTime(wrapped, out); }
int vfsGetLastError(sqlite3_vfs*, int size, char* out) {
  return wrapped->xGetLastError ? wrapped->xGetLastError(wrapped, size, out) : 0;
}
int vfsCurrentTimeInt64(sqlite3_vfs*, sqlite3_int64* out) {
  if (wrapped->iVersion >= 2 && wrapped->xCurrentTimeInt64) return wrapped->xCurrentTimeInt64(wrapped, out);
  double days = 0;
  const int rc = wrapped->xCurrentTime(wrapped, &days);
  *out = static_cast<sqlite3_int64>(days * 86400000.0);
  return rc;
}

sqlite3_vfs vfs{};

}  // namespace

const char* coalescingVfsName() {
  static std::once_flag once;
  static const char* name = nullptr;
  std::call_once(once, [] {
    wrapped = sqlite3_vfs_find(nullptr);
    if (!wrapped) return;
    vfs.iVersion = 2;
    vfs.szOsFile = static_cast<int>(realOffset()) + wrapped->szOsFile;
    vfs.mxPathname = wrapped->mxPathname;
    vfs.zName = "loomwork-coalescing-log";
    vfs.xOpen = vfsOpen;
    vfs.xDelete = vfsDelete;
    vfs.xAccess = vfsAccess;
    vfs.xFullPathname = vfsFullPathname;
    vfs.xDlOpen = vfsDlOpen;
    vfs.xDlError = vfsDlError;
    vfs.xDlSym = vfsDlSym;
    vfs.xDlClose = vfsDlClose;
    vfs.xRandomness = vfsRandomness;
    vfs.xSleep = vfsSleep;
    vfs.xCurrentTime = vfsCurrentTime;
    vfs.xGetLastError = vfsGetLastError;
    vfs.xCurrentTimeInt64 = vfsCurrentTimeInt64;
    if (sqlite3_vfs_register(&vfs, 0) == SQLITE_OK) name = vfs.zName;
  });
  return name;
}

}  // namespace loomwork::sqlite_detail
