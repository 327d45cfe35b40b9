// Tracked events, page views and user actions: each is an instant context named after the
// event and logged at once. They are the host's records, not its requests for a decision, so
// they do not count as the host using the SDK.
#include "api/Absorbing.h"
#include "api/ContextAccess.h"
#include "api/Engine.h"
#include "orvane/Context.h"

namespace orvane {
namespace {

constexpr int64_t kTrackedEventDuration = 3;

}  // namespace

void Engine::recordTrackedEvent(const std::string& name, const CustomSignalList& customSignals,
                                MethodUsed method, EventType eventType) noexcept {
  absorbing(platform_, "trackEvent", [&] {
    auto context = requestInstantContext(name, kTrackedEventDuration, customSignals, method);
    if (context)
      ContextAccess::logWithArbitraryOutcome(*context, Context::kTrackedEventOutcome, eventType);
  });
}

}  // namespace orvane
