// File: Engine.h
// What the public ContextManager is made of: the platform, the session and identity state,
// and every component, created on first use. The static API acts on the process-wide
// manager's engine; tests and tools build engines of their own on fake platforms.
#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "api/CollectionConsent.h"
#include "device/HostPlatform.h"
#include "orvane/Configuration.h"
#include "orvane/Context.h"
#include "orvane/ContextManager.h"
#include "orvane/ContextModelInformation.h"
#include "orvane/CustomSignal.h"
#include "orvane/platform/Platform.h"
#include "util/EraseGeneration.h"

namespace orvane {

class Log;
class OrvaneLogSender;
class OrvaneErrorReporting;
class CoreMLModelManager;
class FlowTimingSignalsGenerator;
class GeoIPSignalGenerator;
class InternetSignalsGenerator;
class OutputSignalsGenerator;
class PushSettingsSignalGenerator;
class ModelExecutor;
class TimingCoordinator;
class PeriodicContextEvaluator;
class AccelerometerSensor;
class ActivityRecognitionManager;
class AppLaunchSignalsGenerator;
class AppLaunchReasonSignalsGenerator;
class StaticSignalsGenerator;
class UserDefaultsProvider;
class DateProvider;
class LogEncoder;
class RemoteConfiguration;

// The SDK version, set once by the build.
const char* sdkVersionString();

class Engine {
 public:
  using ContextCallback = ContextManager::ContextCallback;

  // `imposedSupport` overrides the hardware check.
  explicit Engine(Platform platform,
                  std::optional<ContextManagerIsSupported> imposedSupport = std::nullopt);
  ~Engine();
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  // ---- Instance operations (the static API forwards to these) ----------------------------
  bool setupWith(const std::string& licenseKey, LogSender logSender,
                 const std::optional<LaunchOptions>& launchOptions,
                 const Configuration& configuration) noexcept;
  void replaceLogSender(LogSender sender) noexcept;
  void setDecisionsSwitch(bool enabled) noexcept;
  std::string appliedModelGenerationId() noexcept;
  std::optional<ContextModelInformation> modelInformation(const std::string& flowName) noexcept;
  void setServiceBaseURLValue(const std::string& baseURL) noexcept;
  std::string serviceBaseURL() const;
  void storeGlobalCustomSignal(const CustomSignal& signal) noexcept;
  void removeGlobalCustomSignals(const std::string& id) noexcept;
  CustomSignalList globalCustomSignals() const;
  // See ContextManager::diagnostics() and flush().
  Diagnostics diagnostics();
  bool flush(double timeoutSeconds);
  // See ContextManager::setConsent, resetAllData and shutdown.
  void setConsent(ConsentState state) noexcept;
  ConsentState consent() const;
  // Whether anything may be written to the data folder or sent.
  bool collectionAllowed() const;
  void resetAllData() noexcept;
  // Moves at every erase; state fetched for an older generation is never applied.
  EraseGeneration& erasures() { return *erasures_; }
  bool shutdown(double timeoutSeconds) noexcept;
  bool isShutDown() const { return shutDown_.load(); }
  // Hands a finished log to the current log sender.
  void sendLog(std::shared_ptr<Log> log) noexcept;

  void requestFetchContext(const std::string& flowName, int64_t duration,
                           const CustomSignalList& customSignals, ContextCallback callback,
                           MethodUsed method) noexcept;
  std::shared_ptr<Context> requestInstantContext(const std::string& flowName, int64_t duration,
                                                 const CustomSignalList& customSignals,
                                                 MethodUsed method) noexcept;
  void requestOptimize(const std::string& flowName, std::optional<int64_t> maxDelay,
                       const CustomSignalList& customSignals, ContextCallback callback) noexcept;
  void requestCalibrate(const std::string& flowName, int64_t maxDelay,
                        const CustomSignalList& customSignals, ContextCallback callback) noexcept;
  void cancelContextCallbackFor(const std::string& flowName) noexcept;
  void registerContextObserverFor(const std::string& flowName,
                                  ContextCallback callbackOnFirstGoodMoment) noexcept;
  void unregisterContextObserverFor(const std::string& flowName) noexcept;

