// File: TemporaryDirectory.h
// A fresh folder of its own under the system's temporary directory, removed with everything in
// it at the end. Unique per instance: ctest runs the cases of one suite in parallel processes.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <stdexcept>
#include <string>

namespace orvane::testing {

class TemporaryDirectory {
 public:
  explicit TemporaryDirectory(const std::string& prefix = "orvane-test") {
    std::string pattern = (std::filesystem::temp_directory_path() / (prefix + "-XXXXXX")).string();
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
  }
  ~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

}  // namespace orvane::testing
