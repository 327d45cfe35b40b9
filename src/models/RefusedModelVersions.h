// File: RefusedModelVersions.h
// The model versions a flow refused: ones whose outputs the decision cannot read, of a kind
// or format version the runtime never runs. The service keeps naming such a version with
// every upload answer until it assigns another; remembering the refusal keeps the device from
// downloading the same file again each time. Kept in the defaults suite, per flow, so it
// survives restarts and goes with the rest of the SDK's data on an erase.
#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "util/UserDefaultsProvider.h"

namespace orvane {

class RefusedModelVersions {
 public:
  static constexpr const char* kKeyPrefix = "refused_model_versions_for_flow_";
  // The newest refusals per flow; an older one is tried again if the service returns to it.
  static constexpr size_t kKeptPerFlow = 8;

  explicit RefusedModelVersions(std::shared_ptr<UserDefaultsProvider> defaults)
      : defaults_(std::move(defaults)) {}

  bool isRefused(const std::string& flowName, const std::string& modelVersion) const;
  // Safe from any thread: the update queue and context creation both refuse models.
  void remember(const std::string& flowName, const std::string& modelVersion);

 private:
  bool available() const { return defaults_ && defaults_->isAvailable(); }

  std::shared_ptr<UserDefaultsProvider> defaults_;
  std::mutex writing_;
};

}  // namespace orvane
