// File: LevelFilteredLog.h
// The host's choice of how much the SDK says. One threshold for the process: a host sets it
// once, for the shared manager and any embedded one alike.
#pragma once

#include <memory>

#include "orvane/ContextManager.h"
#include "orvane/platform/SystemLog.h"

namespace orvane {

// Lines of `inner` at or above the process's threshold.
std::shared_ptr<SystemLog> makeLevelFilteredLog(std::shared_ptr<SystemLog> inner);

void setProcessLogLevel(SdkLogLevel level);
// Warning unless ORVANE_DEBUG_LOG is set (for tools), until a host chooses.
SdkLogLevel processLogLevel();

}  // namespace orvane
