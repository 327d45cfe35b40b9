#include "orvane/Configuration.h"

namespace orvane {

SignalList Configuration::allSignals() const {
  return {
      SignalBool(SignalEnum::id(801), enableTouchBehaviourMonitoring),
      SignalBool(SignalEnum::id(802), enableSessionDurationMonitoring),
      SignalBool(SignalEnum::id(803), enableScreenshotMonitoring),
      SignalBool(SignalEnum::id(804), enableAutomaticAppStartAndEndTracking),
      SignalBool(SignalEnum::id(805), enableAutomaticAppLaunchBehaviourLogging),
      SignalBool(SignalEnum::id(806), enableErrorReporting),
      SignalBool(SignalEnum::id(800), enableInstantContext),
  };
}

}  // namespace orvane
