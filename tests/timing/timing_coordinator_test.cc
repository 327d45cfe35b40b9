#include "timing/TimingCoordinator.h"

#include <thread>

#include <gtest/gtest.h>

#include "testutil/FakePlatform.h"

namespace orvane {
namespace {

using testing::FakeRandomSource;
using testing::RecordingErrorReporter;
using Flows = std::map<std::string, ServerTimingConfiguration>;

constexpr double kT0 = 1'700'000'000.0;
constexpr double kHour = 3600;
constexpr auto kMust = TimingDecision::kMustAct;
constexpr auto kFollow = TimingDecision::kFollowModel;
constexpr auto kBlocked = TimingDecision::kBlocked;

ServerTimingConfiguration rules(std::optional<ServerTiming> atLeastEvery,
                                std::optional<ServerTiming> atMostOncePer,
                                std::optional<double> skew = std::nullopt) {
  return ServerTimingConfiguration{std::move(atLeastEvery), skew, std::move(atMostOncePer)};
}

std::map<std::string, ServerModelInfo> payload(const Flows& flows) {
  std::map<std::string, ServerModelInfo> result;
  for (const auto& [flow, timing] : flows) result[flow].timingConfiguration = timing;
  return result;
}

// The values of every signal with `id`, in order.
std::vector<SignalValue> valuesOf(const CooldownResult& result, uint16_t id) {
  std::vector<SignalValue> values;
  for (const Signal& signal : result.signals) {
    if (signal.id().rawValue() == id) values.push_back(signal.value());
  }
  return values;
}
int64_t number(const CooldownResult& r) { return std::get<int64_t>(valuesOf(r, 653).at(0)); }
std::string windowId(const CooldownResult& r) {
  return std::get<std::string>(valuesOf(r, 657).at(0));
}

class TimingCoordinatorTest : public ::testing::Test {
 protected:
  std::unique_ptr<TimingCoordinator> make(std::shared_ptr<UserDefaultsProvider> defaults,
                                          RecordingErrorReporter& reporter) {
    return std::make_unique<TimingCoordinator>(
        std::move(defaults), dates_, random_, [&reporter]() -> ErrorReporter& { return reporter; });
  }
  std::unique_ptr<TimingCoordinator> make() { return make(defaults_, reporter_); }
  void at(double seconds) { dates_->setStubDate(Date{seconds}); }
  void apply(const Flows& flows) { c_->applyLatestConfiguration(payload(flows)); }
  CooldownResult ask(const std::string& flow = "f") { return c_->performCooldownCalculation(flow); }
  std::vector<TimingDecision> decisions(int count) {
    std::vector<TimingDecision> out;
    for (int i = 0; i < count; ++i) out.push_back(ask().decision);
    return out;
  }
  void shown(const std::string& flow = "f") { c_->markCurrentWindowExecuted(flow); }

