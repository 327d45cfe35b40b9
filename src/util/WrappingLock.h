// File: WrappingLock.h
// A value that is only read and changed while its lock is held.
#pragma once

#include <mutex>
#include <utility>

namespace orvane {

template <typename T>
class WrappingLock {
 public:
  explicit WrappingLock(T initial = T{}) : value_(std::move(initial)) {}
  WrappingLock(const WrappingLock&) = delete;
  WrappingLock& operator=(const WrappingLock&) = delete;

  // Runs `fn` with exclusive, mutable access to the value and returns its result. Keep `fn`
  // short and never call out to host code from it.
  template <typename Fn>
  auto withLock(Fn&& fn) {
    std::lock_guard<std::mutex> guard(lock_);
    return std::forward<Fn>(fn)(value_);
  }

 private:
  std::mutex lock_;
  T value_;
};

}  // namespace orvane
