// Serial queues that take turns on the shared worker pool. Work submitted with async runs in
// submission order, one task at a time per queue; delayed and repeating work waits in a
// due-time index and joins the back of that order when it falls due, so a timer never
// overtakes work that was already queued.
//
// A queue is idle, waiting for a pool thread, or running on exactly one thread. sync() and
// destruction do not wait for a pool thread: when the queue is not running they claim it and
// run its work, up to their own, on the calling thread. So a pool thread that waits on
// another queue never waits for a free pool thread, and a small pool cannot deadlock that way.
//
// Task objects are only ever destroyed with the queue's mutex released: a task may hold the
// last reference to its own queue, and destroying it under the lock would re-enter it.
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <exception>
#include <limits>
#include <map>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

#include "orvane/platform/Executors.h"
#include "platform/ThreadName.h"
#include "platform/WorkerPool.h"

namespace orvane {
namespace {

using SteadyClock = std::chrono::steady_clock;
using TimePoint = SteadyClock::time_point;
using Duration = SteadyClock::duration;

Duration toDuration(double seconds) {
  if (!(seconds > 0)) return Duration::zero();  // also catches NaN
  // Anything beyond a century means "never" in practice and must not overflow the clock.
  constexpr double kLongest = 100.0 * 365 * 24 * 3600;
  return std::chrono::duration_cast<Duration>(
      std::chrono::duration<double>(std::min(seconds, kLongest)));
}

// A repeating timer with no interval would starve its own queue.
constexpr Duration kShortestInterval = std::chrono::milliseconds(1);

struct Timer {
  // The timer's place in the due-time index; the order number breaks ties between timers
  // due at the same instant in the order they were (re)scheduled.
  std::pair<TimePoint, uint64_t> key;
  Duration interval = Duration::zero();  // zero for one-shot work
  std::shared_ptr<Task> task;            // released on cancel and after a one-shot has run
  bool cancelled = false;
};

struct Job {
  Task task;                     // plain async work, or
  std::shared_ptr<Timer> timer;  // a timer that fell due
};

void reportUncaught(const std::string& queueName, const char* what) {
  std::fprintf(stderr, "[Orvane] Uncaught exception in queue %s: %s\n", queueName.c_str(), what);
}

// A throwing task must not take the queue's thread down with it.
void runContained(const std::string& queueName, const Task& task) {
  try {
    task();
  } catch (const std::exception& e) {
    reportUncaught(queueName, e.what());
  } catch (...) {
    reportUncaught(queueName, "unknown exception");
  }
}

struct QueueState;
thread_local const QueueState* currentQueue = nullptr;

// A pool thread names itself after the queue it runs, for debuggers and crash reports;
// threads of the host that run a queue's work inside sync() keep their own names.
thread_local bool isPoolThread = false;
thread_local std::string poolThreadName;

// Tasks one pool turn runs before the queue goes to the back of the line, so that a busy
// queue cannot hold a pool thread away from the others.
constexpr size_t kTasksPerTurn = 32;

struct QueueState final : PoolClient, std::enable_shared_from_this<QueueState> {
  enum class Phase { kIdle, kWaitingForPool, kRunning };

  explicit QueueState(std::string queueName, WorkerPool& workerPool)
      : name(std::move(queueName)), pool(workerPool) {}

  const std::string name;
  WorkerPool& pool;
  std::mutex mutex;
  // Notified when the queue stops running and when a sync task finishes.
  std::condition_variable changed;
  bool stopping = false;
  bool releasedFromOwnTask = false;  // then whoever runs the queue drops its timers
  Phase phase = Phase::kIdle;
  std::deque<Job> jobs;
  std::map<std::pair<TimePoint, uint64_t>, std::shared_ptr<Timer>> timers;
  uint64_t nextOrder = 0;
  std::optional<TimePoint> alarm;  // the earliest wake-up asked of the pool

  bool post(Task& task) {
    {
      std::lock_guard<std::mutex> guard(mutex);
      if (stopping) return false;
      jobs.push_back(Job{std::move(task), nullptr});
      requestTurnLocked();
    }
    return true;
  }

  std::shared_ptr<Timer> schedule(Duration delay, Duration interval, Task& task) {
    auto timer = std::make_shared<Timer>();
    timer->interval = interval;
    timer->task = std::make_shared<Task>(std::move(task));
    std::lock_guard<std::mutex> guard(mutex);
    if (stopping) {
      // Hand the task back so it is destroyed by the caller, outside the lock.
      task = std::move(*timer->task);
      return nullptr;
    }
    insertLocked(timer, SteadyClock::now() + delay);
    return timer;
  }

  void insertLocked(const std::shared_ptr<Timer>& timer, TimePoint due) {
    timer->key = {due, nextOrder++};
    timers.emplace(timer->key, timer);
    armLocked();
  }

