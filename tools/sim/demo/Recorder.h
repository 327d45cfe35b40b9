// File: Recorder.h
// Collects the run as it happens, from the demo's thread, the SDK's main queue, its upload
// queue and the HTTP threads, and prints the timeline lines as they come.
#pragma once

#include <chrono>
#include <mutex>
#include <ostream>
#include <string>
#include <utility>

#include "RunRecord.h"

namespace orvane::sim::demo {

class Recorder {
 public:
  // Timeline lines go to `terminal` when it is set.
  explicit Recorder(std::ostream* terminal);

  // Seconds since the recorder was made.
  double now() const;

  // A timeline line, stamped now.
  void note(const std::string& category, const std::string& text);
  void motion(double magnitude);

  // Changes the record under the lock.
  template <typename Fn>
  void edit(Fn&& fn) {
    std::lock_guard<std::mutex> guard(mutex_);
    std::forward<Fn>(fn)(record_);
  }
  RunRecord snapshot() const;

 private:
  const std::chrono::steady_clock::time_point start_;
  std::ostream* terminal_;
  mutable std::mutex mutex_;
  RunRecord record_;
};

// "  12.3 s  category   text", the form of a timeline line.
std::string timelineLine(double t, const std::string& category, const std::string& text);

}  // namespace orvane::sim::demo
