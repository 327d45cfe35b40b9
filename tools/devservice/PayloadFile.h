// File: PayloadFile.h
// The answer to uploads, read from a JSON file and read again whenever its modification time
// or size changes, so a test or a developer can change what devices receive while the service
// runs. The file is served exactly as written, even when the SDK would reject it (that is how
// its parse-failure path is exercised); such a file gets a warning on stderr.
#pragma once

#include <filesystem>
#include <mutex>
#include <optional>
#include <string>

namespace devservice {

class PayloadFile {
 public:
  struct Snapshot {
    std::string body;  // empty without a file: the upload is answered with an empty body
    std::optional<std::string> problem;  // why the SDK would not accept the body
    int loads = 0;                       // how many times the file was read
  };

  // An empty path: every upload is answered with an empty body.
  explicit PayloadFile(std::filesystem::path path);

  Snapshot current();

 private:
  std::filesystem::path path_;
  std::mutex mutex_;
  std::optional<std::filesystem::file_time_type> modified_;
  std::uintmax_t size_ = 0;
  Snapshot snapshot_;
};

}  // namespace devservice
