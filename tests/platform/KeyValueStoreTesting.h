// File: KeyValueStoreTesting.h
// What the key-value store suites share: a temporary folder, a sink that keeps what the
// stores report, and SQL run on a suite file from outside the store.
#pragma once

#include <sqlite3.h>
#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "orvane/PlistValue.h"
#include "platform/linux/SqliteKeyValueStore.h"
#include "testutil/TemporaryDirectory.h"

namespace orvane::testing {

namespace fs = std::filesystem;

// Collects reports from whichever thread makes them.
struct ErrorLog {
  KeyValueStoreErrorSink sink() {
    return [this](std::string_view message) {
      std::lock_guard<std::mutex> guard(mutex);
      messages.emplace_back(message);
    };
  }
  bool mentions(std::string_view text) { return count(text) > 0; }
  size_t count(std::string_view text) {
    std::lock_guard<std::mutex> guard(mutex);
    return static_cast<size_t>(
        std::count_if(messages.begin(), messages.end(),
                      [&](const std::string& m) { return m.find(text) != std::string::npos; }));
  }
  std::mutex mutex;
  std::vector<std::string> messages;
};

// One statement on the suite's file through a connection of its own, as another process would
// run it; `blob` binds to ?1. Answers the first column of the first row, 0 without one, -1 on
// error. It waits out a lock the store's own writer holds for a moment, as another process would.
inline int64_t runSql(const fs::path& file, const std::string& sql, const Bytes& blob = {}) {
  sqlite3* db = nullptr;
  sqlite3_stmt* statement = nullptr;
  int64_t result = -1;
  if (sqlite3_open(file.c_str(), &db) == SQLITE_OK && sqlite3_busy_timeout(db, 5000) == SQLITE_OK &&
      sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr) == SQLITE_OK) {
    if (!blob.empty()) sqlite3_bind_blob(statement, 1, blob.data(), int(blob.size()), nullptr);
    const int rc = sqlite3_step(statement);
    result = rc == SQLITE_ROW ? sqlite3_column_int64(statement, 0) : rc == SQLITE_DONE ? 0 : -1;
  }
  sqlite3_finalize(statement);
  sqlite3_close(db);
  return result;
}

}  // namespace orvane::testing
