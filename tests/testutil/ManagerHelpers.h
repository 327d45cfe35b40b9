// File: ManagerHelpers.h
// For suites that drive a Engine: a log sender that keeps what it receives, and model
// assignments stored the way the model store keeps them.
#pragma once

#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "api/Engine.h"
#include "util/UserDefaultsProvider.h"

namespace orvane::testing {

class SentLogs {
 public:
  LogSender sender() {
    return [this](std::shared_ptr<Log> log) {
      std::lock_guard<std::mutex> guard(mutex_);
      logs_.push_back(std::move(log));
    };
  }
  std::vector<std::shared_ptr<Log>> take() {
    std::lock_guard<std::mutex> guard(mutex_);
    return std::exchange(logs_, {});
  }

 private:
  std::mutex mutex_;
  std::vector<std::shared_ptr<Log>> logs_;
};

inline void storeFlowRecord(UserDefaultsProvider& defaults, const std::string& flow,
                            const std::string& json) {
  defaults.set("model_info_for_flow_" + flow, Bytes(json.begin(), json.end()));
}

// A control assignment whose chance decides alone (0: always no, 1: always yes).
inline std::string controlRecord(double chance, int64_t duration = 0) {
  return R"({"isControl":true,"useInstantContext":false,"supportedDuration":)" +
         std::to_string(duration) + R"(,"randomUpsellChance":)" + std::to_string(chance) + "}";
}

}  // namespace orvane::testing
