// Tracked events and golden signals: instant contexts that log themselves at once.
#include <gtest/gtest.h>

#include <mutex>

#include "orvane/Context.h"
#include "orvane/ContextManager.h"
#include "orvane/Log.h"
#include "testutil/FakePlatform.h"

namespace orvane {
namespace {

template <typename T>
std::optional<T> valueOf(const SignalList& signals, uint16_t id) {
  for (const Signal& s : signals) {
    if (s.id().rawValue() == id) {
      if (const T* v = std::get_if<T>(&s.value())) return *v;
    }
  }
  return std::nullopt;
}

class TrackingTest : public ::testing::Test {
 protected:
  TrackingTest() {
    Configuration configuration;
    configuration.enableInstantContext = true;
    manager.setupWith(
        "KEY-0123456789abcdef",
        [this](std::shared_ptr<Log> log) {
          std::lock_guard<std::mutex> guard(mutex);
          logs.push_back(std::move(log));
        },
        std::nullopt, configuration);
    fake.drain();
    logs.clear();
  }
  std::vector<std::shared_ptr<Log>> sent() {
    fake.drain();
    std::lock_guard<std::mutex> guard(mutex);
    return std::exchange(logs, {});
  }

  testing::FakePlatform fake;
  ContextManager manager{fake.platform, ContextManagerIsSupported::kSupported};
  std::mutex mutex;
  std::vector<std::shared_ptr<Log>> logs;
};

TEST_F(TrackingTest, EachTrackedFormLogsOneRecordOfItsKind) {
  struct Case {
    MethodUsed method;
    EventType type;
  };
  for (const Case c : {Case{MethodUsed::kTrackEvent, EventType::kTrackedEvent},
                       Case{MethodUsed::kTrackPageView, EventType::kPageView},
                       Case{MethodUsed::kTrackUserAction, EventType::kUserAction}}) {
    manager.recordTrackedEvent("checkout", {CustomSignalInt("items", 3)}, c.method, c.type);
    const auto records = sent();
    ASSERT_EQ(records.size(), 1u) << "no creation record, one event record";
    const SignalList& signals = records[0]->signals();
    EXPECT_EQ(valueOf<int64_t>(signals, 3), -100);
    EXPECT_EQ(valueOf<int64_t>(signals, 23), static_cast<int64_t>(c.type));
    EXPECT_EQ(valueOf<int64_t>(signals, 25), static_cast<int64_t>(c.method));
    EXPECT_EQ(valueOf<int64_t>(signals, 191), 3);
    EXPECT_EQ(valueOf<std::string>(signals, 20), "checkout");
    ASSERT_EQ(records[0]->customSignals().size(), 1u);
    EXPECT_EQ(records[0]->customSignals()[0].id(), "items");
  }
}

}  // namespace
}  // namespace orvane
