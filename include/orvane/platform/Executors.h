// File: Executors.h
// Serial queues: the main queue, named queues that own a thread, delayed work and repeating
// timers. Blocking inside a serial queue is allowed (the upload and model queues wait on the
// network), which is why every queue owns its thread.
#pragma once

#include <functional>
#include <memory>
#include <string>

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
  virtual void sync(Task task) = 0;
  // True on the thread that runs this queue's tasks.
  virtual bool isCurrent() const = 0;
};

class ORVANE_API Executors {
 public:
  virtual ~Executors() = default;
  // Where host callbacks, lifecycle handlers and context creation run.
  virtual std::shared_ptr<SerialQueue> mainQueue() = 0;
  // A new serial queue with its own thread.
  virtual std::shared_ptr<SerialQueue> makeSerialQueue(const std::string& name) = 0;
};

// One thread per serial queue; the main queue is such a queue named "main" unless the host
// hands in its own.
ORVANE_API std::shared_ptr<Executors> makeThreadExecutors(
    std::shared_ptr<SerialQueue> hostMainQueue = nullptr);
// A serial queue backed by its own thread.
ORVANE_API std::shared_ptr<SerialQueue> makeThreadSerialQueue(const std::string& name);

}  // namespace orvane
