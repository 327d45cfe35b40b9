#include "models/ABTestManager.h"

#include <gtest/gtest.h>

namespace orvane {
namespace {

const ABTestInformation kPreset{"preset_test", "preset_cohort"};

SourcedABTestInformation fromServer(std::string test, std::string cohort) {
  return {{std::move(test), std::move(cohort)}, ABTestInformationSource::kServer};
}

TEST(ABTestManagerTest, EachUpdateStatesTheWholeAssignment) {
  const std::map<std::string, ServerAssignmentInfo> flows = {{"home_screen", {"model_b", false}}};
  struct Case {
    const char* what;
    std::optional<ServerABTestInfo> info;
    std::optional<SourcedABTestInformation> expected;
    std::map<std::string, ServerAssignmentInfo> expectedFlows;
  };
  const std::vector<Case> cases = {
      {"full", ServerABTestInfo{flows, "c1", "t1"}, fromServer("t1", "c1"), flows},
      {"no flows", ServerABTestInfo{std::nullopt, "c1", "t1"}, fromServer("t1", "c1"), {}},
      {"cohort missing: preset", ServerABTestInfo{flows, std::nullopt, "t1"},
       SourcedABTestInformation{kPreset, ABTestInformationSource::kDefaultConfiguration}, flows},
      {"nothing: preset",
       std::nullopt,
       SourcedABTestInformation{kPreset, ABTestInformationSource::kDefaultConfiguration},
       {}},
  };
  for (const auto& c : cases) {
    ABTestManager manager(kPreset);
    // Start from a different server assignment so that every field has to be replaced.
    manager.applyABTestInfo(ServerABTestInfo{
        std::map<std::string, ServerAssignmentInfo>{{"old_flow", {"x", true}}}, "old", "old"});
    manager.applyABTestInfo(c.info);
    EXPECT_EQ(manager.getCurrentABTestInformation(), c.expected) << c.what;
    EXPECT_EQ(manager.currentFlowAssignments(), c.expectedFlows) << c.what;
  }
}

}  // namespace
}  // namespace orvane
