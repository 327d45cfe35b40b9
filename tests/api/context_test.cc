#include <gtest/gtest.h>

#include <functional>
#include <thread>

#include "api/ContextAccess.h"
#include "api/Engine.h"
#include "models/CoreMLModelManager.h"
#include "models/ModelExecutionInformation.h"
#include "orvane/Context.h"
#include "orvane/Log.h"
#include "orvane/Revenue.h"
#include "testutil/FakePlatform.h"
#include "testutil/ManagerHelpers.h"
#include "timing/TimingCoordinator.h"
#include "util/LogDateFormat.h"
#include "util/UserDefaultsProvider.h"

namespace orvane {
namespace {

using testing::FakePlatform;

using testing::signalCount;
using testing::signalValue;

class ContextTest : public ::testing::Test {
 protected:
  ContextTest() {
    manager.setupWith("KEY-0123456789abcdef", logs.sender(), std::nullopt, Configuration{});
    sent();
  }
  void assignControl(const std::string& flow, double chance) {
    testing::storeFlowRecord(*manager.userDefaultsProvider(), flow, testing::controlRecord(chance));
  }
  void timing(const std::string& flow, std::optional<ServerTiming> atLeastEvery,
              std::optional<ServerTiming> atMostOncePer) {
    ServerModelInfo info;
    info.isControl = true;
    info.timingConfiguration = ServerTimingConfiguration{atLeastEvery, std::nullopt, atMostOncePer};
    manager.timingCoordinator().applyLatestConfiguration(
        std::map<std::string, ServerModelInfo>{{flow, info}});
  }
  std::shared_ptr<Context> create(MethodUsed method = MethodUsed::kFetchContext,
                                  SignalList request = {}, const std::string& flow = "flow") {
    return ContextAccess::create(manager, std::move(request), flow, {}, method, {});
  }
  std::vector<std::shared_ptr<Log>> sent() {
    fake.drain();
    return logs.take();
  }

