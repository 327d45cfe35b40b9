// File: EraseGeneration.h
// Counts the erases of a manager's data. Work that brings state from outside (an upload's
// answer, a model update) takes the generation when it starts and writes only while that
// generation is still current: an answer to a request of the erased installation never lands
// in the new one. An erase runs under the exclusive lock, so a write that has checked its
// generation ends before the erase begins, and none starts while it runs.
#pragma once

#include <cstdint>
#include <mutex>
#include <shared_mutex>
#include <utility>

namespace orvane {

class EraseGeneration {
 public:
  uint64_t current() const {
    std::shared_lock<std::shared_mutex> lock(mutex_);
    return generation_;
  }

  // Runs `write` if no erase came since `generation`; false (and nothing run) otherwise.
  // `write` must not erase nor wait for anything that does.
  template <typename Fn>
  bool whileCurrent(uint64_t generation, Fn&& write) {
    std::shared_lock<std::shared_mutex> lock(mutex_);
    if (generation != generation_) return false;
    std::forward<Fn>(write)();
    return true;
  }

  // A lock that holds the generation while a long piece of work writes in several steps;
  // unlocked around anything slow (a download) and checked again with `stillCurrent`.
  std::shared_lock<std::shared_mutex> hold() const {
    return std::shared_lock<std::shared_mutex>(mutex_);
  }
  // Call while holding what hold() returned.
  bool isCurrent(uint64_t generation) const { return generation == generation_; }

  // Moves to a new generation and runs `erase` while nothing of an older one can be written.
  template <typename Fn>
  void advance(Fn&& erase) {
    std::unique_lock<std::shared_mutex> lock(mutex_);
    ++generation_;
    std::forward<Fn>(erase)();
  }

 private:
  mutable std::shared_mutex mutex_;
  uint64_t generation_ = 0;
};

}  // namespace orvane
