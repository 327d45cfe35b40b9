// An embedded manager can go away while the host still holds its contexts, and while other
// threads use them: their calls become logged no-ops, and nothing touches freed memory (the
// sanitizer build is where the second half bites).
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <thread>
#include <vector>

#include "api/ContextAccess.h"
#include "api/Engine.h"
#include "orvane/Context.h"
#include "orvane/ContextManager.h"
#include "testutil/FakePlatform.h"
#include "testutil/ManagerHelpers.h"

namespace orvane {
namespace {

constexpr const char* kKey = "KEY-0123456789abcdef";

TEST(EmbeddedManagerLifetime, ContextOutlivingItsManagerLogsAndDoesNothing) {
  testing::FakePlatform fake;
  testing::SentLogs sent;
  auto manager =
      std::make_unique<ContextManager>(fake.platform, ContextManagerIsSupported::kSupported);
  manager->setupWith(kKey, sent.sender(), std::nullopt, Configuration{});
  std::shared_ptr<Context> context = ContextAccess::create(
      ContextManagerAccess::engine(*manager), {}, "paywall", {}, MethodUsed::kFetchContext, {});
  fake.drain();
  sent.take();

  manager.reset();
  context->log(EventOutcome::kPositive);
  context->logIfNotLoggedYet(EventOutcome::kNegative);
  context->logRevenueOutcome(RevenueEvent(RevenueSource::kDonation, 1, Currency::kEur),
                             EventOutcome::kPositive);
  fake.drain();

  EXPECT_TRUE(sent.take().empty());
  EXPECT_EQ(fake.log->countContaining("[Orvane] Context.log on flow \"paywall\" does nothing"), 2u);
  EXPECT_EQ(fake.log->countContaining("[Orvane] Context.logRevenueOutcome on flow \"paywall\""),
            1u);
  // What the context knows of itself needs no manager.
  EXPECT_EQ(context->flowName(), "paywall");
}

// Real threads: the manager is destroyed while other threads log on its contexts and its
// workers still run uploads, timers and error reports.
TEST(EmbeddedManagerLifetime, DestroyedWhileItsContextsAreInUse) {
  const auto dataDir =
      std::filesystem::temp_directory_path() / ("orvane-embedded-" + std::to_string(::getpid()));
  for (int round = 0; round < 20; ++round) {
    auto manager = std::make_unique<ContextManager>(Platform::portablePlatform(dataDir.string()),
                                                    ContextManagerIsSupported::kSupported);
    manager->setupWith(kKey, nullptr, std::nullopt, Configuration{});
    std::vector<std::shared_ptr<Context>> contexts;
    for (int i = 0; i < 4; ++i) {
      contexts.push_back(manager->requestInstantContext("flow" + std::to_string(i), 1, {}));
      ASSERT_NE(contexts.back(), nullptr);
    }
    std::atomic<bool> stop{false};
    std::atomic<int> logged{0};
    std::vector<std::thread> hosts;
    for (const auto& context : contexts) {
      hosts.emplace_back([&, context] {
        while (!stop.load()) {
          context->log(EventOutcome::kPositive);
          logged.fetch_add(1);
        }
      });
    }
    while (logged.load() < 8 * (round + 1)) std::this_thread::yield();
    manager.reset();
    stop.store(true);
    for (std::thread& host : hosts) host.join();
  }
  std::filesystem::remove_all(dataDir);
}

}  // namespace
}  // namespace orvane