  FakePlatform fake;
  Engine manager{fake.platform, ContextManagerIsSupported::kSupported};
  testing::SentLogs logs;
};

TEST_F(ContextTest, DecisionCombinesTimingWithTheModelsCode) {
  struct Case {
    const char* what;
    double chance;                             // control rule: 0 says no, 1 says yes (forced)
    std::optional<ServerTiming> atLeastEvery;  // every execution: the flow is always due
    std::optional<ServerTiming> atMostOncePer;
    bool showFirst;  // a yes beforehand, so an at-most rule blocks
    bool shouldUpsell, forced;
    std::optional<uint16_t> overrideSignal;
  };
  const ServerTiming everyExecution{"executions", 1};
  const ServerTiming hourly{"hours", 1};
  const Case cases[] = {
      {"model no, no timing", 0, {}, {}, false, false, false, {}},
      {"forced yes, no timing", 1, {}, {}, false, true, true, {}},
      {"model no, due", 0, everyExecution, {}, false, true, true, 651},
      {"forced yes, due", 1, everyExecution, {}, false, true, true, {}},
      {"forced yes, blocked", 1, {}, hourly, true, false, false, 650},
      {"model no, blocked", 0, {}, hourly, true, false, false, {}},
  };
  int n = 0;
  for (const Case& c : cases) {
    const std::string flow = "flow" + std::to_string(n++);
    timing(flow, c.atLeastEvery, c.atMostOncePer);
    if (c.showFirst) {
      // A yes opens the window and uses its one showing.
      assignControl(flow, 1);
      ASSERT_TRUE(create(MethodUsed::kFetchContext, {}, flow)->shouldUpsell()) << c.what;
      manager.coreMLModelManager().setDecisionsEnabled(true);  // forget the cached assignment
    }
    assignControl(flow, c.chance);
    auto context = create(MethodUsed::kFetchContext, {}, flow);
    EXPECT_EQ(context->shouldUpsell(), c.shouldUpsell) << c.what;
    EXPECT_EQ(context->wasForcedUpsell(), c.forced) << c.what;
    const SignalList signals = context->signals();
    EXPECT_EQ(signalValue<bool>(signals, 12), c.shouldUpsell) << c.what;
    EXPECT_EQ(signalValue<int64_t>(signals, 11), c.chance == 0 ? -1 : 1) << c.what;
    for (uint16_t id : {650, 651}) {
      EXPECT_EQ(signalValue<bool>(signals, id),
                c.overrideSignal == id ? std::optional(true) : std::nullopt)
          << c.what << " signal " << id;
    }
  }
}

TEST_F(ContextTest, UnsupportedDeviceAlwaysSaysYesWithoutAModel) {
  Engine unsupported(fake.platform, ContextManagerIsSupported::kUnsupported);
  assignControl("flow", 0);
  auto context = ContextAccess::create(unsupported, {}, "flow", {}, MethodUsed::kFetchContext, {});
  EXPECT_TRUE(context->shouldUpsell());
  EXPECT_FALSE(context->wasForcedUpsell());
  EXPECT_EQ(signalValue<int64_t>(context->signals(), 11), -3);
  EXPECT_EQ(signalCount(context->signals(), 16), 0u);  // no model part ran
}

TEST_F(ContextTest, CreationAppendsIdentityAndLogsItselfForRequestPaths) {
  fake.clock->advance(0.25);
  auto context = create(MethodUsed::kFetchContext, {SignalInt(SignalEnum::id(191), 3)});
  const SignalList signals = context->signals();
  std::vector<uint16_t> ids;
  for (const Signal& s : signals) ids.push_back(s.id().rawValue());
  ASSERT_GE(ids.size(), 8u);
  EXPECT_EQ(std::vector<uint16_t>(ids.begin(), ids.begin() + 7),
            (std::vector<uint16_t>{191, 19, 29, 20, 14, 15, 25}));
  EXPECT_EQ(signalValue<std::string>(signals, 29), context->contextUUID());
  EXPECT_EQ(signalValue<std::string>(signals, 14), manager.currentSessionId());
  EXPECT_EQ(signalValue<bool>(signals, 19), false);  // nothing assigned: always upsell
  EXPECT_TRUE(context->shouldUpsell());

  auto creation = sent();
  ASSERT_EQ(creation.size(), 1u);
  EXPECT_EQ(signalValue<int64_t>(creation[0]->signals(), 3), -101);
  EXPECT_EQ(signalValue<int64_t>(creation[0]->signals(), 23), 1);
  EXPECT_FALSE(context->alreadyLogged());

  create(MethodUsed::kTrackEvent);
  create(MethodUsed::kPeriodicEvaluation);
  EXPECT_TRUE(sent().empty());
}

TEST_F(ContextTest, EveryLogIsANewRecordWithFreshPerLogSignals) {
  auto context = create(MethodUsed::kTrackEvent, {SignalBool(SignalEnum::id(444), true)});
  fake.clock->advance(1.5);
  context->log(EventOutcome::kPositive);
  context->log(EventOutcome::kPositive);
  auto records = sent();
  ASSERT_EQ(records.size(), 2u);
  for (const auto& r : records) {
    EXPECT_EQ(signalCount(r->signals(), 3), 1u);
    EXPECT_EQ(signalValue<int64_t>(r->signals(), 3), 1);
    EXPECT_EQ(signalValue<int64_t>(r->signals(), 23), 2);
    EXPECT_FLOAT_EQ(*signalValue<float>(r->signals(), 9), 1.5f);
    EXPECT_EQ(signalValue<float>(r->signals(), 28),
              static_cast<float>(context->secondsBetweenCreatedAndShouldUpsellChecked()));
    EXPECT_EQ(signalValue<std::string>(r->signals(), 17),
              formatLogDate(manager.dateProvider()->currentDate()));
    EXPECT_EQ(signalValue<bool>(r->signals(), 444), true);  // kept for real outcomes
  }
  EXPECT_NE(signalValue<std::string>(records[0]->signals(), 8),
            signalValue<std::string>(records[1]->signals(), 8));
  // The second outcome carries the same (empty) metadata as the first.
  EXPECT_EQ(fake.log->countContaining("with the same outcome metadata as the last one logged"), 1u);

  // New metadata replaces an entry of the same id and goes to the end.
  context->appendOutcomeMetadata({CustomSignalInt("a", 1), CustomSignalInt("b", 2)});
  context->appendOutcomeMetadata({CustomSignalInt("a", 3)});
  EXPECT_EQ(context->outcomeMetadata(),
            (CustomSignalList{CustomSignalInt("b", 2), CustomSignalInt("a", 3)}));
  context->log(EventOutcome::kSkipped);  // exempt: no premature warning, no 444
  auto skipped = sent();
  ASSERT_EQ(skipped.size(), 1u);
  EXPECT_EQ(signalCount(skipped[0]->signals(), 444), 0u);
  EXPECT_EQ(fake.log->countContaining("with the same outcome metadata"), 1u);
}

TEST_F(ContextTest, LogIfNotLoggedYetAndTheObserverRule) {
  auto context = create();
  fake.clock->advance(1);
  sent();
  context->logIfNotLoggedYet(EventOutcome::kNegative);  // only the creation log so far
  EXPECT_EQ(sent().size(), 1u);
  EXPECT_TRUE(context->alreadyLogged());
  context->logIfNotLoggedYet(EventOutcome::kPositive);
  EXPECT_TRUE(sent().empty());

  auto observed = create(MethodUsed::kPeriodicEvaluation);
  observed->log(EventOutcome::kSkipped);
  observed->logIfNotLoggedYet(EventOutcome::kSkipped);
  EXPECT_TRUE(sent().empty());
  EXPECT_FALSE(observed->alreadyLogged());
  EXPECT_EQ(fake.log->countContaining("Attempted to log a skipped outcome for a context created "
                                      "using registerContextObserver"),
            2u);
}

TEST_F(ContextTest, PrematureOutcomesAreWarnedButSent) {
  auto context = create(MethodUsed::kTrackEvent);
  fake.clock->advance(0.12);
  context->log(EventOutcome::kPositiveConverted);
  EXPECT_EQ(sent().size(), 1u);
  EXPECT_EQ(fake.log->countContaining("[Orvane] There were only 0.1s between the moment you "
                                      "created a Orvane context object"),
            1u);
  fake.clock->advance(0.1);
  ContextAccess::logWithArbitraryOutcome(*context, -104, EventType::kOutcome);
  EXPECT_EQ(fake.log->countContaining("There were only"), 1u);
}

TEST_F(ContextTest, RecentContextIsMarkedAndMaxDelayChangesAreWarned) {
  auto first = create(MethodUsed::kFetchContext, {SignalBool(SignalEnum::id(21), false)});
  EXPECT_EQ(signalCount(first->signals(), 27), 0u);
  auto second = create(MethodUsed::kFetchContext, {SignalBool(SignalEnum::id(21), true)});
  EXPECT_EQ(signalValue<bool>(first->signals(), 27), true);
  EXPECT_EQ(manager.recentContextForFlow("flow"), second);
  EXPECT_EQ(fake.log->countContaining("was obtained using different values of maxDelay"), 1u);
  create(MethodUsed::kFetchContext, {SignalBool(SignalEnum::id(21), true)});
  EXPECT_EQ(fake.log->countContaining("was obtained using different values of maxDelay"), 1u);
  EXPECT_FALSE(manager.recentContextForFlow("other"));
}

TEST_F(ContextTest, EncodingFailureIsLoggedAndNothingSent) {
  Engine unset(fake.platform, ContextManagerIsSupported::kSupported);  // no key yet
  int received = 0;
  unset.replaceLogSender([&](std::shared_ptr<Log>) { ++received; });
  auto context = ContextAccess::create(unset, {}, "flow", {}, MethodUsed::kTrackEvent, {});
  context->log(EventOutcome::kPositive);
  fake.drain();
  EXPECT_EQ(received, 0);
  EXPECT_EQ(fake.log->countContaining("[Orvane] Failed to send log: "), 1u);
  EXPECT_TRUE(context->alreadyLogged());
}

TEST_F(ContextTest, ConcurrentLogsAreEachDeliveredOnceOnTheMainQueue) {
  auto context = create(MethodUsed::kTrackEvent);
  fake.clock->advance(1);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 25; ++i) {
        context->appendOutcomeMetadata({CustomSignalInt("t" + std::to_string(t), i)});
        context->log(EventOutcome::kPositive);
        context->logIfNotLoggedYet(EventOutcome::kNegative);
      }
    });
  }
  for (auto& t : threads) t.join();
  auto records = sent();
  EXPECT_EQ(records.size(), 100u);  // every log(); logIfNotLoggedYet never won after the first
  for (const auto& r : records) {
    EXPECT_EQ(signalCount(r->signals(), 8), 1u);
    EXPECT_EQ(signalValue<int64_t>(r->signals(), 3), 1);
  }
}

