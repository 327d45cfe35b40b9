// Observers: the manager's side of periodic evaluation, which the evaluator runs.
#include "api/Absorbing.h"
#include "api/PeriodicContextEvaluator.h"
#include "orvane/ContextManager.h"

namespace orvane {

void ContextManager::registerContextObserverFor(
    const std::string& flowName, ContextCallback callbackOnFirstGoodMoment) noexcept {
  absorbing(platform_, "registerContextObserver", [&] {
    periodicContextEvaluator().setCallback(flowName, std::move(callbackOnFirstGoodMoment));
  });
}

void ContextManager::unregisterContextObserverFor(const std::string& flowName) noexcept {
  absorbing(platform_, "unregisterContextObserver",
            [&] { periodicContextEvaluator().removeCallback(flowName); });
}

void ContextManager::registerContextObserver(const std::string& flowName,
                                             ContextCallback callbackOnFirstGoodMoment) noexcept {
  shared().registerContextObserverFor(flowName, std::move(callbackOnFirstGoodMoment));
}

void ContextManager::unregisterContextObserver(const std::string& flowName) noexcept {
  shared().unregisterContextObserverFor(flowName);
}

}  // namespace orvane