  std::shared_ptr<KeyValueStore> store_ =
      makeInMemoryKeyValueStoreProvider()->openSuite("com.orvane.ads");
  std::shared_ptr<UserDefaultsProvider> defaults_ = std::make_shared<UserDefaultsProvider>(store_);
  std::shared_ptr<StubDateProvider> dates_ = std::make_shared<StubDateProvider>(Date{kT0});
  std::shared_ptr<FakeRandomSource> random_ = std::make_shared<FakeRandomSource>();
  RecordingErrorReporter reporter_;
  std::unique_ptr<TimingCoordinator> c_ = make();
};

TEST_F(TimingCoordinatorTest, WorkedExampleOfOnceADayAtLeastEveryThreeDays) {
  apply({{"f", rules(ServerTiming{"days", 3}, ServerTiming{"days", 1}, 2.0)}});
  random_->scriptUniform({0.5});
  const CooldownResult first = ask();
  EXPECT_EQ(first.decision, kFollow);
  const FlowTimingStatus window = c_->currentStates().flowState.at("f");
  EXPECT_EQ(window.earliestResetDate, Date{kT0 + 86400});
  EXPECT_EQ(window.latestResetDate, Date{kT0 + 259200});
  EXPECT_EQ(window.actByDate, Date{kT0 + 64800});  // 3 days x 0.5^2
  EXPECT_EQ(testing::signalSummary(first.signals),
            "b652=true f654=2 b655=false i653=1 s657=\"" + window.timingWindowId + "\" i656=64800");

  at(kT0 + 1 * kHour);
  EXPECT_EQ(ask().decision, kFollow);
  at(kT0 + 18 * kHour);  // the act-by point itself is due
  EXPECT_EQ(ask().decision, kMust);
  at(kT0 + 20 * kHour);
  const CooldownResult due = ask();
  EXPECT_EQ(due.decision, kMust);
  EXPECT_EQ(valuesOf(due, 656), std::vector<SignalValue>{int64_t{-7200}});
  shown();
  at(kT0 + 22 * kHour);
  EXPECT_EQ(ask().decision, kBlocked);
  at(kT0 + 25 * kHour);
  const CooldownResult replaced = ask();
  EXPECT_EQ(replaced.decision, kFollow);
  EXPECT_EQ(number(replaced), 1);
  EXPECT_NE(windowId(replaced), window.timingWindowId);
  EXPECT_EQ(c_->currentStates().flowState.at("f").actByDate, Date{kT0 + 25 * kHour + 64800});
}

TEST_F(TimingCoordinatorTest, AtMostOncePerTimeSpanWithOrWithoutAStore) {
  for (auto defaults : {defaults_, std::shared_ptr<UserDefaultsProvider>(),
                        std::make_shared<UserDefaultsProvider>(nullptr)}) {
    at(kT0);
    c_ = make(defaults, reporter_);
    apply({{"f", rules(std::nullopt, ServerTiming{"hours", 1})}});
    const std::string unused = windowId(ask());
    at(kT0 + 2 * kHour);  // past the window's end without a showing
    EXPECT_NE(windowId(ask()), unused);
    shown();
    at(kT0 + 2.5 * kHour);
    EXPECT_EQ(ask().decision, kBlocked);
    at(kT0 + 3 * kHour + 1);
    EXPECT_EQ(ask().decision, kFollow);
  }
  EXPECT_TRUE(reporter_.reports().empty());
}

TEST_F(TimingCoordinatorTest, ExecutionCountedWindows) {
  // At most once per 2 requests: shown on the first, blocked on the second, new window on
  // the third.
  apply({{"f", rules(std::nullopt, ServerTiming{"executions", 2})}});
  const CooldownResult first = ask();
  EXPECT_EQ(valuesOf(first, 655), std::vector<SignalValue>{true});
  shown();
  EXPECT_EQ(ask().decision, kBlocked);
  const CooldownResult third = ask();
  EXPECT_EQ(third.decision, kFollow);
  EXPECT_EQ(number(third), 1);
  EXPECT_NE(windowId(third), windowId(first));

  // At least once per 5 requests, act-by 1 + 0.375 x 4 = 2.5, rounded away from zero to 3.
  // Nothing shown: the flow stays due past the end of the span; shown at the 7th, the next
  // request opens a window.
  random_->scriptUniform({0.375});
  apply({{"f", rules(ServerTiming{"executions", 5}, std::nullopt, 1.0)}});
  EXPECT_EQ(valuesOf(ask(), 656), std::vector<SignalValue>{int64_t{2}});
  EXPECT_EQ(decisions(6),
            (std::vector<TimingDecision>{kFollow, kMust, kMust, kMust, kMust, kMust}));
  shown();
  EXPECT_EQ(number(ask()), 1);
  // Shown at the act-by point: the model decides until the 6th request starts anew.
  EXPECT_EQ(decisions(2), (std::vector<TimingDecision>{kFollow, kMust}));
  shown();
  EXPECT_EQ(decisions(2), (std::vector<TimingDecision>{kFollow, kFollow}));
  EXPECT_EQ(number(ask()), 1);
}

TEST_F(TimingCoordinatorTest, ChangedOrRemovedRulesResetTheWindowUnchangedOnesKeepIt) {
  const auto once = rules(std::nullopt, ServerTiming{"executions", 100});
  apply({{"kept", once}, {"changed", once}, {"gone", once}});
  for (const char* flow : {"kept", "changed", "gone"}) ask(flow), ask(flow);
  const std::string keptWindow = windowId(ask("kept"));

  auto changed = once;
  changed.actBySkew = 3.0;
  apply({{"kept", once},
         {"changed", changed},
         {"gone", rules(std::nullopt, ServerTiming{"executions", -1})}});
  EXPECT_EQ(reporter_.count("Received invalid timing value"), 1u);
  const CooldownResult kept = ask("kept");
  EXPECT_EQ(number(kept), 4);
  EXPECT_EQ(windowId(kept), keptWindow);
  EXPECT_EQ(number(ask("changed")), 1);
  const CooldownResult gone = ask("gone");
  EXPECT_EQ(gone.decision, kFollow);
  EXPECT_EQ(testing::signalSummary(gone.signals), "b652=false i653=-1 f654=-1");

  // An update without model information takes every flow's rules away.
  c_->applyLatestConfiguration(std::nullopt);
  EXPECT_TRUE(c_->currentConfiguration().flowConfigurations.empty());
  EXPECT_TRUE(make()->currentStates().flowState.empty());
}

TEST_F(TimingCoordinatorTest, RulesAndWindowsSurviveANewCoordinatorOnTheSameStore) {
  apply({{"f", rules(ServerTiming{"days", 3}, ServerTiming{"days", 1})}});
  const std::string window = windowId(ask());
  shown();
  ask();
  auto after = make();
  EXPECT_EQ(after->currentConfiguration(), c_->currentConfiguration());
  EXPECT_EQ(after->currentStates(), c_->currentStates());
  const CooldownResult result = after->performCooldownCalculation("f");
  EXPECT_EQ(result.decision, kBlocked);
  EXPECT_EQ(number(result), 3);
  EXPECT_EQ(windowId(result), window);
  EXPECT_TRUE(reporter_.reports().empty());
}

TEST_F(TimingCoordinatorTest, UnreadableStoredRecordsAreReportedAndStartEmpty) {
  const std::string negativeCount =
      R"({"flowState":{"f":{"hasBeenExecutedInTheCurrentWindow":false,"numberOfExecutions":-1,)"
      R"("timingWindowId":"x","allowMultipleExecutions":true,"alwaysActAtLeastOnce":false}}})";
  const std::string_view config = TimingCoordinator::kGeneralConfigurationKey;
  const std::string_view states = TimingCoordinator::kPerFlowStateKey;
  const std::vector<std::pair<std::string_view, PlistValue>> corrupt = {
      {config, PlistValue("not data")},
      {config, PlistValue(Bytes{'{', '}'})},
      {states, PlistValue(Bytes(negativeCount.begin(), negativeCount.end()))},
      {states, PlistValue(PlistDictionary{{"flowState", 1}})},
  };
  for (const auto& [key, value] : corrupt) {
    RecordingErrorReporter fresh;
    store_->set(key, value);
    auto coordinator = make(defaults_, fresh);
    ASSERT_EQ(fresh.reports().size(), 1u) << describe(value);
    EXPECT_EQ(fresh.reports()[0].message, key == states
                                              ? "Failed to load current per flow timing state"
                                              : "Failed to load general timing configuration");
    EXPECT_EQ(coordinator->performCooldownCalculation("f").decision, kFollow);
    store_->remove(key);
  }
}

TEST_F(TimingCoordinatorTest, WindowThatCannotBeStoredIsReportedAndStaysInForce) {
  apply({{"f", rules(ServerTiming{"days", 1}, std::nullopt)}});
  at(std::numeric_limits<double>::infinity());  // a broken clock gives non-finite dates
  ask();
  EXPECT_EQ(number(ask()), 2);
  EXPECT_EQ(reporter_.count("Failed to save flow timing configuration"), 2u);
  EXPECT_TRUE(make()->currentStates().flowState.empty());  // the stored record was kept
}

TEST_F(TimingCoordinatorTest, MadeBeforeTheSuiteOpenedItNeverWritesOverTheStoredRecords) {
  apply({{"f", rules(ServerTiming{"days", 1}, std::nullopt)}});
  ask();
  const auto storedStates = store_->get(TimingCoordinator::kPerFlowStateKey);
  ASSERT_TRUE(storedStates);
  testing::LateKeyValueStoreProvider late;
  auto lateDefaults = UserDefaultsProvider::open(&late, "com.orvane.ads");
  auto coordinator = make(lateDefaults, reporter_);
  late.open(store_);
  coordinator->applyLatestConfiguration(
      payload({{"g", rules(ServerTiming{"days", 2}, std::nullopt)}}));
  coordinator->performCooldownCalculation("g");
  coordinator->storeFlowTimingState();
  EXPECT_EQ(store_->get(TimingCoordinator::kPerFlowStateKey), storedStates);
  EXPECT_EQ(coordinator->currentStates().flowState.count("g"), 1u);
}

TEST(CombineDecisionsTest, EveryTimingDecisionWithEveryModelCode) {
  const Signal blocked = SignalBool(SignalEnum::id(650), true);
  const Signal forced = SignalBool(SignalEnum::id(651), true);
  struct Row {
    TimingDecision timing;
    uint8_t code;
    UpsellDecision expected;
  };
  const Row rows[] = {
      {kMust, 0, {true, true, forced}},       {kMust, 1, {true, false, {}}},
      {kMust, 2, {true, true, {}}},           {kFollow, 0, {false, false, {}}},
      {kFollow, 1, {true, false, {}}},        {kFollow, 2, {true, true, {}}},
      {kBlocked, 0, {false, false, {}}},      {kBlocked, 1, {false, false, blocked}},
      {kBlocked, 2, {false, false, blocked}}, {kFollow, 7, {true, true, {}}},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(combineDecisions(row.timing, row.code), row.expected)
        << static_cast<int>(row.timing) << "/" << static_cast<int>(row.code);
  }
}

TEST_F(TimingCoordinatorTest, ConcurrentRequestsAreEachCountedOnce) {
  const Flows flows{{"f", rules(std::nullopt, ServerTiming{"executions", 1e6})}};
  apply(flows);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 200; ++i) ask();
    });
  }
  threads.emplace_back([&] {
    for (int i = 0; i < 50; ++i) apply(flows), shown();  // unchanged rules keep the window
  });
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(c_->currentStates().flowState.at("f").numberOfExecutions, 800);
  EXPECT_EQ(make()->currentStates(), c_->currentStates());
}

}  // namespace
}  // namespace orvane
