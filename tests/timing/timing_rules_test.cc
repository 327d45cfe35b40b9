#include "timing/Timing.h"

#include <gtest/gtest.h>

#include "testutil/FakePlatform.h"

namespace orvane {
namespace {

using testing::RecordingErrorReporter;

ServerTimingConfiguration rules(std::optional<ServerTiming> atLeastEvery,
                                std::optional<ServerTiming> atMostOncePer,
                                std::optional<double> skew = std::nullopt) {
  return ServerTimingConfiguration{std::move(atLeastEvery), skew, std::move(atMostOncePer)};
}

TEST(TimingConversionTest, RejectedTimingsAreReportedWithWhatWasSent) {
  struct Row {
    ServerTimingConfiguration rules;
    const char* message;
    PlistDictionary data;
  };
  const Row rows[] = {
      {rules(ServerTiming{"hours", 0}, {}),
       "Received invalid timing value",
       {{"value", 0.0}, {"unit", "hours"}}},
      {rules({}, ServerTiming{"days", -1}),
       "Received invalid timing value",
       {{"value", -1.0}, {"unit", "days"}}},
      {rules(ServerTiming{"executions", 0.5}, {}),
       "Received invalid timing value",
       {{"value", 0.5}, {"unit", "executions"}}},
      {rules(ServerTiming{"weeks", 2}, {}),
       "Failed to convert server timing to client timing",
       {{"unit", "weeks"}}},
      {rules(ServerTiming{"executions", 5}, ServerTiming{"hours", 1}),
       "Received incompatible timing units",
       {{"atLeastEveryUnit", "executions"}, {"atMostOncePerUnit", "hours"}}},
      {rules(ServerTiming{"hours", 23}, ServerTiming{"days", 1}),
       "Received incompatible timings",
       {{"atLeastEveryValue", 23.0},
        {"atLeastEveryUnit", "hours"},
        {"atMostOncePerValue", 1.0},
        {"atMostOncePerUnit", "days"}}},
  };
  for (const Row& row : rows) {
    RecordingErrorReporter reporter;
    EXPECT_EQ(toClient(row.rules, reporter), std::nullopt) << row.message;
    ASSERT_EQ(reporter.reports().size(), 1u) << row.message;
    EXPECT_EQ(reporter.reports()[0].message, row.message);
    EXPECT_EQ(reporter.reports()[0].additionalData, row.data) << row.message;
  }
}

TEST(TimingConversionTest, AcceptedRulesKeepTheirSkewOrFallBackToUniform) {
  RecordingErrorReporter reporter;
  // Equal spans in different units hold together.
  EXPECT_EQ(
      toClient(rules(ServerTiming{"hours", 24}, ServerTiming{"days", 1}, 2.5), reporter),
      (FlowTimingConfiguration{Timing{TimingUnit::kHours, 24}, 2.5, Timing{TimingUnit::kDays, 1}}));
  // One unusable rule leaves the other; a missing skew is uniform.
  EXPECT_EQ(toClient(rules(ServerTiming{"days", 0}, ServerTiming{"executions", 2.9}), reporter),
            (FlowTimingConfiguration{{}, 1.0, Timing{TimingUnit::kExecutions, 2.9}}));
  EXPECT_EQ(reporter.reports().size(), 1u);
  // A negative skew would put the act-by point outside the window.
  EXPECT_EQ(toClient(rules(ServerTiming{"days", 1}, {}, -2), reporter)->actBySkew, 1.0);
  EXPECT_EQ(reporter.reports().size(), 2u);
  EXPECT_EQ(toClient(rules({}, {}, 2), reporter), std::nullopt);
}

}  // namespace
}  // namespace orvane
