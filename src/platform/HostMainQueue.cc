// A main queue whose thread belongs to the host: every job is handed to the host's main loop
// and runs when the host says so. Only the bookkeeping around the hand-off lives here; order
// and the one-thread rule are the host loop's, as they are for any platform main queue.
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <exception>
#include <mutex>

#include "orvane/platform/Executors.h"

namespace orvane {
namespace {

// The queue whose job runs on this thread, if any: work a job submits to its own queue may
// then run inline, as on the platform's main queue.
thread_local const void* runningQueue = nullptr;

void reportUncaught(const char* what) {
  std::fprintf(stderr, "[Orvane] Uncaught exception in queue main: %s\n", what);
}

class NoopCancellable : public Cancellable {
 public:
  void cancel() override {}
};

// Delayed work is cancelled in two places: the timer that has not fired, and the job that
// may already wait in the host's loop.
class HostTimer : public Cancellable {
 public:
  HostTimer(std::shared_ptr<std::atomic<bool>> cancelled, std::shared_ptr<Cancellable> timer)
      : cancelled_(std::move(cancelled)), timer_(std::move(timer)) {}
  void cancel() override {
    cancelled_->store(true);
    if (timer_) timer_->cancel();
  }

 private:
  std::shared_ptr<std::atomic<bool>> cancelled_;
  std::shared_ptr<Cancellable> timer_;
};

}  // namespace

struct HostMainQueue::Core : std::enable_shared_from_this<Core> {
  explicit Core(Dispatcher d) : dispatcher(std::move(d)) {}

  void post(Task task) {
    if (!dispatcher) return;
    try {
      dispatcher(std::unique_ptr<Job>(new Job(shared_from_this(), std::move(task))));
    } catch (const std::exception& e) {
      reportUncaught(e.what());
    } catch (...) {
      reportUncaught("unknown exception in the dispatcher");
    }
  }

  const std::string name = "main";
  const Dispatcher dispatcher;
  std::atomic<std::thread::id> mainThread{};
  std::atomic<bool> mainThreadNamed{false};
};

// ---- Jobs ---------------------------------------------------------------------------------

HostMainQueue::Job::Job(std::shared_ptr<Core> core, Task task)
    : core_(std::move(core)), task_(std::move(task)) {}

HostMainQueue::Job::~Job() = default;

void HostMainQueue::Job::run() noexcept {
  if (!task_) return;
  // Moved out first: the task is destroyed when it has run, even if the host keeps the job.
  Task task = std::move(task_);
  task_ = nullptr;
  if (!core_->mainThreadNamed.load()) core_->mainThread.store(std::this_thread::get_id());
  const void* previous = runningQueue;
  runningQueue = core_.get();
  try {
    task();
  } catch (const std::exception& e) {
    reportUncaught(e.what());
  } catch (...) {
    reportUncaught("unknown exception");
  }
  runningQueue = previous;
}

// ---- The queue ----------------------------------------------------------------------------

HostMainQueue::HostMainQueue(Dispatcher dispatcher, std::shared_ptr<SerialQueue> timerQueue)
    : core_(std::make_shared<Core>(std::move(dispatcher))), timerQueue_(std::move(timerQueue)) {}

const std::string& HostMainQueue::name() const { return core_->name; }

void HostMainQueue::async(Task task) { core_->post(std::move(task)); }

std::shared_ptr<Cancellable> HostMainQueue::asyncAfter(double delaySeconds, Task task) {
  if (!timerQueue_) return std::make_shared<NoopCancellable>();
  auto cancelled = std::make_shared<std::atomic<bool>>(false);
  auto shared = std::make_shared<Task>(std::move(task));
  std::weak_ptr<Core> weak = core_;
  auto timer = timerQueue_->asyncAfter(delaySeconds, [weak, cancelled, shared] {
    auto core = weak.lock();
    if (!core || cancelled->load()) return;
    core->post([cancelled, shared] {
      if (!cancelled->load()) (*shared)();
    });
  });
  return std::make_shared<HostTimer>(cancelled, std::move(timer));
}

std::shared_ptr<Cancellable> HostMainQueue::scheduleRepeating(double intervalSeconds, Task task) {
  if (!timerQueue_) return std::make_shared<NoopCancellable>();
  auto cancelled = std::make_shared<std::atomic<bool>>(false);
  auto shared = std::make_shared<Task>(std::move(task));
  std::weak_ptr<Core> weak = core_;
  auto timer = timerQueue_->scheduleRepeating(intervalSeconds, [weak, cancelled, shared] {
    auto core = weak.lock();
    if (!core || cancelled->load()) return;
    core->post([cancelled, shared] {
      if (!cancelled->load()) (*shared)();
    });
  });
  return std::make_shared<HostTimer>(cancelled, std::move(timer));
}

void HostMainQueue::sync(Task task) {
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
  // Signals the waiter when the job's task is destroyed, whether it ran or the host dropped
  // the job unrun: a dropped job must not leave the caller waiting for ever.
  struct Finisher {
    explicit Finisher(std::shared_ptr<Completion> c) : completion(std::move(c)) {}
    Finisher(const Finisher&) = delete;
    Finisher& operator=(const Finisher&) = delete;
    std::shared_ptr<Completion> completion;
    ~Finisher() {
      std::lock_guard<std::mutex> guard(completion->mutex);
      completion->finished = true;
      completion->done.notify_all();
    }
  };
  auto completion = std::make_shared<Completion>();
  auto finisher = std::make_shared<Finisher>(completion);
  core_->post([&task, completion, finisher] {
    try {
      task();
    } catch (...) {
      completion->error = std::current_exception();
    }
  });
  finisher.reset();
  std::unique_lock<std::mutex> lock(completion->mutex);
  completion->done.wait(lock, [&] { return completion->finished; });
  if (completion->error) std::rethrow_exception(completion->error);
}

bool HostMainQueue::isCurrent() const {
  if (runningQueue == core_.get()) return true;
  const std::thread::id main = core_->mainThread.load();
  return main != std::thread::id() && main == std::this_thread::get_id();
}

void HostMainQueue::setMainThread(std::thread::id thread) {
  core_->mainThread.store(thread);
  core_->mainThreadNamed.store(thread != std::thread::id());
}

// ---- Executors around it ------------------------------------------------------------------

namespace {

class MainQueueExecutors : public Executors {
 public:
  MainQueueExecutors(std::shared_ptr<Executors> base, std::shared_ptr<SerialQueue> mainQueue)
      : base_(std::move(base)), mainQueue_(std::move(mainQueue)) {}
  std::shared_ptr<SerialQueue> mainQueue() override { return mainQueue_; }
  std::shared_ptr<SerialQueue> makeSerialQueue(const std::string& name) override {
    return base_->makeSerialQueue(name);
  }

 private:
  const std::shared_ptr<Executors> base_;
  const std::shared_ptr<SerialQueue> mainQueue_;
};

}  // namespace

std::shared_ptr<Executors> makeExecutorsWithMainQueue(std::shared_ptr<Executors> base,
                                                      std::shared_ptr<SerialQueue> mainQueue) {
  return std::make_shared<MainQueueExecutors>(std::move(base), std::move(mainQueue));
}

}  // namespace orvane
