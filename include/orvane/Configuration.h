// File: Configuration.h
// The options the host app passes at setup. Everything else is configured by the service.
#pragma once

#include <optional>

#include "orvane/ABTestInformation.h"
#include "orvane/Export.h"
#include "orvane/Signal.h"

namespace orvane {

struct ORVANE_API Configuration {
  bool enableTouchBehaviourMonitoring = true;         // reported as signal 801
  bool enableSessionDurationMonitoring = true;        // reported as signal 802
  bool enableScreenshotMonitoring = true;             // reported as signal 803
  bool enableAutomaticAppStartAndEndTracking = true;  // reported as signal 804
  // When false, app-launch signals are left out of every request (signal 805).
  bool enableAutomaticAppLaunchBehaviourLogging = true;
  // When false, internal failures are not sent to the service (signal 806).
  bool enableErrorReporting = true;
  // Keeps motion sampling running in the foreground so that instant contexts have data
  // (signal 800).
  bool enableInstantContext = true;
  // Collect only once the user has granted consent (ContextManager::setConsent). The
  // requirement is remembered, so the next launch holds back from its first moment.
  bool requireConsent = false;
  // The A/B test assignment used until the service sends one.
  std::optional<ABTestInformation> defaultABTestInformation;

  // Seven SignalBool values, in the order 801, 802, 803, 804, 805, 806, 800.
  SignalList allSignals() const;

  bool operator==(const Configuration&) const = default;
};

}  // namespace orvane
