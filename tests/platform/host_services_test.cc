#include <atomic>
#include <deque>
#include <future>
#include <thread>

#include <gtest/gtest.h>

#include "orvane/platform/Executors.h"
#include "orvane/platform/MotionService.h"
#include "orvane/platform/SystemLog.h"
#include "testutil/FakePlatform.h"

namespace orvane {
namespace {

using namespace std::chrono_literals;

// The host's main loop: jobs wait in a list until the test runs them.
class HostLoop {
 public:
  HostMainQueue::Dispatcher dispatcher() {
    return [this](std::unique_ptr<HostMainQueue::Job> job) {
      std::lock_guard<std::mutex> guard(mutex_);
      jobs_.push_back(std::move(job));
    };
  }
  size_t pending() {
    std::lock_guard<std::mutex> guard(mutex_);
    return jobs_.size();
  }
  size_t run() {
    size_t ran = 0;
    while (auto job = next()) {
      job->run();
      ++ran;
    }
    return ran;
  }
  void dropAll() {
    std::deque<std::unique_ptr<HostMainQueue::Job>> dropped;
    std::lock_guard<std::mutex> guard(mutex_);
    dropped.swap(jobs_);
  }

 private:
  std::unique_ptr<HostMainQueue::Job> next() {
    std::lock_guard<std::mutex> guard(mutex_);
    if (jobs_.empty()) return nullptr;
    auto job = std::move(jobs_.front());
    jobs_.pop_front();
    return job;
  }
  std::mutex mutex_;
  std::deque<std::unique_ptr<HostMainQueue::Job>> jobs_;
};

class HostMainQueueTest : public ::testing::Test {
 protected:
  std::shared_ptr<testing::FakeClock> clock = std::make_shared<testing::FakeClock>();
  std::shared_ptr<testing::ManualExecutors> timers =
      std::make_shared<testing::ManualExecutors>(clock);
  HostLoop loop;
  std::shared_ptr<HostMainQueue> queue =
      std::make_shared<HostMainQueue>(loop.dispatcher(), timers->makeSerialQueue("timers"));
};

TEST_F(HostMainQueueTest, WorkRunsOnlyWhenTheHostRunsItsJobsInOrder) {
  std::vector<int> ran;
  queue->async([&] { ran.push_back(1); });
  queue->async([&] {
    ran.push_back(2);
    // Posted from inside a job: queued behind, not run inline.
    queue->async([&] { ran.push_back(4); });
  });
  queue->async([&] { ran.push_back(3); });
  EXPECT_TRUE(ran.empty());
  EXPECT_EQ(loop.pending(), 3u);
  EXPECT_EQ(loop.run(), 4u);
  EXPECT_EQ(ran, (std::vector<int>{1, 2, 3, 4}));
}

TEST_F(HostMainQueueTest, CurrentInsideJobsAndOnTheHostsMainThread) {
  std::optional<bool> inside;
  queue->async([&] { inside = queue->isCurrent(); });
  // Before any job ran and with no thread named, no thread is the main thread.
  EXPECT_FALSE(queue->isCurrent());
  std::thread([&] { loop.run(); }).join();
  EXPECT_EQ(inside, true);
  // The thread that ran the latest job counts as the main thread from then on.
  EXPECT_FALSE(queue->isCurrent());
  loop.run();  // nothing to run: no job, no change
  EXPECT_FALSE(queue->isCurrent());
  queue->async([] {});
  loop.run();
  EXPECT_TRUE(queue->isCurrent());
  // A named main thread wins over the thread that runs jobs.
  std::thread other([&] { queue->setMainThread(std::this_thread::get_id()); });
  other.join();
  queue->async([] {});
  loop.run();
  EXPECT_FALSE(queue->isCurrent());
  queue->setMainThread(std::this_thread::get_id());
  EXPECT_TRUE(queue->isCurrent());
}

TEST_F(HostMainQueueTest, SyncWaitsForTheHostElsewhereAndRunsInlineOnTheMainThread) {
  queue->setMainThread(std::this_thread::get_id());
  bool inline_ran = false;
  queue->sync([&] { inline_ran = true; });
  EXPECT_TRUE(inline_ran);
  EXPECT_EQ(loop.pending(), 0u);

  std::atomic<bool> done{false};
  auto waiter = std::async(std::launch::async, [&] { queue->sync([&] { done = true; }); });
  EXPECT_EQ(waiter.wait_for(100ms), std::future_status::timeout) << "ran without the host";
  while (loop.pending() == 0) std::this_thread::sleep_for(1ms);
  loop.run();
  EXPECT_EQ(waiter.wait_for(5s), std::future_status::ready);
  EXPECT_TRUE(done);

  // The task's failure reaches the waiting caller.
  auto failing = std::async(std::launch::async,
                            [&] { queue->sync([] { throw std::runtime_error("task failed"); }); });
  while (loop.pending() == 0) std::this_thread::sleep_for(1ms);
  loop.run();
  EXPECT_THROW(failing.get(), std::runtime_error);
}

TEST_F(HostMainQueueTest, SyncReturnsWhenTheHostDropsTheJob) {
  bool ran = false;
  auto waiter = std::async(std::launch::async, [&] { queue->sync([&] { ran = true; }); });
  while (loop.pending() == 0) std::this_thread::sleep_for(1ms);
  loop.dropAll();
  EXPECT_EQ(waiter.wait_for(5s), std::future_status::ready);
  EXPECT_FALSE(ran);
}

TEST_F(HostMainQueueTest, DelayedWorkIsTimedElsewhereAndRunsOnTheHostsLoop) {
  int once = 0, repeating = 0, cancelledEarly = 0, cancelledLate = 0;
  queue->asyncAfter(2, [&] { ++once; });
  auto early = queue->asyncAfter(2, [&] { ++cancelledEarly; });
  auto late = queue->asyncAfter(2, [&] { ++cancelledLate; });
  auto timer = queue->scheduleRepeating(1, [&] { ++repeating; });
  early->cancel();

  timers->advance(1.5);
  EXPECT_EQ(loop.run(), 1u);  // the first beat
  EXPECT_EQ(repeating, 1);
  EXPECT_EQ(once, 0);

  timers->advance(1);
  // Due and handed to the host; cancelling now still keeps it from running.
  late->cancel();
  loop.run();
  EXPECT_EQ(once, 1);
  EXPECT_EQ(repeating, 2);
  EXPECT_EQ(cancelledEarly + cancelledLate, 0);

  timer->cancel();
  timers->advance(3);
  loop.run();
  EXPECT_EQ(repeating, 2);
}

// ---- Motion the host pushes -----------------------------------------------------------------

TEST(HostMotionService, DeliversTheHostsUpdatesOnlyWhileTheSdkWantsThem) {
  auto executors =
      std::make_shared<testing::ManualExecutors>(std::make_shared<testing::FakeClock>());
  std::vector<bool> changes;
  HostMotionService service(true, false, [&](bool delivering) { changes.push_back(delivering); });
  EXPECT_TRUE(service.isAccelerometerAvailable());
  EXPECT_FALSE(service.isGyroAvailable());

  DeviceMotion motion;
  motion.timestamp = 12.5;
  EXPECT_FALSE(service.push(motion));

  std::vector<double> seen;
  auto queue = executors->makeSerialQueue("sampling");
  service.startDeviceMotionUpdates(queue,
                                   [&](const DeviceMotion* m) { seen.push_back(m->timestamp); });
  // Starting again replaces the handler; the host's sensors are already running.
  service.startDeviceMotionUpdates(queue, [&](const DeviceMotion* m) {
    EXPECT_TRUE(queue->isCurrent());
    seen.push_back(m->timestamp + 1000);
  });
  EXPECT_TRUE(service.isDelivering());
  EXPECT_TRUE(service.push(motion));
  motion.timestamp = 12.51;
  EXPECT_TRUE(service.push(motion));
  EXPECT_TRUE(seen.empty()) << "updates are posted to the sampling queue";
  EXPECT_TRUE(changes.empty());
  executors->runUntilIdle();
  EXPECT_EQ(seen, (std::vector<double>{1012.5, 1012.51}));

  service.stopMotionUpdates();
  service.stopMotionUpdates();
  EXPECT_FALSE(service.push(motion));
  // The host hears of starts and stops on the sampling queue, never inside the caller.
  EXPECT_EQ(changes, (std::vector<bool>{true}));
  executors->runUntilIdle();
  EXPECT_EQ(changes, (std::vector<bool>{true, false}));
}

// ---- Lines for the host ----------------------------------------------------------------------

TEST(CallbackLog, HandsEveryLevelToTheSinkAndToleratesASinkThatLogs) {
  std::vector<std::pair<LogLevel, std::string>> lines;
  std::shared_ptr<SystemLog> log;
  log = makeCallbackLog([&](LogLevel level, std::string_view line) {
    lines.emplace_back(level, std::string(line));
    if (line == "again") log->info("nested");
  });
  log->write(LogLevel::kDebug, "debug");
  log->error("again");
  log->notice("notice");
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_EQ(lines[0], std::make_pair(LogLevel::kDebug, std::string("debug")));
  EXPECT_EQ(lines[1], std::make_pair(LogLevel::kError, std::string("again")));
  EXPECT_EQ(lines[2], std::make_pair(LogLevel::kInfo, std::string("nested")));
  EXPECT_EQ(lines[3], std::make_pair(LogLevel::kDefault, std::string("notice")));
}

}  // namespace
}  // namespace orvane
