#include "models/ControlGrouper.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "models/Sha256TestCrypto.h"

namespace orvane {
namespace {

using testing::Sha256TestCrypto;

constexpr const char* kUuid = "E621E1F8-C36C-495A-93FC-0C247A3E6E5F";

std::string uuidNumber(int i) {
  char buffer[40];
  std::snprintf(buffer, sizeof buffer, "%08X-0000-4000-8000-%012d", i * 2654435761u, i);
  return buffer;
}

// Expected positions computed outside this code base:
//   w = int.from_bytes(hashlib.sha256((uuid + name).encode()).digest()[:4], "little")
//   x = w / 4294967295.0
struct Golden {
  const char* uuid;
  const char* name;
  double x;
};
constexpr Golden kGolden[] = {
    {kUuid, "error_reporting", 2521065988 / 4294967295.0},  // 0.58698...
    {kUuid, "home", 3812021324 / 4294967295.0},             // 0.88755...
    {"00000000-0000-0000-0000-000000000000", "paywall_main",
     429965785 / 4294967295.0},  // 0.10010...
    {"AAAAAAAA-BBBB-CCCC-DDDD-EEEEEEEEEEEE", "\xC3\xBCmlaut_flow", 722577992 / 4294967295.0},
};

TEST(ControlGrouperTest, GoldenPositionsAndAssignmentsAroundTheBound) {
  Sha256TestCrypto crypto;
  for (const auto& g : kGolden) {
    EXPECT_EQ(ControlGrouper::position(crypto, g.uuid, g.name), g.x) << g.name;
  }
  // paywall_main sits at 0.10010921...: a bound of 0.1 just misses it, 0.1002 just catches it.
  const char* zero = kGolden[2].uuid;
  EXPECT_FALSE(ControlGrouper::getGroupAssignment<bool>(crypto, zero, "paywall_main",
                                                        {{true, 0.1}, {false, 1.0}}));
  EXPECT_TRUE(ControlGrouper::getGroupAssignment<bool>(crypto, zero, "paywall_main",
                                                       {{true, 0.1002}, {false, 1.0}}));
  // error_reporting at 0.58698... over three groups lands in the middle one.
  EXPECT_EQ(ControlGrouper::getGroupAssignment<std::string>(crypto, kUuid, "error_reporting",
                                                            {{"a", 0.3}, {"b", 0.6}, {"c", 1.0}}),
            "b");
  // A bound exactly equal to the position owns it.
  const double x = kGolden[1].x;
  EXPECT_EQ(ControlGrouper::getGroupAssignment<int>(
                crypto, kUuid, "home", {{1, std::nextafter(x, 0.0)}, {2, x}, {3, 1.0}}),
            2);
}

TEST(ControlGrouperTest, OrderingAndFallbackRules) {
  Sha256TestCrypto crypto;
  // kUuid + "home" is at 0.8875...
  struct Case {
    const char* what;
    std::vector<ControlGroup<std::string>> groups;
    std::string expected;
  };
  const std::vector<Case> cases = {
      {"out of order is sorted first", {{"rest", 1.0}, {"top", 0.95}, {"low", 0.5}}, "top"},
      {"equal bounds keep input order", {{"first", 0.9}, {"second", 0.9}, {"rest", 1.0}}, "first"},
      {"equal bounds, other order", {{"second", 0.9}, {"first", 0.9}, {"rest", 1.0}}, "second"},
      {"all bounds below x: last sorted", {{"high", 0.8}, {"low", 0.1}}, "high"},
      {"zero bound never wins for x > 0", {{"never", 0.0}, {"always", 1.0}}, "always"},
      {"NaN bound is never reached", {{"nan", std::nan("")}, {"low", 0.2}}, "nan"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(ControlGrouper::getGroupAssignment(crypto, kUuid, "home", c.groups), c.expected)
        << c.what;
  }
}

TEST(ControlGrouperTest, SingleGroupSkipsHashingAndEmptyListGivesValueInitialised) {
  Sha256TestCrypto crypto;
  EXPECT_EQ(ControlGrouper::getGroupAssignment<int>(crypto, kUuid, "home", {{7, 0.0}}), 7);
  EXPECT_EQ(crypto.sha256Calls, 0);
  EXPECT_EQ(ControlGrouper::getGroupAssignment<int>(crypto, kUuid, "home",
                                                    std::vector<ControlGroup<int>>{}),
            0);
  EXPECT_EQ(ControlGrouper::getGroupAssignment<std::string>(
                crypto, kUuid, "home", std::vector<ControlGroup<std::string>>{}),
            "");
}

TEST(ControlGrouperTest, DrawsAreStablePerNameAndIndependentAcrossNames) {
  Sha256TestCrypto crypto;
  const std::vector<ControlGroup<bool>> groups = {{true, 0.3}, {false, 1.0}};
  constexpr int kInstallations = 4000;
  int inA = 0, inB = 0, inBoth = 0;
  for (int i = 0; i < kInstallations; ++i) {
    const std::string uuid = uuidNumber(i);
    const bool a = ControlGrouper::getGroupAssignment(crypto, uuid, "flow_a", groups);
    const bool b = ControlGrouper::getGroupAssignment(crypto, uuid, "flow_b", groups);
    ASSERT_EQ(a, ControlGrouper::getGroupAssignment(crypto, uuid, "flow_a", groups));
    // A group whose bound is 0 is empty.
    ASSERT_FALSE(ControlGrouper::getGroupAssignment<bool>(crypto, uuid, "flow_a",
                                                          {{true, 0.0}, {false, 1.0}}));
    inA += a;
    inB += b;
    inBoth += a && b;
  }
  // Share 0.3 each and 0.09 together if independent; tolerances are about 4 sigma.
  EXPECT_NEAR(inA / double(kInstallations), 0.3, 0.03);
  EXPECT_NEAR(inB / double(kInstallations), 0.3, 0.03);
  EXPECT_NEAR(inBoth / double(kInstallations), 0.09, 0.02);
}

}  // namespace
}  // namespace orvane
