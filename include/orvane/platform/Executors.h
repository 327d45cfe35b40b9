// File: Executors.h
// Serial queues: the main queue, named queues, delayed work and repeating timers. The core's
// queues take turns on a small shared pool of threads. A task may block (the model queue
// waits on its download), but it then holds one of few threads: keep such waits bounded.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "orvane/Export.h"

namespace orvane {

using Task = std::function<void()>;

// A scheduled piece of work that can be called off while it has not started.
class ORVANE_API Cancellable {
 public:
  virtual ~Cancellable() = default;
  virtual void cancel() = 0;
};

class ORVANE_API SerialQueue {
 public:
  virtual ~SerialQueue() = default;
  virtual const std::string& name() const = 0;
  // Runs `task` after every task submitted before it.
  virtual void async(Task task) = 0;
  // Runs `task` on this queue no sooner than `delaySeconds` from now.
  virtual std::shared_ptr<Cancellable> asyncAfter(double delaySeconds, Task task) = 0;
  // Runs `task` every `intervalSeconds` (first run after one interval) until cancelled.
  virtual std::shared_ptr<Cancellable> scheduleRepeating(double intervalSeconds, Task task) = 0;
  // Runs `task` on this queue and waits for it; runs it at once when called on this queue.
  // The task may run on the calling thread, with isCurrent() true inside it.
  virtual void sync(Task task) = 0;
  // True on the thread that runs this queue's tasks.
  virtual bool isCurrent() const = 0;
};

class ORVANE_API Executors {
 public:
  virtual ~Executors() = default;
  // Where host callbacks, lifecycle handlers and context creation run.
  virtual std::shared_ptr<SerialQueue> mainQueue() = 0;
  // A new serial queue.
  virtual std::shared_ptr<SerialQueue> makeSerialQueue(const std::string& name) = 0;
};

// The main queue of a host whose main loop belongs to someone else (a mobile app, a UI toolkit):
// each job goes to the host's dispatcher, and the host runs it later on its main thread with
// Job::run(), in the order it was dispatched. Delays are counted on `timerQueue`; due work
// then goes to the dispatcher like any other job.
//
// isCurrent() is true inside a job and on the host's main thread: the thread named by
// setMainThread(), or else the thread that ran the latest job. sync() from that thread runs
// at once; from any other thread it waits until the host has run the job, so the host must
// keep its main loop turning (as with any main queue).
class HostMainQueue : public SerialQueue {
  struct Core;

 public:
  // One piece of work for the host's main thread.
  class Job {
   public:
    ~Job();
    Job(const Job&) = delete;
    Job& operator=(const Job&) = delete;
    // Runs the work on the calling thread, which the queue then takes for its main thread
    // unless one was named. Runs at most once; a throwing task is contained and reported.
    void run() noexcept;

   private:
    friend class HostMainQueue;
    Job(std::shared_ptr<Core> core, Task task);
    std::shared_ptr<Core> core_;
    Task task_;
  };
  // Called on the submitting thread; it hands the job to the host's main loop and must not
  // run it inline.
  using Dispatcher = std::function<void(std::unique_ptr<Job>)>;

  HostMainQueue(Dispatcher dispatcher, std::shared_ptr<SerialQueue> timerQueue);

  const std::string& name() const override;
  void async(Task task) override;
  std::shared_ptr<Cancellable> asyncAfter(double delaySeconds, Task task) override;
  std::shared_ptr<Cancellable> scheduleRepeating(double intervalSeconds, Task task) override;
  void sync(Task task) override;
  bool isCurrent() const override;

  // Names the host's main thread, for the time before any job has run (or when jobs may run
  // elsewhere).
  void setMainThread(std::thread::id thread);

 private:
  std::shared_ptr<Core> core_;
  std::shared_ptr<SerialQueue> timerQueue_;
};

// `base` with `mainQueue` as its main queue; serial queues still come from `base`.
std::shared_ptr<Executors> makeExecutorsWithMainQueue(std::shared_ptr<Executors> base,
                                                      std::shared_ptr<SerialQueue> mainQueue);

// Serial queues on the process's shared worker pool; the main queue is such a queue named
// "main" unless the host hands in its own.
ORVANE_API std::shared_ptr<Executors> makeThreadExecutors(
    std::shared_ptr<SerialQueue> hostMainQueue = nullptr);
// A serial queue on the shared worker pool.
ORVANE_API std::shared_ptr<SerialQueue> makeThreadSerialQueue(const std::string& name);

}  // namespace orvane