  // Asks the pool to wake the queue when its earliest timer falls due, unless an earlier
  // wake-up is already asked for. Wake-ups for timers cancelled since are harmless.
  void armLocked() {
    if (stopping || timers.empty()) return;
    const TimePoint due = timers.begin()->first.first;
    if (alarm && *alarm <= due) return;
    alarm = due;
    pool.wakeAt(due, weak_from_this());
  }

  void requestTurnLocked() {
    if (phase != Phase::kIdle || jobs.empty()) return;
    phase = Phase::kWaitingForPool;
    pool.runSoon(shared_from_this());
  }

  void cancel(const std::shared_ptr<Timer>& timer) {
    std::shared_ptr<Task> released;
    {
      std::lock_guard<std::mutex> guard(mutex);
      if (timer->cancelled) return;
      timer->cancelled = true;
      timers.erase(timer->key);
      released = std::move(timer->task);
    }
  }

  void promoteDueTimersLocked(TimePoint now) {
    while (!timers.empty() && timers.begin()->first.first <= now) {
      jobs.push_back(Job{nullptr, std::move(timers.begin()->second)});
      timers.erase(timers.begin());
    }
  }

  void runTimer(const std::shared_ptr<Timer>& timer) {
    std::shared_ptr<Task> task;
    {
      std::lock_guard<std::mutex> guard(mutex);
      // Delayed work still waiting when the queue shuts down is dropped.
      if (stopping || timer->cancelled) return;
      task = timer->task;
      if (timer->interval == Duration::zero()) timer->task.reset();
    }
    runContained(name, *task);
    if (timer->interval == Duration::zero()) return;
    std::lock_guard<std::mutex> guard(mutex);
    // A repeating task may have cancelled itself, or the queue may be shutting down.
    if (stopping || timer->cancelled) return;
    // Keep to the original beat; if the run overran its slot, skip ahead rather than fire
    // a burst of catch-up runs.
    const TimePoint now = SteadyClock::now();
    TimePoint next = timer->key.first + timer->interval;
    if (next <= now) next = now + timer->interval;
    insertLocked(timer, next);
  }

  // Runs queued work on the calling thread, which must have claimed the queue (phase
  // kRunning), until `enough` says so, the queue is empty or `budget` tasks have run.
  template <typename Enough>
  void drainLocked(std::unique_lock<std::mutex>& lock, Enough enough, size_t budget) {
    const QueueState* outer = currentQueue;
    currentQueue = this;
    if (isPoolThread && poolThreadName != name) {
      setCurrentThreadName(name);
      poolThreadName = name;
    }
    for (size_t ran = 0; ran < budget && !enough(); ++ran) {
      if (!stopping) promoteDueTimersLocked(SteadyClock::now());
      if (jobs.empty()) break;
      Job job = std::move(jobs.front());
      jobs.pop_front();
      lock.unlock();
      if (job.timer) {
        runTimer(job.timer);
      } else {
        runContained(name, job.task);
      }
      job = Job{};
      lock.lock();
    }
    currentQueue = outer;
  }

  // Gives the queue up after a drain: back to the pool if work is left, to idle otherwise.
  // A queue released inside its own task has its timers handed back once the queued work is
  // done, for the caller to destroy once the lock is released.
  [[nodiscard]] auto releaseLocked() {
    phase = Phase::kIdle;
    requestTurnLocked();
    armLocked();
    changed.notify_all();
    decltype(timers) dropped;
    if (releasedFromOwnTask && jobs.empty()) dropped.swap(timers);
    return dropped;
  }

  // Runs queued work on the calling thread until `enough` says so, taking turns with whoever
  // else runs the queue. Used by threads that must not wait for a pool thread.
  template <typename Enough>
  void runHereUntil(std::unique_lock<std::mutex>& lock, Enough enough) {
    while (!enough()) {
      if (phase == Phase::kRunning) {
        changed.wait(lock);
        continue;
      }
      if (jobs.empty()) break;  // nothing left that is ours to run; timers are not
      phase = Phase::kRunning;  // a pool turn already asked for finds it taken and passes
      drainLocked(lock, enough, std::numeric_limits<size_t>::max());
      auto dropped = releaseLocked();
      lock.unlock();
      dropped.clear();
      lock.lock();
      if (jobs.empty()) break;
    }
  }

  void runTurn() override {
    std::unique_lock<std::mutex> lock(mutex);
    if (phase != Phase::kWaitingForPool) return;  // claimed meanwhile by a sync or a stop
    phase = Phase::kRunning;
    isPoolThread = true;
    drainLocked(
        lock, [] { return false; }, kTasksPerTurn);
    auto dropped = releaseLocked();
    lock.unlock();
  }

  void onAlarm(TimePoint due) override {
    std::lock_guard<std::mutex> guard(mutex);
    if (alarm && *alarm <= due) alarm.reset();
    if (stopping) return;
    promoteDueTimersLocked(SteadyClock::now());
    requestTurnLocked();
    armLocked();
  }
};

class NoopCancellable : public Cancellable {
 public:
  void cancel() override {}
};

class TimerCancellable : public Cancellable {
 public:
  TimerCancellable(std::weak_ptr<QueueState> state, std::weak_ptr<Timer> timer)
      : state_(std::move(state)), timer_(std::move(timer)) {}
  void cancel() override {
    auto state = state_.lock();
    auto timer = timer_.lock();
    if (state && timer) state->cancel(timer);
  }

