#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>

#include "orvane/platform/Executors.h"
#include "testutil/FakePlatform.h"

namespace orvane {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// Records events from any thread; waits time out so a broken queue fails instead of hanging.
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

TEST(ThreadSerialQueue, RunsOneTaskAtATimeInSubmissionOrderPerProducer) {
  auto queue = makeThreadSerialQueue("contract");
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

TEST(ThreadSerialQueue, SyncRunsOnTheQueueAfterEarlierWorkAndReportsFailure) {
  auto queue = makeThreadSerialQueue("a");
  auto other = makeThreadSerialQueue("b");
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

TEST(ThreadSerialQueue, DelayedWorkRunsByDueTimeNeverEarlyAndNotWhenCancelled) {
  auto queue = makeThreadSerialQueue("delayed");
  Events events;
  const auto start = Clock::now();
  std::vector<Clock::duration> ranAfter(4);
  auto token = std::make_shared<int>(0);
  std::weak_ptr<int> watch = token;
  auto cancelled = queue->asyncAfter(0.01, [&, token] { events.add(9); });
  token.reset();
  cancelled->cancel();
  EXPECT_TRUE(watch.expired()) << "a cancelled task should drop what it captured";
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
  cancelled->cancel();  // twice, and after the fact: harmless
}

TEST(ThreadSerialQueue, RepeatingTimerRunsUntilItCancelsItself) {
  auto queue = makeThreadSerialQueue("timer");
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

TEST(ThreadSerialQueue, ThrowingTaskIsReportedAndTheQueueCarriesOn) {
  auto queue = makeThreadSerialQueue("throwing");
  ::testing::internal::CaptureStderr();
  queue->async([] { throw std::runtime_error("boom"); });
  queue->async([] { throw 42; });
  int after = 0;
  queue->sync([&] { after = 1; });
  EXPECT_EQ(after, 1);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "[Orvane] Uncaught exception in queue throwing: boom\n"
            "[Orvane] Uncaught exception in queue throwing: unknown exception\n");
}

TEST(ThreadSerialQueue, DestructionFinishesQueuedWorkAndDropsDelayedWork) {
  auto queue = makeThreadSerialQueue("doomed");
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

  // When a task's closure holds the last reference, the queue is destroyed on its own thread.
  auto selfOwned = makeThreadSerialQueue("self-owned");
  Events gate, finished;
  selfOwned->async([&gate, &finished, self = selfOwned] {
    gate.waitFor(1);
    finished.add(1);
  });
  selfOwned->async([&finished] { finished.add(2); });
  selfOwned.reset();
  gate.add();
  ASSERT_TRUE(finished.waitFor(2));
  EXPECT_EQ(finished.values(), (std::vector<int>{1, 2}));
}

TEST(ThreadExecutors, MainQueueIsTheHostsOrOneOwnQueueAndThreadsAreNamed) {
  auto own = makeThreadExecutors();
  EXPECT_EQ(own->mainQueue(), own->mainQueue());
  EXPECT_EQ(own->mainQueue()->name(), "main");
  auto host = makeThreadSerialQueue("host");
  EXPECT_EQ(makeThreadExecutors(host)->mainQueue(), host);

  // A pool thread takes the name of the queue it runs.
  auto queue = own->makeSerialQueue("orvane.uploader.queue");
  char name[32] = {};
  Events named;
  queue->async([&] {
    pthread_getname_np(pthread_self(), name, sizeof name);
    named.add();
  });
  ASSERT_TRUE(named.waitFor(1));
  EXPECT_STREQ(name, "orvane.uploader");  // the kernel keeps 15 characters
}

TEST(ThreadExecutors, AForkedChildRunsQueueWorkOnThreadsOfItsOwn) {
#if defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "ThreadSanitizer refuses threads in a child of a threaded process";
#endif
  // Two tasks that wait for each other: the shared pool has all its threads now.
  auto first = makeThreadSerialQueue("before fork 1");
  auto second = makeThreadSerialQueue("before fork 2");
  Events together;
  for (auto* queue : {first.get(), second.get()}) {
    queue->async([&] {
      together.add();
      together.waitFor(2);
    });
  }
  ASSERT_TRUE(together.waitFor(2));
  first->sync([] {});
  second->sync([] {});
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    // The parent's pool threads do not exist here; work must still run, within the alarm.
    alarm(10);
    auto queue = makeThreadSerialQueue("in child");
    std::atomic<bool> ran{false};
    queue->async([&] { ran = true; });
    for (int i = 0; i < 1000 && !ran; ++i) std::this_thread::sleep_for(5ms);
    _exit(ran ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
}

// The test double every other suite runs on: order, due times and timers on the fake clock.
TEST(ManualExecutorsTest, RunsWorkInOrderOnlyWhenDrainedOrDueAndTimersPerInterval) {
  auto clock = std::make_shared<testing::FakeClock>();
  auto executors = std::make_shared<testing::ManualExecutors>(clock);
  auto main = executors->mainQueue();
  auto a = executors->makeSerialQueue("a");
  std::vector<std::string> log;
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

  int fast = 0, slow = 0;
  auto fastTimer = main->scheduleRepeating(0.2, [&] { ++fast; });
  main->scheduleRepeating(0.7, [&] { ++slow; });
  executors->advance(2.0);
  EXPECT_EQ(fast, 10);
  for (int i = 0; i < 10; ++i) executors->advance(0.1);  // no drift across small steps
  EXPECT_EQ(fast, 15);
  EXPECT_EQ(slow, 4);
  fastTimer->cancel();
  executors->advance(10);
  EXPECT_EQ(fast, 15);
  EXPECT_EQ(executors->pendingCount(), 1u);
}

}  // namespace
}  // namespace orvane
