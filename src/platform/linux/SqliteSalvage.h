// File: SqliteSalvage.h
// Reads what can still be read from a damaged suite file. A plain scan of a table stops at the
// first bad page; this one walks each table by rowid and, when a read fails, looks for the
// next rowid that reads again, so a bad leaf or overflow page costs only the rows on it. A bad
// interior page costs the rows under it, and a bad first page (the schema) costs everything.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "orvane/PlistValue.h"

namespace orvane {

struct SalvagedEntry {
  std::string key;
  Bytes value;
};

struct SalvagedElement {
  std::string key;
  int64_t position = 0;
  Bytes value;
};

struct SalvagedRows {
  std::vector<SalvagedEntry> entries;
  std::vector<SalvagedElement> elements;
  // Runs of rows skipped because they could not be read, and tables not readable at all.
  size_t unreadableRuns = 0;
  size_t unreadableTables = 0;
};

// Opens `file` (with its "-wal", as SQLite would) read-only through `vfs` (null: the default)
// and reads the rows of both tables of a suite. The file is left as it was.
SalvagedRows salvageSuiteRows(const std::filesystem::path& file, const char* vfs);

}  // namespace orvane
