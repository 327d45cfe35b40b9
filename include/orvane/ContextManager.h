// File: ContextManager.h
// The SDK's entry point. Every static operation acts on the process-wide manager, created on
// first use; any thread may call them and none of them throws.
//
// Typical start-up:
//   orvane::ContextManager::applicationDidFinishLaunchingWithOptions(launchOptions, "APP-KEY");
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "orvane/Configuration.h"
#include "orvane/Context.h"
#include "orvane/ContextModelInformation.h"
#include "orvane/CustomSignal.h"
#include "orvane/platform/Platform.h"

namespace orvane {

class Log;
class OrvaneLogSender;
class OrvaneErrorReporting;
class CoreMLModelManager;
class Context;
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

// Where finished logs go. The default hands them to the upload queue.
using LogSender = std::function<void(std::shared_ptr<Log>)>;

// The framework that embeds the SDK. Wrapper platforms (1, 3, 4) start their native layer
// late, so setup gets a longer grace period there.
enum class HostPlatform : int {
  kUnknown = 0,
  kManagedRuntime = 1,
  kHybridWeb = 2,
  kScriptBridge = 3,
  kCompiledBridge = 4,
  kNative = 5,
};

enum class ContextManagerIsSupported : int { kSupported = 0, kUnsupported = 1 };

class ContextManager {
 public:
  // ---- Setup -------------------------------------------------------------------------------
  // Call as early after app start as possible. Each returns true.
  static bool setup(const std::string& licenseKey) noexcept;
  static bool setup(const std::string& licenseKey, const Configuration& configuration) noexcept;
  // `defaultLogSender`, when set, receives every finished log instead of the upload queue.
  static bool setup(const std::string& licenseKey, LogSender defaultLogSender,
                    const Configuration& configuration) noexcept;
  static bool applicationDidFinishLaunchingWithOptions(
      const std::optional<LaunchOptions>& launchOptions, const std::string& licenseKey) noexcept;
  static bool applicationDidFinishLaunchingWithOptions(
      const std::optional<LaunchOptions>& launchOptions, const std::string& licenseKey,
      const Configuration& configuration) noexcept;
  // Replaces where finished logs go.
  static void setLogSender(LogSender closure) noexcept;
  // "5.13.0".
  static std::string sdkVersion() noexcept;
  // With decisions disabled every flow behaves as a control flow.
  static void setDecisionsEnabled(bool enabled) noexcept;
  // Control mode is decisions disabled.
  static void setControlMode(bool enabled) noexcept;
  // The generation id of the model set in use: the service's id, "ota-<version>", or
  // "calibration" before any update.
  static std::string currentAppliedCustomModelVersion() noexcept;
  // How `flowName` is decided today; none when the flow has neither a model nor a control
  // assignment (it then always upsells).
  static std::optional<ContextModelInformation> getCustomModel(
      const std::string& flowName) noexcept;

  // ---- Requests for a decision: callbacks always run on the main queue -------------------
  using ContextCallback = std::function<void(std::shared_ptr<Context>)>;
  // Waits until `duration` seconds of motion data exist, then calls back once.
  static void fetchContext(const std::string& flowName, int64_t duration,
                           const CustomSignalList& customSignals,
                           ContextCallback callback) noexcept;
  // Decides at once on the caller's thread, with whatever motion data there is.
  static std::shared_ptr<Context> instantContext(const std::string& flowName, int64_t duration,
                                                 const CustomSignalList& customSignals) noexcept;
  // Waits at most `maxDelay` seconds (3 when none); a flow with a model of its own waits for
  // the model's duration.
  static void optimize(const std::string& flowName, std::optional<int64_t> maxDelay,
                       const CustomSignalList& customSignals, ContextCallback callback) noexcept;
  static void calibrate(const std::string& flowName, int64_t maxDelay,
                        const CustomSignalList& customSignals, ContextCallback callback) noexcept;
  // The flow's most recent context, marked as handed out again.
  static std::shared_ptr<Context> recentContext(const std::string& flowName) noexcept;
  // Drops the flow's waiting requests; their callbacks are never called.
  static void cancelContextCallback(const std::string& flowName) noexcept;

