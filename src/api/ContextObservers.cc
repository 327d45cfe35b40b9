// Observers: the manager's side of periodic evaluation, which the evaluator runs.
#include "api/Absorbing.h"
#include "api/Engine.h"
#include "api/PeriodicContextEvaluator.h"

namespace orvane {

void Engine::registerContextObserverFor(const std::string& flowName,
                                        ContextCallback callbackOnFirstGoodMoment) noexcept {
  absorbing(platform_, "registerContextObserver", [&] {
    periodicContextEvaluator().setCallback(flowName, std::move(callbackOnFirstGoodMoment));
  });
}

void Engine::unregisterContextObserverFor(const std::string& flowName) noexcept {
  absorbing(platform_, "unregisterContextObserver",
            [&] { periodicContextEvaluator().removeCallback(flowName); });
}

}  // namespace orvane
