// File: PeriodicContextEvaluator.h
// Evaluates registered flows on a timer while the app is active. The manager tells it when
// the app becomes active and when it resigns.
#pragma once

#include <atomic>

namespace orvane {

class PeriodicContextEvaluator {
 public:
  void appDidBecomeActive() { ++activations_; }
  void appWillResignActive() { ++resignations_; }

  int activations() const { return activations_; }
  int resignations() const { return resignations_; }

 private:
  std::atomic<int> activations_{0};
  std::atomic<int> resignations_{0};
};

}  // namespace orvane
