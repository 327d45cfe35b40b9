// File: ContextManager.h
// The SDK's entry point. Every static operation acts on the process-wide manager, created on
// first use; any thread may call them and none of them throws.
//
// Typical start-up:
//   orvane::ContextManager::applicationDidFinishLaunchingWithOptions(launchOptions, "APP-KEY");
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "orvane/Configuration.h"
#include "orvane/Context.h"
#include "orvane/ContextModelInformation.h"
#include "orvane/CustomSignal.h"
#include "orvane/Diagnostics.h"
#include "orvane/Export.h"
#include "orvane/platform/Platform.h"

namespace orvane {

class Engine;
class Log;

// Where finished logs go. The default hands them to the upload queue.
using LogSender = std::function<void(std::shared_ptr<Log>)>;

enum class ContextManagerIsSupported : int { kSupported = 0, kUnsupported = 1 };

// How much the SDK writes to the platform's log: errors only; also warnings (the default, and
// every "[Orvane] " misuse line); also information such as upload failures; everything.
enum class SdkLogLevel : int { kError = 0, kWarning = 1, kInfo = 2, kDebug = 3 };

// Whether the user agreed that the SDK keeps and sends data (ContextManager::setConsent).
enum class ConsentState : int { kUnknown = 0, kGranted = 1, kDenied = 2 };

class ORVANE_API ContextManager {
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
  // ORVANE_VERSION_STRING of orvane/Version.h.
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
  // For the whole process and every manager in it; takes effect at once. The environment
  // variable ORVANE_DEBUG_LOG starts a process at kDebug, for tools.
  static void setLogLevel(SdkLogLevel level) noexcept;

  // ---- Diagnostics and upload control ----------------------------------------------------
  // The installation, the models in use and the upload queues; see Diagnostics.h.
  static Diagnostics diagnostics() noexcept;
  // Uploads what waits now, without waiting out the back-off after a failure, and waits at
  // most `timeoutSeconds` for it. True when no outcome record is left waiting. Never call it
  // from a callback of the SDK's own queues; from the main queue it blocks the main queue.
  static bool flush(double timeoutSeconds) noexcept;

  // ---- Consent, erase and shutdown ---------------------------------------------------------
  // The user's choice, kept across launches. While collection is not allowed (kDenied, or
  // kUnknown with Configuration::requireConsent) contexts are still created and decided on the
  // device, but nothing is written to the data folder and nothing is sent: no upload, no error
  // report, no model download. Granting starts normal operation from that moment; denying or
  // revoking deletes the queued records. Never asked, the SDK collects as it always has.
  static void setConsent(ConsentState state) noexcept;
  static ConsentState consent() noexcept;
  // Deletes queued records, launch and session history, flow timing state, the stored
  // configuration, models and the installation identity: the next start is a new
  // installation. The consent choice stays. Any thread, at any moment.
  static void resetAllData() noexcept;
  // Flushes (at most `timeoutSeconds`), stops motion sampling and timers, and turns later
  // calls that would collect, decide or send into logged no-ops. Some keep working on purpose:
  // setConsent, consent and resetAllData (the user's rights outlive the app's state),
  // diagnostics, the model queries (currentAppliedCustomModelVersion, getCustomModel),
  // setLogLevel and sdkVersion, which only read or touch no data. Returns what the flush
  // returned; a second call returns false at once.
  static bool shutdown(double timeoutSeconds) noexcept;

  // ---- The process-wide manager -----------------------------------------------------------
  static ContextManager& shared() noexcept;
  // Chooses the platform `shared()` is created with. False (and nothing changes) once the
  // shared manager exists.
  static bool installDefaultPlatform(Platform platform) noexcept;

  // A manager of its own, for embedding it beside the process-wide one. `imposedSupport`
  // overrides the hardware check.
  explicit ContextManager(Platform platform,
                          std::optional<ContextManagerIsSupported> imposedSupport = std::nullopt);
  // Waits for calls in progress on this manager's contexts and callbacks, stops its workers,
  // and leaves its contexts as logged no-ops. Never destroy a manager from inside one of its
  // own callbacks: that call is one the destructor waits for.
  ~ContextManager();
  ContextManager(const ContextManager&) = delete;
  ContextManager& operator=(const ContextManager&) = delete;

  // ---- Instance operations: the static API's forms for this manager ----------------------
  bool setupWith(const std::string& licenseKey, LogSender logSender,
                 const std::optional<LaunchOptions>& launchOptions,
                 const Configuration& configuration) noexcept;
  void replaceLogSender(LogSender sender) noexcept;
  void setDecisionsSwitch(bool enabled) noexcept;
  std::string appliedModelGenerationId() noexcept;
  std::optional<ContextModelInformation> modelInformation(const std::string& flowName) noexcept;
  void setServiceBaseURLValue(const std::string& baseURL) noexcept;
  void storeGlobalCustomSignal(const CustomSignal& signal) noexcept;
  void removeGlobalCustomSignals(const std::string& id) noexcept;

  void requestFetchContext(const std::string& flowName, int64_t duration,
                           const CustomSignalList& customSignals,
                           ContextCallback callback) noexcept;
  std::shared_ptr<Context> requestInstantContext(const std::string& flowName, int64_t duration,
                                                 const CustomSignalList& customSignals) noexcept;
  void requestOptimize(const std::string& flowName, std::optional<int64_t> maxDelay,
                       const CustomSignalList& customSignals, ContextCallback callback) noexcept;
  void requestCalibrate(const std::string& flowName, int64_t maxDelay,
                        const CustomSignalList& customSignals, ContextCallback callback) noexcept;
  std::shared_ptr<Context> recentContextForFlow(const std::string& flowName) noexcept;
  void cancelContextCallbackFor(const std::string& flowName) noexcept;
  void registerContextObserverFor(const std::string& flowName,
                                  ContextCallback callbackOnFirstGoodMoment) noexcept;
  void unregisterContextObserverFor(const std::string& flowName) noexcept;
  void recordTrackedEvent(const std::string& name, const CustomSignalList& customSignals,
                          EventType eventType) noexcept;
  PlistDictionary collectGoldenSignals(const std::optional<std::string>& trigger,
                                       const std::optional<std::string>& bidID) noexcept;

  Diagnostics currentDiagnostics() noexcept;
  bool flushUploads(double timeoutSeconds) noexcept;
  void applyConsent(ConsentState state) noexcept;
  ConsentState currentConsent() noexcept;
  void eraseAllData() noexcept;
  bool shutdownManager(double timeoutSeconds) noexcept;

  // The services this manager runs on; a bridge drives the host-driven ones through them.
  const Platform& platform() const noexcept;

 private:
  // True, with a logged line, once the manager was shut down.
  bool refusedAfterShutdown(const char* operation) const noexcept;

  friend struct ContextManagerAccess;  // the SDK's own tools and tests (src/api/Engine.h)
  std::unique_ptr<Engine> engine_;
};

}  // namespace orvane
