// File: SqliteSupport.h
// Small helpers the SQLite suites share: owning handles, statement preparation and the bounded
// quoting of names and keys in report lines.
#pragma once

#include <sqlite3.h>

#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

namespace orvane {

struct DatabaseCloser {
  void operator()(sqlite3* db) const { sqlite3_close_v2(db); }
};
using Database = std::unique_ptr<sqlite3, DatabaseCloser>;

struct StatementFinalizer {
  void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using Statement = std::unique_ptr<sqlite3_stmt, StatementFinalizer>;

// Null when the statement does not compile (the connection's error says why).
Statement prepareStatement(sqlite3* db, const char* sql);

// The statement's result code, extended.
int executeStatement(sqlite3* db, const char* sql);

// Keys come from callers and from disk; keeps a message one line and bounded.
std::string inQuotes(std::string_view text);

// "<file><suffix>": the log ("-wal") and the other files kept beside a suite file.
inline std::filesystem::path withSuffix(const std::filesystem::path& file, const char* suffix) {
  std::filesystem::path out = file;
  out += suffix;
  return out;
}

// Whether a result code means the file is not a sound database (damaged, truncated, garbage).
inline bool isDamageCode(int rc) {
  return (rc & 0xFF) == SQLITE_CORRUPT || (rc & 0xFF) == SQLITE_NOTADB;
}

// Whether a result code means another connection holds a lock we need.
inline bool isLockCode(int rc) {
  return (rc & 0xFF) == SQLITE_BUSY || (rc & 0xFF) == SQLITE_LOCKED;
}

}  // namespace orvane
