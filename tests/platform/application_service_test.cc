#include <gtest/gtest.h>

#include "orvane/platform/ApplicationService.h"
#include "testutil/FakePlatform.h"

namespace orvane {
namespace {

class HostApplicationServiceTest : public ::testing::Test {
 protected:
  int observe(const std::string& name) {
    return service->addObserver(
        {[this, name] { record(name + ".active"); }, [this, name] { record(name + ".resign"); }});
  }
  void record(const std::string& event) {
    events.push_back(main->isCurrent() ? event : event + " off the main queue");
  }

  std::shared_ptr<testing::ManualExecutors> executors =
      std::make_shared<testing::ManualExecutors>(std::make_shared<testing::FakeClock>());
  std::shared_ptr<SerialQueue> main = executors->mainQueue();
  std::shared_ptr<HostApplicationService> service =
      std::make_shared<HostApplicationService>(main, ApplicationState::kActive);
  std::vector<std::string> events;
};

TEST_F(HostApplicationServiceTest, TransitionsNotifyOnTheMainQueueOnlyWhenTheyHappen) {
  observe("a");
  const int b = observe("b");
  service->resignActive();
  EXPECT_EQ(service->applicationState(), ApplicationState::kInactive);
  EXPECT_TRUE(events.empty()) << "notifications must be posted, not delivered inline";
  service->removeObserver(b);  // after the post, but before delivery
  service->enterBackground();  // already resigned: nothing more to say
  service->becomeActive();
  service->becomeActive();
  service->enterBackground();  // straight from active: resigns on the way
  executors->runUntilIdle();
  EXPECT_EQ(service->applicationState(), ApplicationState::kBackground);
  EXPECT_EQ(events, (std::vector<std::string>{"a.resign", "a.active", "a.resign"}));
}

TEST_F(HostApplicationServiceTest, CallbacksMayCallBackIntoTheService) {
  int second = 0;
  service->addObserver({nullptr, [&] {
                          // Deadlocks if callbacks run under the service's lock.
                          record(service->applicationState() == ApplicationState::kInactive
                                     ? "saw inactive"
                                     : "saw other");
                          service->removeObserver(second);
                          observe("late");
                        }});
  second = observe("second");
  service->resignActive();
  executors->runUntilIdle();
  EXPECT_EQ(events, std::vector<std::string>{"saw inactive"});
  service->becomeActive();
  executors->runUntilIdle();
  EXPECT_EQ(events, (std::vector<std::string>{"saw inactive", "late.active"}));
}

TEST_F(HostApplicationServiceTest, PendingNotificationsOutliveTheService) {
  observe("a");
  service->resignActive();
  service.reset();
  EXPECT_EQ(executors->runUntilIdle(), 1u);
  EXPECT_TRUE(events.empty());
}

}  // namespace
}  // namespace orvane
