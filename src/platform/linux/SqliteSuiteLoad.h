// File: SqliteSuiteLoad.h
// Reading a suite file into memory at open: its connection set up for writing, every
// single-row value decoded, the arrays kept element by element named (their rows read at open
// or by the store's writer, and decoded when first needed: DeferredStoredArray.h). The check of
// the file's structure, which finds damage before anything is written over it, is the store's
// to run.
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
#include "platform/linux/DeferredStoredArray.h"
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

using StoredArrays = std::map<std::string, StoredArray, std::less<>>;
using DeferredArrays = std::map<std::string, std::shared_ptr<DeferredStoredArray>, std::less<>>;

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
  SuiteStatements statements;          // prepared by a full load only
  SuiteValues values;                  // without the arrays kept element by element
  std::vector<std::string> arrayKeys;  // those arrays
  bool full = false;                   // see SuiteLoadDepth
  DeferredArrays arrays;               // their rows, by a full load only
};

struct SuiteLoad {
  std::optional<LoadedSuite> loaded;
  // Why not, when nothing was loaded: the extended result code, what SQLite said and a line
  // for the sink.
  int code = SQLITE_OK;
  std::string detail;
  std::string error;
};

// Damage a full read does not notice (a bad overflow page holding the tail of one value, a
// broken index) shows here: SQLITE_CORRUPT and what was found. It reads the whole file once
// more, a few hundred microseconds for a queue of 100 records.
int checkSuiteStructure(sqlite3* db, std::string& finding);

// Reads the rows of every array kept element by element, not yet decoded.
int readArrayRows(sqlite3* db, const std::string& reportPrefix, DeferredArrays& arrays);

// What a load does. kOpening, on the thread that opens the suite, only what reading needs:
// the single-row values and the arrays' names. The store's writer then reads the arrays' rows
// and prepares the connection for writing (prepareSuiteWriting). kFull does everything.
enum class SuiteLoadDepth { kOpening, kFull };

// Tunes the connection for the writer and prepares its statements.
int prepareSuiteWriting(sqlite3* db, SuiteStatements& statements);

// Opens (creating when missing) and reads `file`. Single-row values that cannot be decoded are
// skipped, each with a line in `problems` (array elements say so when they are decoded); a file
// that a read finds damaged comes back unloaded with a damage code (isDamageCode) rather than
// partly read.
SuiteLoad loadSuiteFile(const std::filesystem::path& file, const std::string& reportPrefix,
                        const char* vfs, std::chrono::milliseconds busyTimeout,
                        std::vector<std::string>& problems, SuiteLoadDepth depth);

}  // namespace orvane
