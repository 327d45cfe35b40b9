#include "models/ABTestManager.h"

#include <utility>

namespace orvane {

namespace {

std::optional<SourcedABTestInformation> fromDefault(const std::optional<ABTestInformation>& info) {
  if (!info) return std::nullopt;
  return SourcedABTestInformation{*info, ABTestInformationSource::kDefaultConfiguration};
}

}  // namespace

ABTestManager::ABTestManager(std::optional<ABTestInformation> defaultInformation)
    : defaultInformation_(std::move(defaultInformation)),
      current_(fromDefault(defaultInformation_)) {}

std::optional<SourcedABTestInformation> ABTestManager::getCurrentABTestInformation() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return current_;
}

std::map<std::string, ServerAssignmentInfo> ABTestManager::currentFlowAssignments() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return flowAssignments_;
}

void ABTestManager::setABTestInformation(std::string testName, std::string cohortName) {
  std::lock_guard<std::mutex> guard(mutex_);
  current_ = SourcedABTestInformation{{std::move(testName), std::move(cohortName)},
                                      ABTestInformationSource::kServer};
}

void ABTestManager::applyABTestInfo(const std::optional<ServerABTestInfo>& info) {
  std::optional<SourcedABTestInformation> next = fromDefault(defaultInformation_);
  std::map<std::string, ServerAssignmentInfo> assignments;
  if (info) {
    if (info->testName && info->cohort) {
      next = SourcedABTestInformation{{*info->testName, *info->cohort},
                                      ABTestInformationSource::kServer};
    }
    if (info->assignmentsByFlow) assignments = *info->assignmentsByFlow;
  }
  std::lock_guard<std::mutex> guard(mutex_);
  current_ = std::move(next);
  flowAssignments_ = std::move(assignments);
}

}  // namespace orvane