  void recordTrackedEvent(const std::string& name, const CustomSignalList& customSignals,
                          MethodUsed method, EventType eventType) noexcept;
  PlistDictionary collectGoldenSignals(const std::optional<std::string>& trigger,
                                       const std::optional<std::string>& bidID) noexcept;
  // The signals every request carries after its head and motion signals.
  SignalList allDefaultSignals();

  // The lifecycle notifications' handlers (they run on the main queue).
  void handleDidBecomeActiveNotification() noexcept;
  void handleWillResignActiveNotification() noexcept;

  // ---- State ---------------------------------------------------------------------------------
  const Platform& platform() const { return platform_; }
  Configuration configuration() const;
  std::optional<std::string> licenseKey() const;
  // The first 16 UTF-16 code units of the app key; none before setup or for a short key.
  std::optional<std::string> logEncryptionKey() const;
  // A handle that expires when this manager is destroyed; contexts, logs and queued work reach
  // the manager through it. Hold what lock() returns only for the call at hand: destruction
  // waits until every such hold is released (so never destroy a manager inside a call that
  // holds it).
  std::weak_ptr<Engine> weakHandle() const { return weakSelf_; }
  // The engine behind `handle` for the call at hand; null once its destruction has begun.
  static std::shared_ptr<Engine> hold(const std::weak_ptr<Engine>& handle);
  HostPlatform currentPlatform() const;
  void setCurrentPlatform(HostPlatform platform);
  Date initializationDate() const { return initializationDate_; }
  const std::string& bundleIdentifier() const { return bundleIdentifier_; }
  ContextManagerIsSupported isSupported() const { return isSupported_; }
  // Stable per installation while the defaults suite is available.
  std::string installationUUID();
  std::string currentSessionId() const;
  Date currentSessionStarted() const;
  bool isActive() const;
  bool isFirstStart() const;
  int64_t numberOfAppLaunches() const;
  int64_t numberOfInitialSessionsToAlwaysSendData() const { return 10; }

  // ---- Components -------------------------------------------------------------------------
  const std::shared_ptr<UserDefaultsProvider>& userDefaultsProvider() const { return defaults_; }
  const std::shared_ptr<DateProvider>& dateProvider() const { return dateProvider_; }
  AppLaunchSignalsGenerator& appLaunchSignalsGenerator() { return *appLaunchSignals_; }
  AppLaunchReasonSignalsGenerator& appLaunchReasonSignalsGenerator() { return *launchReason_; }
  OrvaneLogSender& orvaneLogSender();
  LogEncoder& logEncoder();
  OrvaneErrorReporting& orvaneErrorReporting();
  CoreMLModelManager& coreMLModelManager();
  RemoteConfiguration& remoteConfiguration();
  PeriodicContextEvaluator& periodicContextEvaluator();
  AccelerometerSensor& accelerometerSensor();
  // Reads its models from "Orvane.bundle" in the platform's SDK resource directory.
  ActivityRecognitionManager& activityRecognitionManager();
  TimingCoordinator& timingCoordinator();
  ModelExecutor& modelExecutor();
  GeoIPSignalGenerator& geoIPSignalGenerator();
  FlowTimingSignalsGenerator& flowTimingSignalsGenerator() { return *flowTimingSignals_; }
  StaticSignalsGenerator& staticSignalsGenerator();
  // Made with the manager: its monitors report asynchronously, and a path must be known by
  // the first request.
  InternetSignalsGenerator& internetSignalsGenerator() { return *internetSignals_; }
  OutputSignalsGenerator& outputSignalsGenerator();
  PushSettingsSignalGenerator& pushSettingsSignalGenerator();

  // ---- Recent contexts -----------------------------------------------------------------------
  // The flow's most recently created context, marked as handed out again; none if there is
  // none.
  std::shared_ptr<Context> recentContextForFlow(const std::string& flowName);
  // Runs `fn` with the recent-contexts map under its lock. Never call out to host code in it.
  using RecentContexts = std::map<std::string, std::shared_ptr<Context>>;
  template <typename Fn>
  auto withRecentContexts(Fn&& fn) {
    std::lock_guard<std::mutex> guard(recentContextsMutex_);
    return std::forward<Fn>(fn)(recentContexts_);
  }

