// File: AtomicInt.h
// A 64-bit counter read and changed under its lock.
#pragma once

#include <cstdint>
#include <mutex>

namespace orvane {

class AtomicInt {
 public:
  explicit AtomicInt(int64_t initial = 0) : value_(initial) {}

  int64_t value() const {
    std::lock_guard<std::mutex> guard(lock_);
    return value_;
  }
  void set(int64_t value) {
    std::lock_guard<std::mutex> guard(lock_);
    value_ = value;
  }
  // Adds `delta` and returns the new value.
  int64_t add(int64_t delta) {
    std::lock_guard<std::mutex> guard(lock_);
    value_ += delta;
    return value_;
  }
  int64_t increment() { return add(1); }
  int64_t decrement() { return add(-1); }

 private:
  mutable std::mutex lock_;
  int64_t value_;
};

}  // namespace orvane
