// File: StopSignal.h
// Set once when the service is stopping, so that requests held on purpose (delays, broken
// connections) let go at once instead of keeping the server's worker threads busy.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace devservice {

class StopSignal {
 public:
  void request() {
    {
      std::lock_guard<std::mutex> guard(mutex_);
      stopping_ = true;
    }
    changed_.notify_all();
  }
  // Waits `seconds`; false when the service started stopping in the meantime.
  bool waitFor(double seconds) {
    std::unique_lock<std::mutex> lock(mutex_);
    return !changed_.wait_for(lock, std::chrono::duration<double>(seconds),
                              [this] { return stopping_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool stopping_ = false;
};

}  // namespace devservice
