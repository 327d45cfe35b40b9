// The public face of the SDK: the static API acts on the process-wide manager, and every
// instance form forwards to the manager's engine. A request the host makes counts as the
// host using the SDK (launch history); the engine's own requests do not.
#include "orvane/ContextManager.h"

#include <mutex>

#include "api/Absorbing.h"
#include "api/Engine.h"
#include "api/HostInputLimits.h"
#include "generators/AppLaunchSignalsGenerator.h"
#include "orvane/Version.h"
#include "platform/LevelFilteredLog.h"
#include "util/UserDefaultsProvider.h"

namespace orvane {
namespace {

std::mutex& installedPlatformMutex() {
  static std::mutex mutex;
  return mutex;
}
std::optional<Platform>& installedPlatform() {
  static std::optional<Platform> platform;
  return platform;
}
bool& sharedCreated() {
  static bool created = false;
  return created;
}

// A request's name and custom signals within the host input bounds; refers to the originals
// when they already are, so the usual request copies nothing.
class BoundedInput {
 public:
  BoundedInput(const Platform& platform, const char* what, const std::string& name,
               const CustomSignalList& signals) noexcept
      : name_(&name), signals_(&signals) {
    try {
      limitedName_ = limitedName(what, name, HostInputLimits::kMaximumFlowNameBytes, *platform.log);
      if (limitedName_) name_ = &*limitedName_;
      if ((limitedSignals_ = limitedCustomSignals(signals, *platform.log))) {
        signals_ = &*limitedSignals_;
      }
    } catch (...) {  // without memory to cut them, the originals go on
    }
  }
  const std::string& name() const { return *name_; }
  const CustomSignalList& signals() const { return *signals_; }

