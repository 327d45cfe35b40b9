// File: ABTestManager.h
// Which A/B test and cohort this installation is in, and the per-flow assignments the
// service made for it. The host may preset a test through its configuration; the service's
// update payload replaces it. Only held in memory: after a restart the preset applies again
// until the next update that carries A/B test information.
#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "config/ServerPayload.h"
#include "orvane/ABTestInformation.h"

namespace orvane {

enum class ABTestInformationSource {
  kDefaultConfiguration,  // preset by the host app
  kServer,                // assigned by the service
};

struct SourcedABTestInformation {
  ABTestInformation information;
  ABTestInformationSource source = ABTestInformationSource::kDefaultConfiguration;

  bool operator==(const SourcedABTestInformation&) const = default;
};

class ABTestManager {
 public:
  explicit ABTestManager(std::optional<ABTestInformation> defaultInformation = std::nullopt);
  ABTestManager(const ABTestManager&) = delete;
  ABTestManager& operator=(const ABTestManager&) = delete;

  std::optional<SourcedABTestInformation> getCurrentABTestInformation() const;
  std::map<std::string, ServerAssignmentInfo> currentFlowAssignments() const;

  // Records an assignment made by the service.
  void setABTestInformation(std::string testName, std::string cohortName);

  // Adopts the A/B test part of an update payload. Each update states the whole assignment:
  // no A/B test information, or one without both a test name and a cohort, puts the
  // installation back on the host's preset (if any); flow assignments are replaced by the
  // ones sent, or cleared when none are sent.
  void applyABTestInfo(const std::optional<ServerABTestInfo>& info);

 private:
  const std::optional<ABTestInformation> defaultInformation_;
  mutable std::mutex mutex_;
  std::optional<SourcedABTestInformation> current_;              // guarded by mutex_
  std::map<std::string, ServerAssignmentInfo> flowAssignments_;  // guarded by mutex_
};

}  // namespace orvane
