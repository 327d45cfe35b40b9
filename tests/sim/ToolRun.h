// File: ToolRun.h
// Running orvane-sim from a test, and reading one number back from the service's file.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <filesystem>
#include <string>

#include "testutil/ToolProcess.h"

namespace sim_testing {

using orvane::testing::Finished;
using orvane::testing::readText;
inline Finished run(const std::string& command) { return orvane::testing::runCommand(command); }

// The first column of the first row of `sql`, -1 when there is none.
inline int64_t queryNumber(const std::filesystem::path& database, const std::string& sql) {
  sqlite3* db = nullptr;
  int64_t value = -1;
  if (sqlite3_open_v2(database.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr) == SQLITE_OK &&
        sqlite3_step(statement) == SQLITE_ROW) {
      value = sqlite3_column_int64(statement, 0);
    }
    sqlite3_finalize(statement);
  }
  sqlite3_close(db);
  return value;
}

}  // namespace sim_testing
