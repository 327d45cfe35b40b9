// File: PendingFetchContextCall.h
// A context request waiting for motion data: the sensor keeps it until a valid window of
// `durationToUse` seconds exists, then calls `callback` with the motion signals on the main
// queue, or drops it when its flow is cancelled.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "orvane/Signal.h"

namespace orvane {

struct PendingFetchContextCall {
  std::string flowName;
  int64_t durationToUse = 0;
  // Also capture the raw-motion record for this request.
  bool logAdditionalAccelData = false;
  std::function<void(SignalList)> callback;

  std::string description() const { return "PendingFetchContextCall(" + flowName + ")"; }
};

}  // namespace orvane
