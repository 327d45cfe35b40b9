// File: Storage.h
// Everything the service received, in one SQLite file: an upload row per request, an event
// row per record it carried (so a record sent twice shows up twice), an error-report row per
// report. Each upload keeps the arm its installation is in. Safe to call from the server's
// worker threads.
#pragma once

#include <sqlite3.h>

#include <mutex>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

namespace devservice {

class Storage {
 public:
  // Throws std::runtime_error when the file cannot be opened or the tables created.
  explicit Storage(const std::string& path);
  ~Storage();
  Storage(const Storage&) = delete;
  Storage& operator=(const Storage&) = delete;

  // `body` is the request as received; it is stored even when it is not the expected JSON.
  // `answered` is the status sent back, none when the connection was broken on purpose.
  // `arm` is which file the installation is answered with. Returns the upload's request number.
  int64_t addUpload(const std::string& body, std::optional<int> answered, const std::string& arm);
  int64_t addErrorReport(const std::string& body);

  // Counts, uploads, events, error reports and the log identifiers seen more than once.
  nlohmann::json listing();
  // Per arm: uploads, distinct installations and events received.
  nlohmann::json armCounts();

 private:
  void exec(const char* sql);
  nlohmann::json armCountsLocked();

  std::mutex mutex_;
  sqlite3* db_ = nullptr;
};

}  // namespace devservice