  // ---- Observers: a flow evaluated in the background until its first good moment --------
  // While the app is active, every flow with an observer is evaluated once per polling
  // interval (set by the service) on 3 seconds of motion data. The observer is called once,
  // on the main queue, with the first context that says yes, and is then removed. Registering
  // a flow again replaces its observer. Contexts of observers log no creation record and
  // refuse the skipped outcome. `cancelContextCallback` for the flow ends an evaluation that
  // waits for motion data; the observer stays registered.
  static void registerContextObserver(const std::string& flowName,
                                      ContextCallback callbackOnFirstGoodMoment) noexcept;
  // The flow is not evaluated any more; with no observer left, no round is scheduled.
  static void unregisterContextObserver(const std::string& flowName) noexcept;

  // ---- Tracked events: each logs a context of its own at once ----------------------------
  // `name` is the context's flow name; the context carries 3 seconds of motion data.
  static void trackEvent(const std::string& name,
                         const CustomSignalList& customSignals = {}) noexcept;
  static void trackPageView(const std::string& name,
                            const CustomSignalList& customSignals = {}) noexcept;
  static void trackUserAction(const std::string& name,
                              const CustomSignalList& customSignals = {}) noexcept;

  // ---- Golden signals: selected values of a logged context for an ad bid ------------------
  // "ctxId" ties the bid to the logged context; "c<id>" keys hold the configured signals in
  // their own types, "u_<activity>_<tagger version>" the activity scores (floats), and
  // "contextDuration" the seconds of motion data when the service asks for it.
  static PlistDictionary goldenSignals(const std::optional<std::string>& trigger,
                                       const std::optional<std::string>& bidID) noexcept;

  // ---- Global custom signals: added to every later log -----------------------------------
  // Setting an id that is already present replaces its value in place.
  static void setGlobalCustomSignal(const std::string& id, bool value) noexcept;
  static void setGlobalCustomSignal(const std::string& id, int64_t value) noexcept;
  static void setGlobalCustomSignal(const std::string& id, int value) noexcept;
  static void setGlobalCustomSignal(const std::string& id, float value) noexcept;
  static void setGlobalCustomSignal(const std::string& id, double value) noexcept;  // as float
  static void setGlobalCustomSignal(const std::string& id, const Decimal& decimalValue) noexcept;
  // No value removes every global custom signal with that id.
  static void setGlobalCustomSignal(const std::string& id,
                                    const std::optional<std::string>& value) noexcept;
  static void setGlobalCustomSignal(const std::string& id, const char* value) noexcept;

  // ---- The service -------------------------------------------------------------------------
  // Where uploads, error reports go: scheme and host, e.g. "https://api.example.com" or
  // "http://127.0.0.1:8080". Defaults to $ORVANE_SERVICE_URL, else the production service.
  static void setServiceBaseURL(const std::string& baseURL) noexcept;

  // ---- The process-wide manager -----------------------------------------------------------
  static ContextManager& shared() noexcept;
  // Chooses the platform `shared()` is created with. False (and nothing changes) once the
  // shared manager exists.
  static bool installDefaultPlatform(Platform platform) noexcept;

  // A manager of its own, for tests and embedding. `imposedSupport` overrides the hardware
  // check.
  explicit ContextManager(Platform platform,
                          std::optional<ContextManagerIsSupported> imposedSupport = std::nullopt);
  ~ContextManager();
  ContextManager(const ContextManager&) = delete;
  ContextManager& operator=(const ContextManager&) = delete;

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
  // A handle that expires when this manager is destroyed; logs hold it.
  std::weak_ptr<ContextManager> weakHandle() const { return selfHandle_; }
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

  Platform platform_;
  // Owns nothing (no-op deleter); only its expiry matters.
  std::shared_ptr<ContextManager> selfHandle_;
  std::shared_ptr<UserDefaultsProvider> defaults_;
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

}  // namespace orvane
