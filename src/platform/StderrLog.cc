// Log lines to standard error, for hosts and tools that run in a terminal or under a
// service manager that collects stderr.
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>

#include "orvane/platform/SystemLog.h"

namespace orvane {
namespace {

class StderrLog : public SystemLog {
 public:
  StderrLog() : debugEnabled_(std::getenv("ORVANE_DEBUG_LOG") != nullptr) {}

  void write(LogLevel level, std::string_view line) override {
    if (level == LogLevel::kDebug && !debugEnabled_) return;
    std::string text;
    text.reserve(line.size() + 1);
    text.append(line);
    text.push_back('\n');
    // One fwrite per line under our own lock: lines from different threads never interleave,
    // even if a line is longer than what stdio writes in one go.
    std::lock_guard<std::mutex> guard(mutex_);
    std::fwrite(text.data(), 1, text.size(), stderr);
  }

 private:
  const bool debugEnabled_;
  std::mutex mutex_;
};

}  // namespace

std::shared_ptr<SystemLog> makeStderrLog() { return std::make_shared<StderrLog>(); }

}  // namespace orvane
