#include "Scheduler.h"

#include <algorithm>
#include <chrono>

namespace orvane::sim::demo {

void Scheduler::at(double t, Task task) {
  {
    std::lock_guard<std::mutex> guard(mutex_);
    tasks_.emplace(t, std::move(task));
  }
  changed_.notify_one();
}

void Scheduler::runUntil(double end, double tick, const Task& onTick) {
  double nextTick = clock_.now();
  for (;;) {
    const double now = clock_.now();
    if (now >= end) return;
    if (now >= nextTick) {
      onTick();
      nextTick = now + tick;
    }
    Task due;
    {
      std::unique_lock<std::mutex> lock(mutex_);
      if (!tasks_.empty() && tasks_.begin()->first <= now) {
        due = std::move(tasks_.begin()->second);
        tasks_.erase(tasks_.begin());
      } else {
        const double next = std::min({end, nextTick, tasks_.empty() ? end : tasks_.begin()->first});
        changed_.wait_for(lock, std::chrono::duration<double>(std::max(next - now, 0.0)));
        continue;
      }
    }
    due();
  }
}

}  // namespace orvane::sim::demo
