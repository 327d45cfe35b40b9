#include "platform/WorkerPool.h"

#include <pthread.h>

#include <cstdio>
#include <exception>
#include <thread>
#include <utility>
#include <vector>

#include "platform/ThreadName.h"

namespace orvane {
namespace {

// Two threads carry every serial queue: one may be held by a task that waits on the network
// (a model download) while the other keeps the rest moving. More would cost memory (a stack
// and a malloc arena each) without making a host any faster.
constexpr size_t kSharedPoolThreads = 2;

thread_local WorkerPool* currentPool = nullptr;

}  // namespace

WorkerPool::BlockingScope::BlockingScope(WorkerPool& pool)
    : pool_(currentPool == &pool ? &pool : nullptr) {
  if (!pool_) return;
  std::lock_guard<std::mutex> guard(pool_->mutex_);
  ++pool_->blocked_;
  if (!pool_->ready_.empty()) pool_->summonLocked();
}

WorkerPool::BlockingScope::~BlockingScope() {
  if (!pool_) return;
  std::lock_guard<std::mutex> guard(pool_->mutex_);
  --pool_->blocked_;
}

WorkerPool::WorkerPool(size_t maxThreads) : maxThreads_(maxThreads > 0 ? maxThreads : 1) {}

WorkerPool& WorkerPool::shared() {
  // Never destroyed: queues owned by static objects may still post while the process exits.
  static WorkerPool* pool = [] {
    auto* created = new WorkerPool(kSharedPoolThreads);
    pthread_atfork(&WorkerPool::beforeFork, &WorkerPool::afterForkInParent,
                   &WorkerPool::afterForkInChild);
    return created;
  }();
  return *pool;
}

// A child of fork() has none of the pool's threads. Counting them as there would leave its
// work waiting forever, so the child starts from none (queues that were running at the fork
// stay with the parent). The lock is held across fork() so the child finds it consistent.
void WorkerPool::beforeFork() { shared().mutex_.lock(); }

void WorkerPool::afterForkInParent() { shared().mutex_.unlock(); }

void WorkerPool::afterForkInChild() {
  WorkerPool& pool = shared();
  pool.threads_ = 0;
  pool.blocked_ = 0;
  pool.idle_ = 0;
  pool.summoned_ = 0;
  currentPool = nullptr;
  pool.mutex_.unlock();
}

void WorkerPool::runSoon(std::shared_ptr<PoolClient> client) {
  std::lock_guard<std::mutex> guard(mutex_);
  ready_.push_back(std::move(client));
  summonLocked();
}

void WorkerPool::wakeAt(TimePoint due, std::weak_ptr<PoolClient> client) {
  std::lock_guard<std::mutex> guard(mutex_);
  const bool earliest = alarms_.empty() || due < alarms_.begin()->first;
  alarms_.emplace(due, std::move(client));
  if (!earliest) return;
  if (idle_ > 0) {
    wake_.notify_all();  // idle threads wait for the old earliest alarm; let them see this one
  } else if (threads_ == 0) {
    summonLocked();
  }
  // Otherwise every thread is busy and looks at the alarms when its turn ends.
}

size_t WorkerPool::threadCount() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return threads_;
}

void WorkerPool::summonLocked() {
  if (idle_ > summoned_) {
    ++summoned_;
    wake_.notify_one();
    return;
  }
  // A busy thread takes the work when its turn ends.
  if (threads_ - blocked_ >= maxThreads_) return;
  try {
    std::thread([this] { work(); }).detach();
    ++threads_;
  } catch (const std::exception& e) {
    // The work stays listed and a later request tries again; with at least one thread
    // running it is only delayed.
    std::fprintf(stderr, "[Orvane] Cannot start a worker thread (%zu running): %s\n", threads_,
                 e.what());
  }
}

void WorkerPool::work() {
  setCurrentThreadName("orvane.pool");
  currentPool = this;
  std::unique_lock<std::mutex> lock(mutex_);
  std::vector<std::pair<TimePoint, std::weak_ptr<PoolClient>>> due;
  for (;;) {
    const TimePoint now = std::chrono::steady_clock::now();
    while (!alarms_.empty() && alarms_.begin()->first <= now) {
      due.emplace_back(alarms_.begin()->first, std::move(alarms_.begin()->second));
      alarms_.erase(alarms_.begin());
    }
    if (!due.empty()) {
      lock.unlock();
      for (auto& [time, weakClient] : due) {
        if (auto client = weakClient.lock()) client->onAlarm(time);
      }
      due.clear();
      lock.lock();
      continue;
    }
    if (!ready_.empty()) {
      std::shared_ptr<PoolClient> client = std::move(ready_.front());
      ready_.pop_front();
      lock.unlock();
      client->runTurn();
      client.reset();  // may be the last reference: released with the pool's lock free
      lock.lock();
      continue;
    }
    if (threads_ - blocked_ > maxThreads_) {
      // Started while others waited on the network, which they no longer do.
      --threads_;
      return;
    }
    ++idle_;
    if (alarms_.empty()) {
      wake_.wait(lock);
    } else {
      const TimePoint next = alarms_.begin()->first;  // a copy: the entry may go meanwhile
      wake_.wait_until(lock, next);
    }
    --idle_;
    if (summoned_ > 0) --summoned_;
  }
}

}  // namespace orvane
