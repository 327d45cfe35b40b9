// Log lines handed to the host, which routes them to its own logging (a platform log, a
// bridge's logger, a test).
#include <exception>
#include <mutex>

#include "orvane/platform/SystemLog.h"

namespace orvane {
namespace {

class CallbackLog : public SystemLog {
 public:
  explicit CallbackLog(LogLineSink sink) : sink_(std::move(sink)) {}

  void write(LogLevel level, std::string_view line) override {
    if (!sink_) return;
    // Recursive: a sink that calls back into the SDK may log again on the same thread.
    std::lock_guard<std::recursive_mutex> guard(mutex_);
    try {
      sink_(level, line);
    } catch (...) {
      // Logging must never fail the operation that logs.
    }
  }

 private:
  const LogLineSink sink_;
  std::recursive_mutex mutex_;
};

}  // namespace

std::shared_ptr<SystemLog> makeCallbackLog(LogLineSink sink) {
  return std::make_shared<CallbackLog>(std::move(sink));
}

}  // namespace orvane
