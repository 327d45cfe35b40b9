#include "platform/LevelFilteredLog.h"

#include <atomic>
#include <cstdlib>

namespace orvane {
namespace {

std::atomic<int>& threshold() {
  static std::atomic<int> level{static_cast<int>(
      std::getenv("ORVANE_DEBUG_LOG") != nullptr ? SdkLogLevel::kDebug : SdkLogLevel::kWarning)};
  return level;
}

// The least verbose setting that still shows a line of `level`.
SdkLogLevel settingThatShows(LogLevel level) {
  switch (level) {
    case LogLevel::kError:
      return SdkLogLevel::kError;
    case LogLevel::kDefault:
      return SdkLogLevel::kWarning;
    case LogLevel::kInfo:
      return SdkLogLevel::kInfo;
    case LogLevel::kDebug:
      return SdkLogLevel::kDebug;
  }
  return SdkLogLevel::kDebug;
}

class LevelFilteredLog final : public SystemLog {
 public:
  explicit LevelFilteredLog(std::shared_ptr<SystemLog> inner) : inner_(std::move(inner)) {}
  void write(LogLevel level, std::string_view line) override {
    if (static_cast<int>(settingThatShows(level)) <= threshold().load(std::memory_order_relaxed)) {
      inner_->write(level, line);
    }
  }

 private:
  const std::shared_ptr<SystemLog> inner_;
};

}  // namespace

std::shared_ptr<SystemLog> makeLevelFilteredLog(std::shared_ptr<SystemLog> inner) {
  if (!inner) return inner;
  return std::make_shared<LevelFilteredLog>(std::move(inner));
}

void setProcessLogLevel(SdkLogLevel level) {
  threshold().store(static_cast<int>(level), std::memory_order_relaxed);
}

SdkLogLevel processLogLevel() { return static_cast<SdkLogLevel>(threshold().load()); }

}  // namespace orvane
