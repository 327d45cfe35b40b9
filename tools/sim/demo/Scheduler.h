// File: Scheduler.h
// Runs the script's moments in real time on the demo's own thread. Any thread may add a task
// (the SDK's callbacks schedule the user's answers); tasks run in time order, never at once.
#pragma once

#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>

#include "Recorder.h"

namespace orvane::sim::demo {

class Scheduler {
 public:
  using Task = std::function<void()>;
  explicit Scheduler(const Recorder& clock) : clock_(clock) {}

  // Runs `task` `t` seconds into the run (at once if that has passed).
  void at(double t, Task task);
  // Runs due tasks until `end`, and `onTick` every `tick` seconds.
  void runUntil(double end, double tick, const Task& onTick);

 private:
  const Recorder& clock_;
  std::mutex mutex_;
  std::condition_variable changed_;
  // Equal times keep the order they were added in.
  std::multimap<double, Task> tasks_;
};

}  // namespace orvane::sim::demo
