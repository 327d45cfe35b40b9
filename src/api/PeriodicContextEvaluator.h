// File: PeriodicContextEvaluator.h
// Evaluates the flows that have an observer, one round every polling interval while the app
// is active, and calls a flow's observer once, on the main queue, with its first context that
// says yes.
//
// All state lives on the serial queue "com.orvane.PeriodicContextEvaluator"; the public
// operations only post work to it. A round asks for one context per flow, in flow-name order,
// each like a fetch of 3 seconds, and holds the queue until that context exists: work posted
// meanwhile is kept, in order, and runs when the round ends. The hold parks no thread, so it
// cannot deadlock with the main queue that creates the context, and it ends whenever the
// request ends: answered, cancelled (cancelContextCallback for the flow), or dropped with the
// manager.
#pragma once

#include <memory>
#include <string>

#include "api/Engine.h"

namespace orvane {

class PeriodicContextEvaluator {
 public:
  static constexpr const char* kQueueName = "com.orvane.PeriodicContextEvaluator";
  // Seconds of motion data each evaluation waits for.
  static constexpr int64_t kEvaluationDuration = 3;
  // The shortest pause between two rounds, whatever the service configures.
  static constexpr double kMinimumIntervalSeconds = 1.0;

  using Observer = Engine::ContextCallback;

  explicit PeriodicContextEvaluator(Engine& owner);
  ~PeriodicContextEvaluator();
  PeriodicContextEvaluator(const PeriodicContextEvaluator&) = delete;
  PeriodicContextEvaluator& operator=(const PeriodicContextEvaluator&) = delete;

  // Replaces the flow's earlier observer, if any.
  void setCallback(const std::string& flowName, Observer callbackOnFirstGoodMoment);
  // When no observer is left, the scheduled round is called off.
  void removeCallback(const std::string& flowName);
  // Rounds run only between these two: the first one polling interval after activation.
  void appDidBecomeActive();
  void appWillResign();

 private:
  struct Core;
  std::shared_ptr<Core> core_;  // queued work holds it weakly
};

}  // namespace orvane
