// File: ContextAccess.h
// The parts of a Context that only the SDK's own paths use: creating one with its decision,
// logging with an outcome number of the SDK's own, adding signals after creation.
#pragma once

#include <memory>
#include <string>

#include "models/ModelExecutionInformation.h"
#include "orvane/Context.h"

namespace orvane {

class Engine;

struct ContextAccess {
  static std::shared_ptr<Context> create(
      Engine& manager, SignalList requestSignals, std::string flowName,
      CustomSignalList customSignals, MethodUsed methodUsed,
      const ExtraModelExecutionInformation& extra = {},
      std::shared_ptr<const RawMotionCapture> rawMotion = nullptr) {
    return Context::create(manager, std::move(requestSignals), std::move(flowName),
                           std::move(customSignals), methodUsed, extra, std::move(rawMotion));
  }
  static void logWithArbitraryOutcome(Context& context, int outcome, EventType eventType) {
    context.logWithArbitraryOutcome(outcome, eventType);
  }
  static void appendSignals(Context& context, const SignalList& signals) {
    context.appendSignals(signals);
  }
  static const CustomModelInfo& modelInfo(const Context& context) { return context.modelInfo(); }
  static void markReturnedAgain(Context& context) { context.markReturnedAgain(); }
};

}  // namespace orvane
