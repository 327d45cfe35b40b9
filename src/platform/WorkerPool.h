// A small, process-wide set of threads that serial queues take turns on. A queue with work
// asks for a turn; a queue with timers asks to be woken at its earliest due time. Threads are
// started on demand up to the limit and then kept; the pool itself is never destroyed, so a
// thread still finishing a task while the process exits never finds it gone.
//
// A thread that waits on the outside world (an HTTP transfer) says so with a BlockingScope;
// while it waits it does not count towards the limit, so queued work is not held up behind
// the network. Threads started for that leave once the pool is back within its limit.
//
// Lock order: a client may call in while holding its own lock; the pool never calls a client
// while holding the pool's lock.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace orvane {

class PoolClient {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;
  virtual ~PoolClient() = default;
  // Runs some of the client's work on the calling pool thread.
  virtual void runTurn() = 0;
  // A wake-up asked for with wakeAt() fell due.
  virtual void onAlarm(TimePoint due) = 0;
};

class WorkerPool {
 public:
  using TimePoint = PoolClient::TimePoint;

  explicit WorkerPool(size_t maxThreads);
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;

  // The pool every thread-backed serial queue runs on.
  static WorkerPool& shared();

  // Gives `client` a turn on the next free thread, after the clients already waiting.
  void runSoon(std::shared_ptr<PoolClient> client);
  // Calls client->onAlarm(due) on a pool thread once `due` has passed, unless the client is
  // gone by then.
  void wakeAt(TimePoint due, std::weak_ptr<PoolClient> client);

  size_t threadCount() const;

  // While it lives, the calling pool thread of `pool` waits on something outside the pool.
  // Elsewhere it does nothing.
  class BlockingScope {
   public:
    explicit BlockingScope(WorkerPool& pool);
    ~BlockingScope();
    BlockingScope(const BlockingScope&) = delete;
    BlockingScope& operator=(const BlockingScope&) = delete;

   private:
    WorkerPool* pool_;  // null when not on one of its threads
  };

 private:
  void work();
  static void beforeFork();
  static void afterForkInParent();
  static void afterForkInChild();
  // A thread for the work just added: an idle one if there is one, else a new one.
  void summonLocked();

  const size_t maxThreads_;
  mutable std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<std::shared_ptr<PoolClient>> ready_;
  std::multimap<TimePoint, std::weak_ptr<PoolClient>> alarms_;
  size_t threads_ = 0;
  size_t blocked_ = 0;  // threads inside a BlockingScope
  size_t idle_ = 0;
  size_t summoned_ = 0;  // idle threads already woken for new work
};

class SerialQueue;

// A serial queue that runs on `pool`, which must outlive it (makeThreadSerialQueue uses the
// shared pool).
std::shared_ptr<SerialQueue> makePooledSerialQueue(const std::string& name, WorkerPool& pool);

}  // namespace orvane
