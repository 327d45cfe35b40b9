// Serial queues that each own a thread. Work submitted with async runs in submission order;
// delayed and repeating work waits in a due-time index and joins the back of that order when
// it falls due, so a timer never overtakes work that was already queued.
//
// Task objects are only ever destroyed with the queue's mutex released: a task may hold the
// last reference to its own queue, and destroying it under the lock would re-enter it.
#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <exception>
#include <map>
#include <mutex>
#include <thread>
#include <utility>

#include "orvane/platform/Executors.h"

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

struct QueueState {
  explicit QueueState(std::string queueName) : name(std::move(queueName)) {}

  const std::string name;
  std::mutex mutex;
  std::condition_variable wake;
  bool stopping = false;
  std::deque<Job> jobs;
  std::map<std::pair<TimePoint, uint64_t>, std::shared_ptr<Timer>> timers;
  uint64_t nextOrder = 0;

  bool post(Task& task) {
    {
      std::lock_guard<std::mutex> guard(mutex);
      if (stopping) return false;
      jobs.push_back(Job{std::move(task), nullptr});
    }
    wake.notify_one();
    return true;
  }

  std::shared_ptr<Timer> schedule(Duration delay, Duration interval, Task& task) {
    auto timer = std::make_shared<Timer>();
    timer->interval = interval;
    timer->task = std::make_shared<Task>(std::move(task));
    {
      std::lock_guard<std::mutex> guard(mutex);
      if (stopping) {
        // Hand the task back so it is destroyed by the caller, outside the lock.
        task = std::move(*timer->task);
        return nullptr;
      }
      insertLocked(timer, SteadyClock::now() + delay);
    }
    wake.notify_one();
    return timer;
  }

  void insertLocked(const std::shared_ptr<Timer>& timer, TimePoint due) {
    timer->key = {due, nextOrder++};
    timers.emplace(timer->key, timer);
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

  void runWorker() {
    currentQueue = this;
    std::unique_lock<std::mutex> lock(mutex);
    while (true) {
      if (!stopping) promoteDueTimersLocked(SteadyClock::now());
      if (!jobs.empty()) {
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
        continue;
      }
      // Work already queued is finished before the thread ends; timers are not.
      if (stopping) break;
      if (timers.empty()) {
        wake.wait(lock);
      } else {
        // A copy: wait_until reads its deadline again after waking, and a cancel may have
        // erased the timer's entry meanwhile.
        const TimePoint due = timers.begin()->first.first;
        wake.wait_until(lock, due);
      }
    }
    auto dropped = std::move(timers);
    timers.clear();
    lock.unlock();
    dropped.clear();
    currentQueue = nullptr;
  }
};

void nameThisThread(const std::string& name) {
  // Linux limits thread names to 15 bytes plus the terminator.
  const std::string shortName = name.substr(0, 15);
  if (!shortName.empty()) pthread_setname_np(pthread_self(), shortName.c_str());
}

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

class ThreadSerialQueue final : public SerialQueue {
 public:
  explicit ThreadSerialQueue(const std::string& name)
      : state_(std::make_shared<QueueState>(name)), thread_([state = state_] {
          nameThisThread(state->name);
          state->runWorker();
        }) {}

  ~ThreadSerialQueue() override {
    {
      std::lock_guard<std::mutex> guard(state_->mutex);
      state_->stopping = true;
    }
    state_->wake.notify_all();
    // The last reference can go away inside one of our own tasks; the thread cannot join
    // itself, so it finishes the queued work on its own and the shared state outlives us.
    if (thread_.get_id() == std::this_thread::get_id()) {
      thread_.detach();
    } else {
      thread_.join();
    }
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
      std::mutex mutex;
      std::condition_variable done;
      bool finished = false;
      std::exception_ptr error;
    };
    auto completion = std::make_shared<Completion>();
    Task job = [&task, completion] {
      try {
        task();
      } catch (...) {
        completion->error = std::current_exception();
      }
      std::lock_guard<std::mutex> guard(completion->mutex);
      completion->finished = true;
      completion->done.notify_all();
    };
    if (!state_->post(job)) return;
    std::unique_lock<std::mutex> lock(completion->mutex);
    completion->done.wait(lock, [&] { return completion->finished; });
    // The caller asked to wait for the task, so it gets the task's failure too, as it
    // would had the task run inline.
    if (completion->error) std::rethrow_exception(completion->error);
  }

  bool isCurrent() const override { return currentQueue == state_.get(); }

 private:
  std::shared_ptr<Cancellable> handleFor(const std::shared_ptr<Timer>& timer) {
    if (!timer) return std::make_shared<NoopCancellable>();
    return std::make_shared<TimerCancellable>(state_, timer);
  }

  std::shared_ptr<QueueState> state_;
  std::thread thread_;
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

std::shared_ptr<SerialQueue> makeThreadSerialQueue(const std::string& name) {
  return std::make_shared<ThreadSerialQueue>(name);
}

std::shared_ptr<Executors> makeThreadExecutors(std::shared_ptr<SerialQueue> hostMainQueue) {
  return std::make_shared<ThreadExecutors>(std::move(hostMainQueue));
}

}  // namespace orvane