 private:
  // Weak: holding a handle must keep neither the queue nor finished work alive.
  std::weak_ptr<QueueState> state_;
  std::weak_ptr<Timer> timer_;
};

class PooledSerialQueue final : public SerialQueue {
 public:
  PooledSerialQueue(const std::string& name, WorkerPool& pool)
      : state_(std::make_shared<QueueState>(name, pool)) {}

  ~PooledSerialQueue() override {
    std::unique_lock<std::mutex> lock(state_->mutex);
    state_->stopping = true;
    // The last reference can go away inside one of our own tasks; whoever runs the queue
    // then finishes the queued work on its own, and the shared state outlives us.
    if (currentQueue == state_.get()) {
      state_->releasedFromOwnTask = true;
      return;
    }
    // Work already queued is finished, here if no thread is running it; timers are not.
    state_->runHereUntil(
        lock, [&] { return state_->jobs.empty() && state_->phase != QueueState::Phase::kRunning; });
    // Dropped here, not by a pool thread, so that what they hold is gone when we return.
    decltype(state_->timers) dropped;
    dropped.swap(state_->timers);
    lock.unlock();
  }

  const std::string& name() const override { return state_->name; }

  void async(Task task) override { state_->post(task); }

  std::shared_ptr<Cancellable> asyncAfter(double delaySeconds, Task task) override {
    return handleFor(state_->schedule(toDuration(delaySeconds), Duration::zero(), task));
  }

  std::shared_ptr<Cancellable> scheduleRepeating(double intervalSeconds, Task task) override {
    const Duration interval = std::max(toDuration(intervalSeconds), kShortestInterval);
    return handleFor(state_->schedule(interval, interval, task));
  }

  void sync(Task task) override {
    if (isCurrent()) {
      task();
      return;
    }
    struct Completion {
      bool finished = false;  // guarded by the queue's mutex
      std::exception_ptr error;
    };
    const std::shared_ptr<QueueState> state = state_;  // a task may release the queue
    Completion completion;
    Task job = [&task, &completion, raw = state.get()] {
      try {
        task();
      } catch (...) {
        completion.error = std::current_exception();
      }
      std::lock_guard<std::mutex> guard(raw->mutex);
      completion.finished = true;
      raw->changed.notify_all();
    };
    std::unique_lock<std::mutex> lock(state->mutex);
    if (state->stopping) return;
    state->jobs.push_back(Job{std::move(job), nullptr});
    // Earlier work and then this task run here unless a thread is running the queue now;
    // either way nothing waits for a free pool thread.
    state->runHereUntil(lock, [&] { return completion.finished; });
    lock.unlock();
    // The caller asked to wait for the task, so it gets the task's failure too, as it
    // would had the task run inline.
    if (completion.error) std::rethrow_exception(completion.error);
  }

  bool isCurrent() const override { return currentQueue == state_.get(); }

 private:
  std::shared_ptr<Cancellable> handleFor(const std::shared_ptr<Timer>& timer) {
    if (!timer) return std::make_shared<NoopCancellable>();
    return std::make_shared<TimerCancellable>(state_, timer);
  }

  std::shared_ptr<QueueState> state_;
};

class ThreadExecutors : public Executors {
 public:
  explicit ThreadExecutors(std::shared_ptr<SerialQueue> hostMainQueue)
      : hostMainQueue_(std::move(hostMainQueue)) {}

  std::shared_ptr<SerialQueue> mainQueue() override {
    if (hostMainQueue_) return hostMainQueue_;
    std::lock_guard<std::mutex> guard(mutex_);
    if (!ownMainQueue_) ownMainQueue_ = makeThreadSerialQueue("main");
    return ownMainQueue_;
  }

  std::shared_ptr<SerialQueue> makeSerialQueue(const std::string& name) override {
    return makeThreadSerialQueue(name);
  }

 private:
  const std::shared_ptr<SerialQueue> hostMainQueue_;
  std::mutex mutex_;
  std::shared_ptr<SerialQueue> ownMainQueue_;
};

}  // namespace

std::shared_ptr<SerialQueue> makePooledSerialQueue(const std::string& name, WorkerPool& pool) {
  return std::make_shared<PooledSerialQueue>(name, pool);
}

std::shared_ptr<SerialQueue> makeThreadSerialQueue(const std::string& name) {
  return makePooledSerialQueue(name, WorkerPool::shared());
}

std::shared_ptr<Executors> makeThreadExecutors(std::shared_ptr<SerialQueue> hostMainQueue) {
  return std::make_shared<ThreadExecutors>(std::move(hostMainQueue));
}

}  // namespace orvane