 private:
  std::optional<std::string> limitedName_;
  std::optional<CustomSignalList> limitedSignals_;
  const std::string* name_;
  const CustomSignalList* signals_;
};

}  // namespace

const char* sdkVersionString() { return ORVANE_VERSION_STRING; }

// ---- Creation -----------------------------------------------------------------------------

ContextManager::ContextManager(Platform platform,
                               std::optional<ContextManagerIsSupported> imposedSupport)
    : engine_(std::make_unique<Engine>(std::move(platform), imposedSupport)) {}

ContextManager::~ContextManager() = default;

ContextManager& ContextManager::shared() noexcept {
  // Never destroyed: exit-time destructors must not race the SDK's worker threads.
  static ContextManager* const instance = [] {
    std::optional<Platform> chosen;
    {
      std::lock_guard<std::mutex> guard(installedPlatformMutex());
      chosen = std::move(installedPlatform());
      sharedCreated() = true;
    }
    // NOLINTNEXTLINE(bugprone-unhandled-exception-at-new): without memory there is no SDK
    auto* manager = new ContextManager(chosen ? std::move(*chosen) : Platform::defaultPlatform());
    // Like the platform's defaults store at app termination: what was written reaches disk.
    std::atexit([] { shared().engine_->userDefaultsProvider()->synchronize(); });
    return manager;
  }();
  return *instance;
}

bool ContextManager::installDefaultPlatform(Platform platform) noexcept {
  std::lock_guard<std::mutex> guard(installedPlatformMutex());
  if (sharedCreated()) return false;
  installedPlatform() = std::move(platform);
  return true;
}

// ---- Instance forms -----------------------------------------------------------------------

bool ContextManager::setupWith(const std::string& licenseKey, LogSender logSender,
                               const std::optional<LaunchOptions>& launchOptions,
                               const Configuration& configuration) noexcept {
  if (refusedAfterShutdown("setup")) return true;
  return engine_->setupWith(licenseKey, std::move(logSender), launchOptions, configuration);
}
void ContextManager::replaceLogSender(LogSender sender) noexcept {
  if (refusedAfterShutdown("setLogSender")) return;
  engine_->replaceLogSender(std::move(sender));
}
void ContextManager::setDecisionsSwitch(bool enabled) noexcept {
  if (refusedAfterShutdown("setDecisionsEnabled")) return;
  engine_->setDecisionsSwitch(enabled);
}
std::string ContextManager::appliedModelGenerationId() noexcept {
  return engine_->appliedModelGenerationId();
}
std::optional<ContextModelInformation> ContextManager::modelInformation(
    const std::string& flowName) noexcept {
  return engine_->modelInformation(flowName);
}
void ContextManager::setServiceBaseURLValue(const std::string& baseURL) noexcept {
  if (refusedAfterShutdown("setServiceBaseURL")) return;
  engine_->setServiceBaseURLValue(baseURL);
}
void ContextManager::storeGlobalCustomSignal(const CustomSignal& signal) noexcept {
  if (refusedAfterShutdown("setGlobalCustomSignal")) return;
  engine_->storeGlobalCustomSignal(signal);
}
void ContextManager::removeGlobalCustomSignals(const std::string& id) noexcept {
  if (refusedAfterShutdown("setGlobalCustomSignal")) return;
  engine_->removeGlobalCustomSignals(id);
}

void ContextManager::requestFetchContext(const std::string& flowName, int64_t duration,
                                         const CustomSignalList& customSignals,
                                         ContextCallback callback) noexcept {
  if (refusedAfterShutdown("fetchContext")) return;
  absorbing(engine_->platform(), "fetchContext",
            [&] { engine_->appLaunchSignalsGenerator().didUserTriggerOrvane(); });
  const BoundedInput input(engine_->platform(), "flow name", flowName, customSignals);
  engine_->requestFetchContext(input.name(), duration, input.signals(), std::move(callback),
                               MethodUsed::kFetchContext);
}
std::shared_ptr<Context> ContextManager::requestInstantContext(
    const std::string& flowName, int64_t duration, const CustomSignalList& customSignals) noexcept {
  if (refusedAfterShutdown("instantContext")) return nullptr;
  absorbing(engine_->platform(), "instantContext",
            [&] { engine_->appLaunchSignalsGenerator().didUserTriggerOrvane(); });
  const BoundedInput input(engine_->platform(), "flow name", flowName, customSignals);
  return engine_->requestInstantContext(input.name(), duration, input.signals(),
                                        MethodUsed::kInstantContext);
}
void ContextManager::requestOptimize(const std::string& flowName, std::optional<int64_t> maxDelay,
                                     const CustomSignalList& customSignals,
                                     ContextCallback callback) noexcept {
  if (refusedAfterShutdown("optimize")) return;
  absorbing(engine_->platform(), "optimize",
            [&] { engine_->appLaunchSignalsGenerator().didUserTriggerOrvane(); });
  const BoundedInput input(engine_->platform(), "flow name", flowName, customSignals);
  engine_->requestOptimize(input.name(), maxDelay, input.signals(), std::move(callback));
}
void ContextManager::requestCalibrate(const std::string& flowName, int64_t maxDelay,
                                      const CustomSignalList& customSignals,
                                      ContextCallback callback) noexcept {
  if (refusedAfterShutdown("calibrate")) return;
  absorbing(engine_->platform(), "calibrate",
            [&] { engine_->appLaunchSignalsGenerator().didUserTriggerOrvane(); });
  const BoundedInput input(engine_->platform(), "flow name", flowName, customSignals);
  engine_->requestCalibrate(input.name(), maxDelay, input.signals(), std::move(callback));
}
std::shared_ptr<Context> ContextManager::recentContextForFlow(
    const std::string& flowName) noexcept {
  if (refusedAfterShutdown("recentContext")) return nullptr;
  std::shared_ptr<Context> context;
  absorbing(engine_->platform(), "recentContext",
            [&] { context = engine_->recentContextForFlow(flowName); });
  return context;
}
void ContextManager::cancelContextCallbackFor(const std::string& flowName) noexcept {
  if (refusedAfterShutdown("cancelContextCallback")) return;
  engine_->cancelContextCallbackFor(flowName);
}
void ContextManager::registerContextObserverFor(
    const std::string& flowName, ContextCallback callbackOnFirstGoodMoment) noexcept {
  if (refusedAfterShutdown("registerContextObserver")) return;
  std::optional<std::string> limited;
  try {
    limited = limitedName("flow name", flowName, HostInputLimits::kMaximumFlowNameBytes,
                          *engine_->platform().log);
  } catch (...) {  // without memory to cut it, the original goes on
  }
  engine_->registerContextObserverFor(limited ? *limited : flowName,
                                      std::move(callbackOnFirstGoodMoment));
}
void ContextManager::unregisterContextObserverFor(const std::string& flowName) noexcept {
  if (refusedAfterShutdown("unregisterContextObserver")) return;
  engine_->unregisterContextObserverFor(flowName);
}
void ContextManager::recordTrackedEvent(const std::string& name,
                                        const CustomSignalList& customSignals,
                                        EventType eventType) noexcept {
  if (refusedAfterShutdown("trackEvent")) return;
  MethodUsed method = MethodUsed::kTrackEvent;
  if (eventType == EventType::kPageView) method = MethodUsed::kTrackPageView;
  if (eventType == EventType::kUserAction) method = MethodUsed::kTrackUserAction;
  const BoundedInput input(engine_->platform(), "event name", name, customSignals);
  engine_->recordTrackedEvent(input.name(), input.signals(), method, eventType);
}
PlistDictionary ContextManager::collectGoldenSignals(
    const std::optional<std::string>& trigger, const std::optional<std::string>& bidID) noexcept {
  if (refusedAfterShutdown("goldenSignals")) return {};
  absorbing(engine_->platform(), "goldenSignals",
            [&] { engine_->appLaunchSignalsGenerator().didUserTriggerOrvane(); });
  return engine_->collectGoldenSignals(trigger, bidID);
}

const Platform& ContextManager::platform() const noexcept { return engine_->platform(); }

Diagnostics ContextManager::currentDiagnostics() noexcept {
  Diagnostics diagnostics;
  absorbing(engine_->platform(), "diagnostics", [&] { diagnostics = engine_->diagnostics(); });
  return diagnostics;
}

bool ContextManager::flushUploads(double timeoutSeconds) noexcept {
  if (refusedAfterShutdown("flush")) return false;
  bool emptied = false;
  absorbing(engine_->platform(), "flush", [&] { emptied = engine_->flush(timeoutSeconds); });
  return emptied;
}

void ContextManager::applyConsent(ConsentState state) noexcept { engine_->setConsent(state); }
ConsentState ContextManager::currentConsent() noexcept { return engine_->consent(); }
void ContextManager::eraseAllData() noexcept { engine_->resetAllData(); }
bool ContextManager::shutdownManager(double timeoutSeconds) noexcept {
  return engine_->shutdown(timeoutSeconds);
}

bool ContextManager::refusedAfterShutdown(const char* operation) const noexcept {
  if (!engine_->isShutDown()) return false;
  absorbing(engine_->platform(), operation, [&] {
    engine_->platform().log->error(std::string("[Orvane] ContextManager.") + operation +
                                   " does nothing: the SDK was shut down.");
  });
  return true;
}

// ---- Static API ---------------------------------------------------------------------------

void ContextManager::setLogLevel(SdkLogLevel level) noexcept { setProcessLogLevel(level); }

bool ContextManager::setup(const std::string& licenseKey) noexcept {
  return shared().setupWith(licenseKey, nullptr, std::nullopt, Configuration{});
}
bool ContextManager::setup(const std::string& licenseKey,
                           const Configuration& configuration) noexcept {
  return shared().setupWith(licenseKey, nullptr, std::nullopt, configuration);
}
bool ContextManager::setup(const std::string& licenseKey, LogSender defaultLogSender,
                           const Configuration& configuration) noexcept {
  return shared().setupWith(licenseKey, std::move(defaultLogSender), std::nullopt, configuration);
}
bool ContextManager::applicationDidFinishLaunchingWithOptions(
    const std::optional<LaunchOptions>& launchOptions, const std::string& licenseKey) noexcept {
  return shared().setupWith(licenseKey, nullptr, launchOptions, Configuration{});
}
bool ContextManager::applicationDidFinishLaunchingWithOptions(
    const std::optional<LaunchOptions>& launchOptions, const std::string& licenseKey,
    const Configuration& configuration) noexcept {
  return shared().setupWith(licenseKey, nullptr, launchOptions, configuration);
}
void ContextManager::setLogSender(LogSender closure) noexcept {
  shared().replaceLogSender(std::move(closure));
}
std::string ContextManager::sdkVersion() noexcept { return sdkVersionString(); }
void ContextManager::setDecisionsEnabled(bool enabled) noexcept {
  shared().setDecisionsSwitch(enabled);
}
void ContextManager::setControlMode(bool enabled) noexcept {
  shared().setDecisionsSwitch(!enabled);
}
std::string ContextManager::currentAppliedCustomModelVersion() noexcept {
  return shared().appliedModelGenerationId();
}
std::optional<ContextModelInformation> ContextManager::getCustomModel(
    const std::string& flowName) noexcept {
  return shared().modelInformation(flowName);
}
Diagnostics ContextManager::diagnostics() noexcept { return shared().currentDiagnostics(); }
bool ContextManager::flush(double timeoutSeconds) noexcept {
  return shared().flushUploads(timeoutSeconds);
}
void ContextManager::setConsent(ConsentState state) noexcept { shared().applyConsent(state); }
ConsentState ContextManager::consent() noexcept { return shared().currentConsent(); }
void ContextManager::resetAllData() noexcept { shared().eraseAllData(); }
bool ContextManager::shutdown(double timeoutSeconds) noexcept {
  return shared().shutdownManager(timeoutSeconds);
}
void ContextManager::setServiceBaseURL(const std::string& baseURL) noexcept {
  shared().setServiceBaseURLValue(baseURL);
}

void ContextManager::fetchContext(const std::string& flowName, int64_t duration,
                                  const CustomSignalList& customSignals,
                                  ContextCallback callback) noexcept {
  shared().requestFetchContext(flowName, duration, customSignals, std::move(callback));
}
std::shared_ptr<Context> ContextManager::instantContext(
    const std::string& flowName, int64_t duration, const CustomSignalList& customSignals) noexcept {
  return shared().requestInstantContext(flowName, duration, customSignals);
}
void ContextManager::optimize(const std::string& flowName, std::optional<int64_t> maxDelay,
                              const CustomSignalList& customSignals,
                              ContextCallback callback) noexcept {
  shared().requestOptimize(flowName, maxDelay, customSignals, std::move(callback));
}
void ContextManager::calibrate(const std::string& flowName, int64_t maxDelay,
                               const CustomSignalList& customSignals,
                               ContextCallback callback) noexcept {
  shared().requestCalibrate(flowName, maxDelay, customSignals, std::move(callback));
}
std::shared_ptr<Context> ContextManager::recentContext(const std::string& flowName) noexcept {
  return shared().recentContextForFlow(flowName);
}
void ContextManager::cancelContextCallback(const std::string& flowName) noexcept {
  shared().cancelContextCallbackFor(flowName);
}
void ContextManager::registerContextObserver(const std::string& flowName,
                                             ContextCallback callbackOnFirstGoodMoment) noexcept {
  shared().registerContextObserverFor(flowName, std::move(callbackOnFirstGoodMoment));
}
void ContextManager::unregisterContextObserver(const std::string& flowName) noexcept {
  shared().unregisterContextObserverFor(flowName);
}
void ContextManager::trackEvent(const std::string& name,
                                const CustomSignalList& customSignals) noexcept {
  shared().recordTrackedEvent(name, customSignals, EventType::kTrackedEvent);
}
void ContextManager::trackPageView(const std::string& name,
                                   const CustomSignalList& customSignals) noexcept {
  shared().recordTrackedEvent(name, customSignals, EventType::kPageView);
}
void ContextManager::trackUserAction(const std::string& name,
                                     const CustomSignalList& customSignals) noexcept {
  shared().recordTrackedEvent(name, customSignals, EventType::kUserAction);
}
PlistDictionary ContextManager::goldenSignals(const std::optional<std::string>& trigger,
                                              const std::optional<std::string>& bidID) noexcept {
  return shared().collectGoldenSignals(trigger, bidID);
}

void ContextManager::setGlobalCustomSignal(const std::string& id, bool value) noexcept {
  shared().storeGlobalCustomSignal(CustomSignalBool(id, value));
}
void ContextManager::setGlobalCustomSignal(const std::string& id, int64_t value) noexcept {
  shared().storeGlobalCustomSignal(CustomSignalInt(id, value));
}
void ContextManager::setGlobalCustomSignal(const std::string& id, int value) noexcept {
  shared().storeGlobalCustomSignal(CustomSignalInt(id, value));
}
void ContextManager::setGlobalCustomSignal(const std::string& id, float value) noexcept {
  shared().storeGlobalCustomSignal(CustomSignalFloat(id, value));
}
void ContextManager::setGlobalCustomSignal(const std::string& id, double value) noexcept {
  shared().storeGlobalCustomSignal(CustomSignalFloat(id, static_cast<float>(value)));
}
void ContextManager::setGlobalCustomSignal(const std::string& id,
                                           const Decimal& decimalValue) noexcept {
  shared().storeGlobalCustomSignal(CustomSignalDecimal(id, decimalValue));
}
void ContextManager::setGlobalCustomSignal(const std::string& id,
                                           const std::optional<std::string>& value) noexcept {
  if (value) {
    shared().storeGlobalCustomSignal(CustomSignalString(id, *value));
  } else {
    shared().removeGlobalCustomSignals(id);
  }
}
void ContextManager::setGlobalCustomSignal(const std::string& id, const char* value) noexcept {
  setGlobalCustomSignal(id, value ? std::optional<std::string>(value) : std::nullopt);
}

}  // namespace orvane
