// Serial queues on a pool with fewer threads than queues: the guarantees of a queue with a
// thread of its own must hold, and no wait may depend on a pool thread coming free.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "orvane/platform/Executors.h"
#include "platform/WorkerPool.h"

namespace orvane {
namespace {

using namespace std::chrono_literals;

// Pools outlive every queue of every test, as the shared one does.
WorkerPool& poolOf(size_t threads) { return *new WorkerPool(threads); }

class Latch {
 public:
  void open() {
    std::lock_guard<std::mutex> guard(mutex_);
    open_ = true;
    changed_.notify_all();
  }
  bool waitOpen(std::chrono::milliseconds limit = 10s) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, limit, [&] { return open_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool open_ = false;
};

TEST(PooledSerialQueue, SyncFromThePoolsOnlyThreadRunsWorkWaitingForThatThread) {
  WorkerPool& pool = poolOf(1);
  auto caller = makePooledSerialQueue("caller", pool);
  auto target = makePooledSerialQueue("target", pool);
  std::vector<int> order;  // touched only on `target`
  Latch targetQueued, done;
  bool inside = false;
  caller->async([&] {
    targetQueued.waitOpen();  // the target's work now waits for this, the only thread
    target->sync([&] {
      inside = target->isCurrent() && !caller->isCurrent();
      order.push_back(3);
    });
    done.open();
  });
  target->async([&] { order.push_back(1); });
  target->async([&] { order.push_back(2); });
  targetQueued.open();
  ASSERT_TRUE(done.waitOpen()) << "sync waited for a pool thread that was its own caller";
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
  EXPECT_TRUE(inside);
  EXPECT_EQ(pool.threadCount(), 1u);
}

TEST(PooledSerialQueue, ManyQueuesShareFewThreadsKeepingOrderAndOneTaskAtATime) {
  WorkerPool& pool = poolOf(2);
  constexpr int kQueues = 8, kTasks = 200;
  std::vector<std::shared_ptr<SerialQueue>> queues;
  std::vector<std::vector<int>> seen(kQueues);
  std::vector<std::atomic<int>> inside(kQueues);
  std::atomic<int> overlaps{0}, running{0}, mostRunning{0}, finished{0};
  Latch allFinished;
  for (int q = 0; q < kQueues; ++q) queues.push_back(makePooledSerialQueue("q", pool));
  for (int i = 0; i < kTasks; ++i) {
    for (int q = 0; q < kQueues; ++q) {
      queues[q]->async([&, q, i] {
        if (inside[q].fetch_add(1) != 0) overlaps++;
        const int now = running.fetch_add(1) + 1;
        int most = mostRunning.load();
        while (now > most && !mostRunning.compare_exchange_weak(most, now)) {
        }
        if (i % 50 == 0) std::this_thread::sleep_for(2ms);
        seen[q].push_back(i);
        running.fetch_sub(1);
        inside[q].fetch_sub(1);
        if (i == kTasks - 1 && finished.fetch_add(1) + 1 == kQueues) allFinished.open();
      });
    }
  }
  // A chain of syncs, each from a pool thread onto a queue with work still queued.
  Latch chained;
  queues[0]->async([&] {
    queues[1]->sync([&] { queues[2]->sync([&] { queues[3]->sync([] {}); }); });
    chained.open();
  });
  ASSERT_TRUE(chained.waitOpen());
  // Waiting without sync: a sync from here would lend this thread to the queues as well.
  ASSERT_TRUE(allFinished.waitOpen());
  EXPECT_EQ(overlaps.load(), 0);
  EXPECT_LE(mostRunning.load(), 2);
  EXPECT_EQ(pool.threadCount(), 2u);
  for (int q = 0; q < kQueues; ++q) {
    ASSERT_EQ(seen[q].size(), size_t{kTasks});
    for (int i = 0; i < kTasks; ++i) ASSERT_EQ(seen[q][i], i) << "queue " << q << " reordered";
  }
}

TEST(PooledSerialQueue, BusyQueueLetsOthersAndTheirTimersRunOnASingleThread) {
  WorkerPool& pool = poolOf(1);
  auto busy = makePooledSerialQueue("busy", pool);
  auto other = makePooledSerialQueue("other", pool);
  std::atomic<bool> stop{false};
  std::function<void()> spin = [&] {
    if (!stop.load()) busy->async(spin);  // never empty while it runs
  };
  busy->async(spin);
  Latch ran, fired;
  other->async([&] { ran.open(); });
  auto timer = other->asyncAfter(0.02, [&] { fired.open(); });
  const bool otherRan = ran.waitOpen(5s);
  const bool timerFired = fired.waitOpen(5s);
  stop = true;
  busy->sync([] {});
  EXPECT_TRUE(otherRan) << "a queue that keeps itself busy starved the others";
  EXPECT_TRUE(timerFired);
}

TEST(PooledSerialQueue, DestructionRunsQueuedWorkWithoutAFreePoolThread) {
  WorkerPool& pool = poolOf(1);
  auto blocker = makePooledSerialQueue("blocker", pool);
  auto doomed = makePooledSerialQueue("doomed", pool);
  Latch release, blocking;
  blocker->async([&] {
    blocking.open();
    release.waitOpen();
  });
  ASSERT_TRUE(blocking.waitOpen());
  std::vector<int> ran;
  bool current = false;
  doomed->async([&] { ran.push_back(1); });
  doomed->async([&, raw = doomed.get()] {
    current = raw->isCurrent();
    ran.push_back(2);
  });
  doomed->asyncAfter(30, [&] { ran.push_back(3); });
  doomed.reset();  // the only pool thread is held: the work runs here
  EXPECT_EQ(ran, (std::vector<int>{1, 2}));
  EXPECT_TRUE(current);
  release.open();
  blocker->sync([] {});
}

TEST(PooledSerialQueue, WorkWaitingOnTheNetworkLendsItsPlaceAndTheExtraThreadLeaves) {
  WorkerPool& pool = poolOf(1);
  auto transfer = makePooledSerialQueue("transfer", pool);
  auto other = makePooledSerialQueue("other", pool);
  Latch waiting, answered, otherRan;
  transfer->async([&] {
    WorkerPool::BlockingScope blocking(pool);
    waiting.open();
    answered.waitOpen();
  });
  ASSERT_TRUE(waiting.waitOpen());
  other->async([&] { otherRan.open(); });
  EXPECT_TRUE(otherRan.waitOpen(5s)) << "queued work waited behind a thread on the network";
  EXPECT_EQ(pool.threadCount(), 2u);
  answered.open();
  transfer->sync([] {});
  other->sync([] {});
  // Back within its limit, the pool lets the extra thread go.
  for (int i = 0; i < 500 && pool.threadCount() > 1; ++i) std::this_thread::sleep_for(10ms);
  EXPECT_EQ(pool.threadCount(), 1u);
}

}  // namespace
}  // namespace orvane