 private:
  template <typename T>
  struct Lazy {
    std::once_flag once;
    std::unique_ptr<T> value;
  };

  void runInitialBootup();
  void becomeActiveHandling();
  void triggerBothUploadQueues();
  // A repair the store made of its damaged file, reported once (after setup, so that the
  // host's error reporting choice applies).
  void reportStoreRepair();
  // Acts on a change of whether collection is allowed: queues deleted, or uploads started.
  void collectionChanged(CollectionConsent::Change change, const char* why);

  // Counts the calls that hold the engine through weakHandle(); the destructor waits for the
  // last one to end.
  struct HandleRelease {
    std::mutex mutex;
    std::condition_variable released;
    bool done = false;
  };

  Platform platform_;
  const std::shared_ptr<HandleRelease> handleRelease_;
  // Set when destruction begins, so that new holds stop keeping the handle alive.
  std::atomic<bool> closing_{false};
  // Owns nothing: its deleter only says that no call holds the engine any more.
  std::shared_ptr<Engine> selfHandle_;
  // Copied from selfHandle_ once: any thread reads it while the destructor resets selfHandle_.
  const std::weak_ptr<Engine> weakSelf_;
  std::shared_ptr<UserDefaultsProvider> defaults_;
  // Before any component: it decides whether the suite and the network may be used.
  std::unique_ptr<CollectionConsent> consent_;
  std::atomic<bool> shutDown_{false};
  const std::shared_ptr<EraseGeneration> erasures_ = std::make_shared<EraseGeneration>();
  std::shared_ptr<DateProvider> dateProvider_;
  const Date initializationDate_;
  const std::string bundleIdentifier_;
  std::unique_ptr<AppLaunchSignalsGenerator> appLaunchSignals_;
  std::unique_ptr<AppLaunchReasonSignalsGenerator> launchReason_;
  std::unique_ptr<FlowTimingSignalsGenerator> flowTimingSignals_;
  std::unique_ptr<InternetSignalsGenerator> internetSignals_;
  ContextManagerIsSupported isSupported_;
  int observerToken_ = 0;

  // Small state shared between the main queue and callers on other threads. Never held
  // while calling into a component or the host.
  mutable std::mutex stateMutex_;
  Configuration configuration_;
  std::optional<std::string> licenseKey_;
  std::optional<std::string> logEncryptionKey_;
  std::string serviceBaseURL_;
  HostPlatform currentPlatform_ = HostPlatform::kNative;
  LogSender currentLogSender_;
  std::optional<std::string> installationUUID_;
  // Made while the defaults suite was not open; replaced by the stored one once it opens.
  bool installationUUIDIsInterim_ = false;
  std::string currentSessionId_;
  Date currentSessionStarted_;
  bool isActive_ = false;
  bool isFirstStart_ = true;
  int64_t numberOfAppLaunches_ = 0;

  mutable std::mutex globalSignalsMutex_;
  CustomSignalList globalCustomSignals_;

  Lazy<OrvaneLogSender> logSender_;
  Lazy<LogEncoder> logEncoder_;
  Lazy<OrvaneErrorReporting> errorReporting_;
  Lazy<CoreMLModelManager> modelManager_;
  Lazy<RemoteConfiguration> remoteConfiguration_;
  Lazy<PeriodicContextEvaluator> periodicEvaluator_;
  Lazy<AccelerometerSensor> accelerometerSensor_;
  Lazy<ActivityRecognitionManager> activityRecognition_;
  Lazy<TimingCoordinator> timingCoordinator_;
  Lazy<ModelExecutor> modelExecutor_;
  Lazy<GeoIPSignalGenerator> geoIPSignals_;
  Lazy<StaticSignalsGenerator> staticSignals_;
  Lazy<OutputSignalsGenerator> outputSignals_;
  Lazy<PushSettingsSignalGenerator> pushSettings_;

  std::mutex recentContextsMutex_;
  RecentContexts recentContexts_;
};

// The engine behind a public manager, for the SDK's own tools and tests.
struct ContextManagerAccess {
  static Engine& engine(ContextManager& manager) { return *manager.engine_; }
};

}  // namespace orvane
