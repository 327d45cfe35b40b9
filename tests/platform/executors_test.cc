#include <pthread.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "orvane/platform/Executors.h"
#include "testutil/FakePlatform.h"

namespace orvane {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// Records events from any thread; waits time out generously so a broken queue fails the test
// instead of hanging it.
class Events {
 public:
  void add(int value = 0) {
    std::lock_guard<std::mutex> guard(mutex_);
    values_.push_back(value);
    changed_.notify_all();
  }
  bool waitFor(size_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, 10s, [&] { return values_.size() >= count; });
  }
  std::vector<int> values() {
    std::lock_guard<std::mutex> guard(mutex_);
    return values_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<int> values_;
};

struct QueueFactory {
  const char* label;
  std::shared_ptr<SerialQueue> (*make)(const std::string&);
};
void PrintTo(const QueueFactory& factory, std::ostream* out) { *out << factory.label; }

class SerialQueueContract : public ::testing::TestWithParam<QueueFactory> {
 protected:
  std::shared_ptr<SerialQueue> make(const std::string& name = "contract") {
    return GetParam().make(name);
  }
};

TEST_P(SerialQueueContract, RunsOneTaskAtATimeInSubmissionOrderPerProducer) {
  auto queue = make();
  constexpr int kProducers = 4, kPerProducer = 300;
  std::vector<int> seen;  // touched only on the queue
  std::atomic<int> inside{0}, overlaps{0};
  std::vector<std::thread> producers;
  for (int p = 0; p < kProducers; ++p) {
    producers.emplace_back([&, p] {
      for (int i = 0; i < kPerProducer; ++i) {
        queue->async([&, v = p * kPerProducer + i] {
          if (inside.fetch_add(1) != 0) overlaps++;
          seen.push_back(v);
          inside.fetch_sub(1);
        });
      }
    });
  }
  for (auto& t : producers) t.join();
  queue->sync([] {});
  ASSERT_EQ(seen.size(), size_t{kProducers * kPerProducer});
  EXPECT_EQ(overlaps.load(), 0);
  std::vector<int> last(kProducers, -1);
  for (int v : seen) {
    EXPECT_GT(v, last[v / kPerProducer]) << "producer " << v / kPerProducer << " reordered";
    last[v / kPerProducer] = v;
  }
}

TEST_P(SerialQueueContract, SyncRunsOnTheQueueAfterEarlierWorkAndReportsFailure) {
  auto queue = make("a");
  auto other = make("b");
  std::vector<int> order;
  for (int i = 0; i < 50; ++i) queue->async([&, i] { order.push_back(i); });
  bool here = false, there = true;
  queue->sync([&] {
    std::this_thread::sleep_for(20ms);  // a sync that did not wait would return before this
    here = queue->isCurrent();
    there = other->isCurrent();
    order.push_back(50);
  });
  EXPECT_FALSE(queue->isCurrent());
  EXPECT_TRUE(here);
  EXPECT_FALSE(there);
  ASSERT_EQ(order.size(), 51u);
  EXPECT_EQ(order.back(), 50);
  EXPECT_THROW(queue->sync([] { throw std::runtime_error("sync failure"); }), std::runtime_error);

  Events events;  // from the queue itself, sync runs inline instead of deadlocking
  queue->async([&] {
    events.add(1);
    queue->sync([&] { events.add(2); });
    events.add(3);
  });
  ASSERT_TRUE(events.waitFor(3));
  EXPECT_EQ(events.values(), (std::vector<int>{1, 2, 3}));
}

TEST_P(SerialQueueContract, DelayedWorkRunsByDueTimeAndNeverEarly) {
  auto queue = make();
  Events events;
  const auto start = Clock::now();
  std::vector<Clock::duration> ranAfter(3);
  for (auto [id, delay] : {std::pair{0, 0.05}, {1, 0.01}, {2, 0.03}}) {
    queue->asyncAfter(delay, [&, id = id] {
      ranAfter[id] = Clock::now() - start;
      events.add(id);
    });
  }
  ASSERT_TRUE(events.waitFor(3));
  EXPECT_EQ(events.values(), (std::vector<int>{1, 2, 0}));
  EXPECT_GE(ranAfter[0], 50ms);
  EXPECT_GE(ranAfter[1], 10ms);
}

TEST_P(SerialQueueContract, CancelledDelayedWorkNeverRunsAndIsReleased) {
  auto queue = make();
  Events events;
  auto token = std::make_shared<int>(0);
  std::weak_ptr<int> watch = token;
  auto handle = queue->asyncAfter(0.01, [&, token] { events.add(1); });
  token.reset();
  handle->cancel();
  EXPECT_TRUE(watch.expired()) << "a cancelled task should drop what it captured";
  // Due-time order means the sentinel runs only after the cancelled task would have.
  queue->asyncAfter(0.03, [&] { events.add(2); });
  ASSERT_TRUE(events.waitFor(1));
  EXPECT_EQ(events.values(), (std::vector<int>{2}));
  handle->cancel();  // twice, and after the fact: harmless
}

TEST_P(SerialQueueContract, RepeatingTimerRunsUntilItCancelsItself) {
  auto queue = make();
  Events events;
  std::shared_ptr<Cancellable> handle;
  const auto start = Clock::now();
  Clock::duration firstRun{};
  int runs = 0;  // touched only on the queue
  queue->sync([&] {
    handle = queue->scheduleRepeating(0.01, [&] {
      if (runs == 0) firstRun = Clock::now() - start;
      if (++runs == 4) handle->cancel();
      events.add();
    });
  });
  ASSERT_TRUE(events.waitFor(4));
  queue->asyncAfter(0.05, [&] { events.add(-1); });
  ASSERT_TRUE(events.waitFor(5));
  EXPECT_EQ(events.values(), (std::vector<int>{0, 0, 0, 0, -1}));
  EXPECT_GE(firstRun, 10ms);
}

TEST_P(SerialQueueContract, ThrowingTaskIsReportedAndTheQueueCarriesOn) {
  auto queue = make("throwing");
  ::testing::internal::CaptureStderr();
  queue->async([] { throw std::runtime_error("boom"); });
  queue->async([] { throw 42; });
  int after = 0;
  queue->sync([&] { after = 1; });
  const std::string err = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(after, 1);
  EXPECT_EQ(err,
            "[Orvane] Uncaught exception in queue throwing: boom\n"
            "[Orvane] Uncaught exception in queue throwing: unknown exception\n");
}

TEST_P(SerialQueueContract, DestructionFinishesQueuedWorkAndDropsDelayedWork) {
  auto queue = make("doomed");
  Events started, done;
  auto capture = std::make_shared<int>(0);
  std::weak_ptr<int> captureWatch = capture;
  queue->async([&] {
    started.add();
    std::this_thread::sleep_for(30ms);  // keeps the task in progress during destruction
    done.add(1);
  });
  queue->async([&] { done.add(2); });
  queue->asyncAfter(30, [&, capture] { done.add(3); });
  queue->scheduleRepeating(30, [&, capture] { done.add(4); });
  capture.reset();
  ASSERT_TRUE(started.waitFor(1));
  const auto start = Clock::now();
  queue.reset();
  EXPECT_LT(Clock::now() - start, 5s) << "destruction waited for delayed work";
  EXPECT_EQ(done.values(), (std::vector<int>{1, 2}));
  EXPECT_TRUE(captureWatch.expired());
}

TEST_P(SerialQueueContract, LastReferenceReleasedOnItsOwnThread) {
  auto queue = make("self-owned");
  Events gate, done;
  // Once the test lets go, the task's closure holds the only reference, so the queue is
  // destroyed on its own thread.
  queue->async([&gate, &done, self = queue] {
    gate.waitFor(1);
    done.add(1);
  });
  queue->async([&done] { done.add(2); });
  queue.reset();
  gate.add();
  ASSERT_TRUE(done.waitFor(2));
  EXPECT_EQ(done.values(), (std::vector<int>{1, 2}));
}

INSTANTIATE_TEST_SUITE_P(Queues, SerialQueueContract,
                         ::testing::Values(QueueFactory{"Thread", &makeThreadSerialQueue}),
                         [](const auto& info) { return std::string(info.param.label); });

TEST(ThreadExecutors, MainQueueIsTheHostsOrOneOwnQueueAndThreadsAreNamed) {
  auto own = makeThreadExecutors();
  EXPECT_EQ(own->mainQueue(), own->mainQueue());
  EXPECT_EQ(own->mainQueue()->name(), "main");
  auto host = makeThreadSerialQueue("host");
  EXPECT_EQ(makeThreadExecutors(host)->mainQueue(), host);

  auto queue = own->makeSerialQueue("orvane.uploader.queue");
  char name[32] = {};
  queue->sync([&] { pthread_getname_np(pthread_self(), name, sizeof name); });
  EXPECT_STREQ(name, "orvane.uploader");  // the kernel keeps 15 characters
}

class ManualExecutorsTest : public ::testing::Test {
 protected:
  std::shared_ptr<testing::FakeClock> clock = std::make_shared<testing::FakeClock>();
  std::shared_ptr<testing::ManualExecutors> executors =
      std::make_shared<testing::ManualExecutors>(clock);
  std::shared_ptr<SerialQueue> main = executors->mainQueue();
  std::vector<std::string> log;
};

TEST_F(ManualExecutorsTest, RunsWorkInOrderOnlyWhenDrainedOrDue) {
  auto a = executors->makeSerialQueue("a");
  const double start = clock->now();
  double ranAt = 0;
  main->asyncAfter(5, [&] { ranAt = clock->now(); });
  main->asyncAfter(1, [&] { log.push_back("cancelled"); })->cancel();
  a->async([&] {
    log.push_back("a1");
    main->async([&] { log.push_back("main2"); });
  });
  main->async([&] { log.push_back(main->isCurrent() ? "main1" : "main1 off its queue"); });
  EXPECT_TRUE(log.empty());
  EXPECT_EQ(executors->runUntilIdle(), 3u);
  EXPECT_EQ(log, (std::vector<std::string>{"a1", "main1", "main2"}));
  executors->advance(4.9);
  EXPECT_EQ(ranAt, 0);
  executors->advance(0.2);
  EXPECT_DOUBLE_EQ(ranAt, start + 5);
  EXPECT_EQ(executors->pendingCount(), 0u);
}

TEST_F(ManualExecutorsTest, RepeatingTimersFireOncePerIntervalAcrossAdvances) {
  int fast = 0, slow = 0;
  auto fastTimer = main->scheduleRepeating(0.2, [&] { ++fast; });
  main->scheduleRepeating(0.7, [&] { ++slow; });
  executors->advance(2.0);
  EXPECT_EQ(fast, 10);
  for (int i = 0; i < 10; ++i) executors->advance(0.1);
  EXPECT_EQ(fast, 15);
  EXPECT_EQ(slow, 4);
  fastTimer->cancel();
  executors->advance(10);
  EXPECT_EQ(fast, 15);
  EXPECT_EQ(executors->pendingCount(), 1u);
}

}  // namespace
}  // namespace orvane
