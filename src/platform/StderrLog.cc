// Log lines to standard error, for hosts and tools that run in a terminal or under a
// service manager that collects stderr.
#include <cstdio>
#include <mutex>
#include <string>

#include "orvane/platform/SystemLog.h"

namespace orvane {
namespace {

class StderrLog : public SystemLog {
 public:
  // Every line it is given: the host's log level filters before lines get here.
  void write(LogLevel, std::string_view line) override {
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
  std::mutex mutex_;
};

}  // namespace

std::shared_ptr<SystemLog> makeStderrLog() { return std::make_shared<StderrLog>(); }

}  // namespace orvane
