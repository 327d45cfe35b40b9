// File: PendingFetchContextCall.h
// A context request waiting for motion data: the sensor keeps it until a valid window of
// `durationToUse` seconds exists, then calls `callback` with the motion answer on the main
// queue, or drops it when its flow is cancelled.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "motion/RawMotionCapture.h"
#include "orvane/Signal.h"

namespace orvane {

// What the sensor answers a request with: its motion signals and, when it asked for one, the
// raw-motion capture that its logs will carry.
struct MotionAnswer {
  SignalList signals;
  std::shared_ptr<RawMotionCapture> rawMotion;
};

struct PendingFetchContextCall {
  std::string flowName;
  int64_t durationToUse = 0;
  // Also capture the raw-motion record for this request.
  bool logAdditionalAccelData = false;
  std::function<void(MotionAnswer)> callback;

  std::string description() const { return "PendingFetchContextCall(" + flowName + ")"; }
};

}  // namespace orvane
