// File: SqliteSuiteLoad.h
// Reading a suite file into memory at open: its connection set up for writing, every value
// decoded, the arrays kept element by element described row by row, and the file's structure
// checked so that damage is found before anything is written over it.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "orvane/PlistValue.h"
#include "platform/linux/SqliteSupport.h"

namespace orvane {

// How long a commit waits for another connection's lock: long enough to ride out another
// process checkpointing the same file, short enough that a synchronize() against a wedged file
// still comes back with an answer.
constexpr int kCommitBusyTimeoutMs = 2000;

// The two tables of a suite file.
extern const char* const kCreateEntriesTable;
extern const char* const kCreateArrayElementsTable;

using SuiteValues = std::map<std::string, std::shared_ptr<const PlistValue>, std::less<>>;

// What the file holds of one array kept element by element.
struct StoredArray {
  std::shared_ptr<const PlistValue> value;   // the array the rows spell out
  std::vector<int64_t> positions;            // one per element of `value`
  std::vector<int64_t> unreadablePositions;  // rows skipped at open, dropped on next write
};
using StoredArrays = std::map<std::string, StoredArray, std::less<>>;

struct SuiteStatements {
  Statement upsert;
  Statement erase;
  Statement insertElement;
  Statement eraseElement;
  Statement eraseElements;
};

struct LoadedSuite {
  // The statements go before the connection closes (members die in reverse order).
  Database db;
  SuiteStatements statements;
  SuiteValues values;
  StoredArrays arrays;
};

struct SuiteLoad {
  std::optional<LoadedSuite> loaded;
  // Why not, when nothing was loaded: the extended result code, what SQLite said and a line
  // for the sink.
  int code = SQLITE_OK;
  std::string detail;
  std::string error;
};

// Opens (creating when missing) and reads `file`. Rows whose value cannot be decoded are
// skipped, each with a line in `problems`; a file that is damaged comes back unloaded with a
// damage code (isDamageCode) rather than partly read.
SuiteLoad loadSuiteFile(const std::filesystem::path& file, const std::string& reportPrefix,
                        const char* vfs, std::chrono::milliseconds busyTimeout,
                        std::vector<std::string>& problems);

}  // namespace orvane
