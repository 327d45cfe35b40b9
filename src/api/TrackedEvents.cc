// Tracked events, page views and user actions: each is an instant context named after the
// event and logged at once. They are the host's records, not its requests for a decision, so
// they do not count as the host using the SDK.
#include "api/Absorbing.h"
#include "orvane/Context.h"
#include "orvane/ContextManager.h"

namespace orvane {
namespace {

constexpr int64_t kTrackedEventDuration = 3;

}  // namespace

void ContextManager::recordTrackedEvent(const std::string& name,
                                        const CustomSignalList& customSignals, MethodUsed method,
                                        EventType eventType) noexcept {
  absorbing(platform_, "trackEvent", [&] {
    auto context = requestInstantContext(name, kTrackedEventDuration, customSignals, method);
    if (context) context->logWithArbitraryOutcome(Context::kTrackedEventOutcome, eventType);
  });
}

void ContextManager::trackEvent(const std::string& name,
                                const CustomSignalList& customSignals) noexcept {
  shared().recordTrackedEvent(name, customSignals, MethodUsed::kTrackEvent,
                              EventType::kTrackedEvent);
}

void ContextManager::trackPageView(const std::string& name,
                                   const CustomSignalList& customSignals) noexcept {
  shared().recordTrackedEvent(name, customSignals, MethodUsed::kTrackPageView,
                              EventType::kPageView);
}

void ContextManager::trackUserAction(const std::string& name,
                                     const CustomSignalList& customSignals) noexcept {
  shared().recordTrackedEvent(name, customSignals, MethodUsed::kTrackUserAction,
                              EventType::kUserAction);
}

}  // namespace orvane
