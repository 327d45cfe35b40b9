#include "PayloadFile.h"

#include <fstream>
#include <iostream>
#include <sstream>

#include "config/ServerPayload.h"

namespace devservice {

PayloadFile::PayloadFile(std::filesystem::path path) : path_(std::move(path)) {}

PayloadFile::Snapshot PayloadFile::current() {
  if (path_.empty()) return {};
  std::lock_guard<std::mutex> guard(mutex_);
  std::error_code error;
  const auto modified = std::filesystem::last_write_time(path_, error);
  const auto size = error ? 0 : std::filesystem::file_size(path_, error);
  if (error) {
    // A file being replaced may be missing for a moment: keep answering with the last one.
    if (!modified_) snapshot_.problem = "cannot read " + path_.string() + ": " + error.message();
    return snapshot_;
  }
  if (modified_ == modified && size_ == size) return snapshot_;

  std::ifstream in(path_, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  modified_ = modified;
  size_ = size;
  snapshot_.body = text.str();
  snapshot_.problem.reset();
  ++snapshot_.loads;
  std::string why;
  if (!snapshot_.body.empty() && !orvane::decodeServerPayload(snapshot_.body, &why)) {
    snapshot_.problem = why;
    std::cerr << "warning: " << path_.string() << " is not a payload the SDK accepts: " << why
              << "\n";
  }
  return snapshot_;
}

}  // namespace devservice
