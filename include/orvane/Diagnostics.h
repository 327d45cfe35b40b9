// File: Diagnostics.h
// What a host may show on a support or debug screen: the installation, the model set in use
// and what waits to be uploaded. Read-only; reading it changes nothing.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "orvane/Export.h"

namespace orvane {

struct ORVANE_API Diagnostics {
  // Stable per installation while the data folder survives.
  std::string installationID;
  // Launches counted so far, this one included.
  int64_t appLaunches = 0;
  // The generation id of the model set in use (see currentAppliedCustomModelVersion).
  std::string appliedModelGeneration;
  // The version of the last update applied from the service; 0 before any.
  int64_t appliedUpdateVersion = 0;
  // Outcome records waiting for upload, and their log ids in queue order.
  size_t queuedRecords = 0;
  std::vector<std::string> queuedLogIds;
  // Creation records of contexts that have no outcome yet, and their log ids.
  size_t unansweredContexts = 0;
  std::vector<std::string> unansweredLogIds;
  // Seconds the upload queue waits after a failed upload before it tries again.
  double uploadBackoffSeconds = 0;
  // Records not durable yet: kept in memory while the store is unavailable, or written but not
  // yet confirmed on disk. Normally 0.
  size_t recordsWaitingInMemory = 0;
  // Whether an upload is waiting for the service's answer.
  bool uploadInFlight = false;
};

}  // namespace orvane