TEST_F(ContextTest, RevenueFormsLogOneOutcomeWithTheirMetadata) {
  auto context = create();
  fake.clock->advance(1);
  sent();
  context->appendOutcomeMetadata({CustomSignalInt("ctx_revenue", 1), CustomSignalInt("plan", 2)});
  const RevenueEvent tip(RevenueSource::kTip, *Decimal::parse("2.5"), Currency::kUsd);
  context->logRevenueOutcome(tip, EventOutcome::kPositiveConverted);
  auto records = sent();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(signalValue<int64_t>(records[0]->signals(), 23), 2);  // an ordinary outcome log
  EXPECT_EQ(signalValue<int64_t>(records[0]->signals(), 3), 3);
  CustomSignalList expected{CustomSignalInt("plan", 2)};  // the earlier revenue entry replaced
  for (const CustomSignal& s : tip.metadata()) expected.push_back(s);
  EXPECT_EQ(records[0]->outcomeMetadata(), expected);

  // The store's metadata reads the device: the price locale's currency before version 16.
  fake.device->update([](DeviceFacts& f) { f.systemVersion = "15.7.1"; });
  StoreKit2Product product;
  product.price = Decimal(5);
  product.priceFormatCurrencyCode = "GBP";
  product.priceLocaleCurrencyCode = "CHF";
  context->logRevenueOutcome(product, EventOutcome::kPositive);
  records = sent();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(testing::customSignalSummary(records[0]->outcomeMetadata()),
            R"(i:plan=2 d:ctx_revenue=5 s:ctx_currency="CHF" )"
            R"(s:ctx_revenue_source="in_app_purchase" b:ctx_is_family_shareable=false )"
            R"(s:ctx_recurrence="one_time_purchase" b:ctx_is_sandbox_environment=false)");
}

