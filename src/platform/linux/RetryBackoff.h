// File: RetryBackoff.h
// The waits between attempts at something that failed for a reason outside the process (a
// lock another process holds, a full disk): the first delay, doubling up to a cap, back to the
// start after a success.
#pragma once

#include <algorithm>
#include <chrono>

namespace orvane {

class RetryBackoff {
 public:
  using Duration = std::chrono::milliseconds;

  RetryBackoff(Duration first, Duration cap) : first_(first), cap_(std::max(first, cap)) {}

  // The wait before the next attempt, after one more failure.
  Duration afterFailure() {
    next_ = next_.count() == 0 ? first_ : std::min(next_ * 2, cap_);
    return next_;
  }
  void reset() { next_ = Duration::zero(); }

 private:
  Duration first_;
  Duration cap_;
  Duration next_{0};
};

}  // namespace orvane
