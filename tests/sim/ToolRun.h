// File: ToolRun.h
// Running orvane-sim from a test, and reading one number back from the service's file.
#pragma once

#include <sqlite3.h>
#include <sys/wait.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace sim_testing {

struct Finished {
  int status = -1;
  std::string output;
};

// `command` through the shell, with its stdout and stderr.
inline Finished run(const std::string& command) {
  Finished finished;
  FILE* pipe = popen((command + " 2>&1").c_str(), "r");
  if (!pipe) return finished;
  char buffer[4096];
  size_t n;
  while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) finished.output.append(buffer, n);
  const int status = pclose(pipe);
  finished.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return finished;
}

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

inline std::string readFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

}  // namespace sim_testing