TEST_F(ContextTest, RevenueTwinsLogOnlyTheFirstOutcome) {
  const StoreKit1Product product{Decimal(3), "EUR", false, std::nullopt, std::nullopt};
  const StoreKit1Transaction transaction{StoreKit1TransactionState::kPurchased, std::nullopt};
  const std::function<void(Context&)> twins[] = {
      [](Context& c) {
        c.logRevenueOutcomeIfNotLoggedYet(RevenueEvent(RevenueSource::kDonation, 1, Currency::kEur),
                                          EventOutcome::kPositive);
      },
      [](Context& c) {
        c.logRevenueOutcomeIfNotLoggedYet(StoreKit2Product{}, EventOutcome::kPositive);
      },
      [&](Context& c) {
        c.logStoreKit1RevenueOutcomeIfNotLoggedYet(product, EventOutcome::kPositive);
      },
      [&](Context& c) {
        c.logStoreKit1RevenueOutcomeIfNotLoggedYet(transaction, std::nullopt,
                                                   EventOutcome::kPositive);
      },
  };
  for (const auto& twin : twins) {
    auto context = create();
    fake.clock->advance(1);
    sent();
    twin(*context);  // only the creation log so far
    auto records = sent();
    ASSERT_EQ(records.size(), 1u);
    const CustomSignalList metadata = context->outcomeMetadata();
    EXPECT_FALSE(metadata.empty());
    EXPECT_EQ(records[0]->outcomeMetadata(), metadata);

    context->log(EventOutcome::kNegative);
    sent();
    context->appendOutcomeMetadata({CustomSignalInt("marker", 1)});
    const CustomSignalList before = context->outcomeMetadata();
    twin(*context);
    EXPECT_TRUE(sent().empty());
    EXPECT_EQ(context->outcomeMetadata(), before);  // nothing appended either
  }
}

TEST(EventOutcomeTest, RawValuesAndDescriptions) {
  EXPECT_FALSE(eventOutcomeFromRawValue(5));
  EXPECT_FALSE(eventOutcomeFromRawValue(-4));
  EXPECT_EQ(eventOutcomeFromRawValue(0), EventOutcome::kSkipped);
  EXPECT_EQ(description(EventOutcome::kNegativeDismissed), "EventOutcome.negativeDismissed");
  EXPECT_EQ(formatLogDate(Date{1700000000.1239}), "2023-11-14T22:13:20.123+0000");
}

}  // namespace
}  // namespace orvane
