#include "api/Engine.h"
#include "api/ContextAccess.h"

#include <cmath>
#include <cstdlib>
#include <exception>

#include "api/Absorbing.h"
#include "api/HostInputLimits.h"
#include "api/PeriodicContextEvaluator.h"
#include "config/RemoteConfiguration.h"
#include "generators/AppLaunchReasonSignalsGenerator.h"
#include "generators/AppLaunchSignalsGenerator.h"
#include "generators/GeoIPSignalGenerator.h"
#include "generators/InternetSignalsGenerator.h"
#include "generators/OutputSignalsGenerator.h"
#include "generators/PushSettingsSignalGenerator.h"
#include "generators/StaticSignalsGenerator.h"
#include "logging/AES.h"
#include "logging/LogEncoder.h"
#include "logging/OrvaneErrorReporting.h"
#include "logging/OrvaneLogSender.h"
#include "models/CoreMLModelManager.h"
#include "models/ModelExecutor.h"
#include "motion/AccelerometerSensor.h"
#include "motion/ActivityRecognitionManager.h"
#include "orvane/Context.h"
#include "orvane/Log.h"
#include "platform/LevelFilteredLog.h"
#include "timing/FlowTimingSignalsGenerator.h"
#include "timing/TimingCoordinator.h"
#include "util/DateProvider.h"
#include "util/UUID.h"
#include "util/UserDefaultsProvider.h"

namespace orvane {
namespace {

constexpr const char* kDefaultsSuite = "com.orvane.ads";
constexpr const char* kInstallationUUIDKey = "orvane_installation_uuid";
constexpr const char* kDefaultServiceBaseURL = "https://api.orvanepellam.com";

std::string initialServiceBaseURL() {
  const char* fromEnvironment = std::getenv("ORVANE_SERVICE_URL");
  return fromEnvironment && *fromEnvironment ? fromEnvironment : kDefaultServiceBaseURL;
}
constexpr const char* kLateSetupMessage =
    "[Orvane] ContextManager.applicationDidFinishLaunchingWithOptions was not called right after "
    "app start. This can lead to lost events or your custom models not being used. Please make "
    "sure to call ContextManager.applicationDidFinishLaunchingWithOptions() as early after app "
    "start as possible.";

// Every part of the engine logs through the platform it was given: filter it once here.
Platform withLevelFilteredLog(Platform platform) {
  platform.log = makeLevelFilteredLog(std::move(platform.log));
  return platform;
}

template <typename T, typename Make>
T& lazily(std::once_flag& once, std::unique_ptr<T>& value, Make&& make) {
  std::call_once(once, [&] { value = make(); });
  return *value;
}

}  // namespace

// ---- Creation -----------------------------------------------------------------------------

Engine::Engine(Platform platform, std::optional<ContextManagerIsSupported> imposedSupport)
    : platform_(withLevelFilteredLog(std::move(platform))),
      handleRelease_(std::make_shared<HandleRelease>()),
      selfHandle_(this,
                  [release = handleRelease_](Engine*) {
                    std::lock_guard<std::mutex> guard(release->mutex);
                    release->done = true;
                    release->released.notify_all();
                  }),
      weakSelf_(selfHandle_),
      defaults_(UserDefaultsProvider::open(platform_.keyValueStores.get(), kDefaultsSuite)),
      consent_(std::make_unique<CollectionConsent>(defaults_)),
      dateProvider_(std::make_shared<DefaultDateProvider>(platform_.clock)),
      initializationDate_(dateProvider_->currentDate()),
      bundleIdentifier_(platform_.bundle.bundleIdentifier.value_or("unknown")),
      appLaunchSignals_(std::make_unique<AppLaunchSignalsGenerator>(dateProvider_, defaults_,
                                                                    platform_.calendar)),
      launchReason_(std::make_unique<AppLaunchReasonSignalsGenerator>()),
      flowTimingSignals_(std::make_unique<FlowTimingSignalsGenerator>(dateProvider_, defaults_)),
      internetSignals_(
          std::make_unique<InternetSignalsGenerator>(platform_.network, *platform_.executors)),
      serviceBaseURL_(initialServiceBaseURL()),
      currentLogSender_([](const std::shared_ptr<Log>& log) {
        if (log) log->send();
      }),
      currentSessionId_(makeUUIDString(*platform_.random)),
      currentSessionStarted_(initializationDate_) {
  if (imposedSupport) {
    isSupported_ = *imposedSupport;
  } else {
    const bool hasHardware = platform_.motion && platform_.motion->isAccelerometerAvailable() &&
                             platform_.motion->isGyroAvailable();
    isSupported_ = hasHardware ? ContextManagerIsSupported::kSupported
                               : ContextManagerIsSupported::kUnsupported;
  }
  if (platform_.http) platform_.http = consent_->gate(std::move(platform_.http));
  // The first static call creates the manager, so this runs inside a host's call: a failing
  // store or sensor leaves a manager that starts without them rather than an exception.
  absorbing(platform_, "start", [this] { runInitialBootup(); });
  setCurrentPlatform(HostPlatform::kNative);
}

Engine::~Engine() {
  // New calls through the handle now find it expired; wait for the ones in progress.
  closing_.store(true);
  selfHandle_.reset();
  {
    std::unique_lock<std::mutex> lock(handleRelease_->mutex);
    handleRelease_->released.wait(lock, [this] { return handleRelease_->done; });
  }
  if (observerToken_ != 0 && platform_.application) {
    platform_.application->removeObserver(observerToken_);
  }
  // Leaf first: what starts work goes before the components that work uses. The rest go in
  // reverse order of declaration, which already puts the error reporting they all use last.
  periodicEvaluator_.value.reset();
  activityRecognition_.value.reset();
  accelerometerSensor_.value.reset();
  logSender_.value.reset();  // its uploads apply answers to the model manager, timing, geo-IP
  withRecentContexts([](RecentContexts& recent) { recent.clear(); });
}

std::shared_ptr<Engine> Engine::hold(const std::weak_ptr<Engine>& handle) {
  std::shared_ptr<Engine> engine = handle.lock();
  if (engine && engine->closing_.load()) return nullptr;
  return engine;
}

void Engine::runInitialBootup() {
  if (platform_.application) {
    // Through the handle: a notification the host delivers while the manager is being
    // destroyed finds it expired instead of half torn down.
    observerToken_ =
        platform_.application->addObserver({[weak = weakHandle()] {
                                              if (auto engine = hold(weak))
                                                engine->handleDidBecomeActiveNotification();
                                            },
                                            [weak = weakHandle()] {
                                              if (auto engine = hold(weak))
                                                engine->handleWillResignActiveNotification();
                                            }});
  }
  // The manager is usually created while the app is already starting in the foreground.
  becomeActiveHandling();
}

// ---- Components ---------------------------------------------------------------------------

OrvaneLogSender& Engine::orvaneLogSender() {
  return lazily(logSender_.once, logSender_.value,
                [this] { return std::make_unique<OrvaneLogSender>(*this); });
}

OrvaneErrorReporting& Engine::orvaneErrorReporting() {
  return lazily(errorReporting_.once, errorReporting_.value,
                [this] { return std::make_unique<OrvaneErrorReporting>(*this); });
}

LogEncoder& Engine::logEncoder() {
  return lazily(logEncoder_.once, logEncoder_.value, [this] {
    return std::make_unique<LogEncoder>(platform_.crypto, platform_.random, platform_.log,
                                        [this] { return logEncryptionKey(); });
  });
}

RemoteConfiguration& Engine::remoteConfiguration() {
  return lazily(remoteConfiguration_.once, remoteConfiguration_.value, [this] {
    return std::make_unique<RemoteConfiguration>(
        defaults_, [this]() -> ErrorReporter& { return orvaneErrorReporting(); },
        platform_.executors->makeSerialQueue("com.orvane.RemoteConfiguration"));
  });
}

CoreMLModelManager& Engine::coreMLModelManager() {
  return lazily(modelManager_.once, modelManager_.value, [this] {
    CoreMLModelManager::Dependencies deps;
    deps.defaults = defaults_;
    deps.fileSystem = platform_.fileSystem;
    deps.modelRuntime = platform_.modelRuntime;
    deps.http = platform_.http;
    deps.crypto = platform_.crypto;
    deps.dateProvider = dateProvider_;
    deps.log = platform_.log;
    deps.updatingQueue = platform_.executors->makeSerialQueue("com.orvane.CoreMLModelManager");
    deps.errorReporter = [this]() -> ErrorReporter& { return orvaneErrorReporting(); };
    deps.remoteConfiguration = [this]() -> RemoteConfiguration& { return remoteConfiguration(); };
    deps.erasures = erasures_;
    deps.bundleIdentifier = bundleIdentifier_;
    deps.sdkVersion = sdkVersionString();
    if (!platform_.bundle.sdkResourceDirectory.empty()) {
      deps.bundledModelsFolder = platform_.bundle.sdkResourceDirectory + "/Orvane.bundle";
    }
    return std::make_unique<CoreMLModelManager>(std::move(deps));
  });
}

TimingCoordinator& Engine::timingCoordinator() {
  return lazily(timingCoordinator_.once, timingCoordinator_.value, [this] {
    return std::make_unique<TimingCoordinator>(
        defaults_, dateProvider_, platform_.random,
        [this]() -> ErrorReporter& { return orvaneErrorReporting(); });
  });
}

ModelExecutor& Engine::modelExecutor() {
  return lazily(modelExecutor_.once, modelExecutor_.value, [this] {
    return std::make_unique<ModelExecutor>(ModelExecutor::Dependencies{
        platform_.random, platform_.calendar, dateProvider_, platform_.log,
        [this]() -> ErrorReporter& { return orvaneErrorReporting(); }});
  });
}

GeoIPSignalGenerator& Engine::geoIPSignalGenerator() {
  return lazily(geoIPSignals_.once, geoIPSignals_.value, [this] {
    return std::make_unique<GeoIPSignalGenerator>(
        defaults_, dateProvider_, [this]() -> ErrorReporter& { return orvaneErrorReporting(); });
  });
}

StaticSignalsGenerator& Engine::staticSignalsGenerator() {
  return lazily(staticSignals_.once, staticSignals_.value, [this] {
    StaticSignalsGenerator::Dependencies deps;
    deps.device = platform_.device;
    deps.calendar = platform_.calendar;
    deps.dateProvider = dateProvider_;
    deps.bundle = platform_.bundle;
    deps.bundleIdentifier = bundleIdentifier_;
    deps.sdkVersion = sdkVersionString();
    deps.isSupported = isSupported_;
    deps.currentPlatform = [this] { return currentPlatform(); };
    return std::make_unique<StaticSignalsGenerator>(std::move(deps));
  });
}

OutputSignalsGenerator& Engine::outputSignalsGenerator() {
  return lazily(outputSignals_.once, outputSignals_.value, [this] {
    OutputSignalsGenerator::Dependencies deps;
    deps.device = platform_.device;
    deps.application = platform_.application;
    deps.mainQueue = platform_.executors->mainQueue();
    deps.sessionSeconds = [this]() -> std::optional<double> {
      if (!configuration().enableSessionDurationMonitoring) return std::nullopt;
      return dateProvider_->currentDate().secondsSince1970 -
             currentSessionStarted().secondsSince1970;
    };
    return std::make_unique<OutputSignalsGenerator>(std::move(deps));
  });
}

PushSettingsSignalGenerator& Engine::pushSettingsSignalGenerator() {
  return lazily(pushSettings_.once, pushSettings_.value, [this] {
    return std::make_unique<PushSettingsSignalGenerator>(platform_.notifications);
  });
}

std::shared_ptr<Context> Engine::recentContextForFlow(const std::string& flowName) {
  auto context = withRecentContexts([&](RecentContexts& recent) -> std::shared_ptr<Context> {
    auto it = recent.find(flowName);
    if (it == recent.end() || !it->second) return nullptr;
    ContextAccess::markReturnedAgain(*it->second);
    return it->second;
  });
  return context;
}

PeriodicContextEvaluator& Engine::periodicContextEvaluator() {
  return lazily(periodicEvaluator_.once, periodicEvaluator_.value,
                [this] { return std::make_unique<PeriodicContextEvaluator>(*this); });
}

AccelerometerSensor& Engine::accelerometerSensor() {
  return lazily(accelerometerSensor_.once, accelerometerSensor_.value, [this] {
    AccelerometerSensor::Environment environment;
    environment.motion = platform_.motion;
    environment.executors = platform_.executors;
    environment.clock = platform_.clock;
    environment.dateProvider = dateProvider_;
    environment.log = platform_.log;
    // Called only while the sensor exists; its queued work checks that before calling.
    environment.errorReporting = [this]() -> ErrorReporter& { return orvaneErrorReporting(); };
    environment.additionalAccelDataDuration = [this] {
      return remoteConfiguration().getConfiguration().additionalAccelDataDurationSeconds;
    };
    return std::make_unique<AccelerometerSensor>(std::move(environment),
                                                 configuration().enableInstantContext);
  });
}

ActivityRecognitionManager& Engine::activityRecognitionManager() {
  return lazily(activityRecognition_.once, activityRecognition_.value, [this] {
    ActivityRecognitionManager::Dependencies deps;
    deps.configuration = [this] { return remoteConfiguration().getConfiguration(); };
    deps.errorReporter = [this]() -> ErrorReporter& { return orvaneErrorReporting(); };
    deps.modelRuntime = platform_.modelRuntime;
    deps.fileSystem = platform_.fileSystem;
    deps.resourceDirectory = platform_.bundle.sdkResourceDirectory;
    return std::make_unique<ActivityRecognitionManager>(std::move(deps));
  });
}

// ---- Setup --------------------------------------------------------------------------------

namespace {

// Said once, at setup: without a usable key every log is dropped later, silently.
std::string badAppKeyMessage(const std::string& licenseKey) {
  return "[Orvane] The app key passed to setup cannot be used: it must be at least 16 "
         "characters long, and its first 16 characters must take 16 or 32 bytes of UTF-8 (this "
         "key has " +
         std::to_string(licenseKey.size()) +
         " bytes). Until setup is called with the app key from your dashboard, no context or "
         "outcome is recorded.";
}

}  // namespace

bool Engine::setupWith(const std::string& licenseKey, LogSender logSender,
                       const std::optional<LaunchOptions>& launchOptions,
                       const Configuration& configuration) noexcept {
  absorbing(platform_, "setup", [&] {
    const double sinceStart =
        dateProvider_->currentDate().secondsSince1970 - initializationDate_.secondsSince1970;
    const HostPlatform host = currentPlatform();
    const bool slowStartingHost = host == HostPlatform::kManagedRuntime ||
                                  host == HostPlatform::kScriptBridge ||
                                  host == HostPlatform::kCompiledBridge;
    if (sinceStart >= (slowStartingHost ? 30.0 : 5.0)) platform_.log->error(kLateSetupMessage);

    std::optional<std::string> encryptionKey = deriveLogEncryptionKey(licenseKey);
    // A key whose cut is not 16 or 32 bytes is refused by the cipher at every log.
    if (!encryptionKey || (encryptionKey->size() != 16 && encryptionKey->size() != 32)) {
      platform_.log->error(badAppKeyMessage(licenseKey));
    }
    {
      std::lock_guard<std::mutex> guard(stateMutex_);
      configuration_ = configuration;
      licenseKey_ = licenseKey;
      logEncryptionKey_ = std::move(encryptionKey);
      if (logSender) currentLogSender_ = std::move(logSender);
    }
    collectionChanged(consent_->setRequired(configuration.requireConsent), "setup");
    reportStoreRepair();
    launchReason_->setLaunchReason(LaunchReasonHelper::determineLaunchReason(launchOptions));
    accelerometerSensor().setAlwaysRunInForeground(configuration.enableInstantContext);
    triggerBothUploadQueues();
  });
  return true;
}

void Engine::reportStoreRepair() {
  std::optional<std::string> note = defaults_->string(kStoreRepairNoteKey);
  if (!note) return;
  // Rare and worth knowing about every time: not thinned out by the sampling rate.
  orvaneErrorReporting().reportError("Damaged store repaired", std::nullopt, true,
                                     PlistDictionary{{"details", std::move(*note)}});
  defaults_->remove(kStoreRepairNoteKey);
}

void Engine::triggerBothUploadQueues() {
  orvaneLogSender().triggerUpload(UploadQueueKind::kUnloggedContexts, false);
  orvaneLogSender().triggerUpload(UploadQueueKind::kMain, true);
}

void Engine::replaceLogSender(LogSender sender) noexcept {
  absorbing(platform_, "setLogSender", [&] {
    std::lock_guard<std::mutex> guard(stateMutex_);
    currentLogSender_ = std::move(sender);
  });
}

void Engine::sendLog(std::shared_ptr<Log> log) noexcept {
  absorbing(platform_, "sendLog", [&] {
    // The sender is host code: it always runs on the main queue, and the one current when it
    // runs is used.
    auto deliver = [this, log = std::move(log)] {
      absorbing(platform_, "sendLog", [&] {
        LogSender sender;
        {
          std::lock_guard<std::mutex> guard(stateMutex_);
          sender = currentLogSender_;
        }
        if (sender) sender(log);
      });
    };
    auto main = platform_.executors ? platform_.executors->mainQueue() : nullptr;
    if (!main || main->isCurrent()) {
      deliver();
    } else {
      std::weak_ptr<Engine> alive = weakSelf_;
      main->async([alive, deliver = std::move(deliver)] {
        if (const auto held = hold(alive)) deliver();
      });
    }
  });
}

void Engine::setDecisionsSwitch(bool enabled) noexcept {
  absorbing(platform_, "setDecisionsEnabled",
            [&] { coreMLModelManager().setDecisionsEnabled(enabled); });
}

std::string Engine::appliedModelGenerationId() noexcept {
  std::string id = "calibration";
  absorbing(platform_, "currentAppliedCustomModelVersion",
            [&] { id = coreMLModelManager().getCurrentAppliedGenerationId(); });
  return id;
}

std::optional<ContextModelInformation> Engine::modelInformation(
    const std::string& flowName) noexcept {
  std::optional<ContextModelInformation> view;
  absorbing(platform_, "getCustomModel", [&] {
    const CustomModelInfo info = coreMLModelManager().getModelInfoForFlow(flowName);
    if (!info.executionInformation) return;
    view = ContextModelInformation{info.isControl,
                                   info.modelVersion,
                                   info.supportedDuration,
                                   info.useInstantContext,
                                   info.executionInformation->randomUpsellChance(),
                                   std::nullopt};
    if (const auto* model =
            dynamic_cast<const CoreMLModelExecutionInformation*>(info.executionInformation.get())) {
      view->upsellThreshold = model->modelThresholds().upsellThreshold;
    }
  });
  return view;
}

// ---- Lifecycle ----------------------------------------------------------------------------

void Engine::becomeActiveHandling() {
  {
    std::lock_guard<std::mutex> guard(stateMutex_);
    if (isActive_) return;
    isActive_ = true;
    currentSessionStarted_ = dateProvider_->currentDate();
    currentSessionId_ = makeUUIDString(*platform_.random);
  }
  launchReason_->appDidBecomeActive();
  {
    AccelerometerSensor& sensor = accelerometerSensor();
    std::lock_guard<std::mutex> guard(sensor.accelerometerStateLock());
    sensor.setAppInForeground(true);
    sensor.maybeStartAccelerometer();
  }
  pushSettingsSignalGenerator().refreshPushSettings();
  if (platform_.calendar)
    platform_.calendar->refreshZone();  // the launch is counted on today's date in today's zone
  const int64_t launches = appLaunchSignals_->incrementAndGetNumberOfAppLaunches();
  appLaunchSignals_->updateLastAppWillResignDate();
  {
    std::lock_guard<std::mutex> guard(stateMutex_);
    numberOfAppLaunches_ = launches;
  }
  orvaneLogSender().triggerUpload(UploadQueueKind::kMain, false);
  periodicContextEvaluator().appDidBecomeActive();
}

void Engine::handleDidBecomeActiveNotification() noexcept {
  if (isShutDown()) return;
  absorbing(platform_, "didBecomeActive", [&] {
    becomeActiveHandling();
    bool firstStart = false;
    {
      std::lock_guard<std::mutex> guard(stateMutex_);
      firstStart = isFirstStart_;
      isFirstStart_ = false;
    }
    if (firstStart) triggerBothUploadQueues();
  });
}

void Engine::handleWillResignActiveNotification() noexcept {
  if (isShutDown()) return;
  absorbing(platform_, "willResignActive", [&] {
    {
      std::lock_guard<std::mutex> guard(stateMutex_);
      if (!isActive_) return;
      isActive_ = false;
    }
    appLaunchSignals_->updateLastAppWillResignDate();
    const Date now = dateProvider_->currentDate();
    launchReason_->setLastResignDate(now);
    periodicContextEvaluator().appWillResign();
    {
      AccelerometerSensor& sensor = accelerometerSensor();
      std::lock_guard<std::mutex> guard(sensor.accelerometerStateLock());
      sensor.setAppInForeground(false);
      sensor.maybeStopAccelerometer();
    }
    double sessionSeconds = 0;
    {
      std::lock_guard<std::mutex> guard(stateMutex_);
      // A new id at once: background work must not be attributed to the finished session.
      currentSessionId_ = makeUUIDString(*platform_.random);
      sessionSeconds = now.secondsSince1970 - currentSessionStarted_.secondsSince1970;
    }
    appLaunchSignals_->storeNewSessionDuration(static_cast<int64_t>(std::llround(sessionSeconds)));
  });
}

// ---- Identity and state -------------------------------------------------------------------

std::string Engine::installationUUID() {
  std::lock_guard<std::mutex> guard(stateMutex_);
  if (installationUUID_ && !installationUUIDIsInterim_) return *installationUUID_;
  if (defaults_->isAvailable()) {
    // A suite that opened late still holds the identity of earlier launches: it wins over the
    // interim one this process made meanwhile.
    if (auto stored = defaults_->string(kInstallationUUIDKey)) {
      installationUUID_ = *stored;
    } else {
      if (!installationUUID_) installationUUID_ = makeUUIDString(*platform_.random);
      defaults_->set(kInstallationUUIDKey, *installationUUID_);
      defaults_->synchronize();  // the identity must survive a crash right after it is made
    }
    installationUUIDIsInterim_ = false;
  } else if (!installationUUID_) {
    platform_.log->error("[Orvane] Failed to get Installation UUID");
    installationUUID_ = makeUUIDString(*platform_.random);
    installationUUIDIsInterim_ = true;
  }
  return *installationUUID_;
}

Configuration Engine::configuration() const {
  std::lock_guard<std::mutex> guard(stateMutex_);
  return configuration_;
}
std::optional<std::string> Engine::licenseKey() const {
  std::lock_guard<std::mutex> guard(stateMutex_);
  return licenseKey_;
}
void Engine::setServiceBaseURLValue(const std::string& baseURL) noexcept {
  absorbing(platform_, "setServiceBaseURL", [&] {
    std::string trimmed = baseURL;
    while (!trimmed.empty() && trimmed.back() == '/') trimmed.pop_back();
    std::lock_guard<std::mutex> guard(stateMutex_);
    serviceBaseURL_ = trimmed;
  });
}
std::string Engine::serviceBaseURL() const {
  std::lock_guard<std::mutex> guard(stateMutex_);
  return serviceBaseURL_;
}

std::optional<std::string> Engine::logEncryptionKey() const {
  std::lock_guard<std::mutex> guard(stateMutex_);
  return logEncryptionKey_;
}
HostPlatform Engine::currentPlatform() const {
  std::lock_guard<std::mutex> guard(stateMutex_);
  return currentPlatform_;
}
void Engine::setCurrentPlatform(HostPlatform platform) {
  std::lock_guard<std::mutex> guard(stateMutex_);
  currentPlatform_ = platform;
}
std::string Engine::currentSessionId() const {
  std::lock_guard<std::mutex> guard(stateMutex_);
  return currentSessionId_;
}
Date Engine::currentSessionStarted() const {
  std::lock_guard<std::mutex> guard(stateMutex_);
  return currentSessionStarted_;
}
bool Engine::isActive() const {
  std::lock_guard<std::mutex> guard(stateMutex_);
  return isActive_;
}
bool Engine::isFirstStart() const {
  std::lock_guard<std::mutex> guard(stateMutex_);
  return isFirstStart_;
}
int64_t Engine::numberOfAppLaunches() const {
  std::lock_guard<std::mutex> guard(stateMutex_);
  return numberOfAppLaunches_;
}

// ---- Diagnostics and upload control ------------------------------------------------------

Diagnostics Engine::diagnostics() {
  Diagnostics out;
  out.installationID = installationUUID();
  out.appLaunches = numberOfAppLaunches();
  out.appliedModelGeneration = coreMLModelManager().getCurrentAppliedGenerationId();
  out.appliedUpdateVersion =
      defaults_->integer(CoreMLModelManager::kLastAppliedVersion).value_or(0);
  OrvaneLogSender& sender = orvaneLogSender();
  auto logIds = [](const std::vector<PlistDictionary>& queue) {
    std::vector<std::string> ids;
    for (const PlistDictionary& record : queue) {
      auto id = record.find("ctx_8");
      if (id == record.end()) continue;
      if (const std::string* text = id->second.asString()) ids.push_back(*text);
    }
    return ids;
  };
  const std::vector<PlistDictionary> queued = sender.mainQueue();
  const std::vector<PlistDictionary> unanswered = sender.unloggedQueue();
  out.queuedRecords = queued.size();
  out.queuedLogIds = logIds(queued);
  out.unansweredContexts = unanswered.size();
  out.unansweredLogIds = logIds(unanswered);
  out.uploadBackoffSeconds = sender.currentBackoffSeconds();
  out.recordsWaitingInMemory = sender.recordsWaitingInMemory();
  out.uploadInFlight = sender.uploadInFlight();
  return out;
}

bool Engine::flush(double timeoutSeconds) { return orvaneLogSender().flush(timeoutSeconds); }

// ---- Global custom signals ----------------------------------------------------------------

void Engine::storeGlobalCustomSignal(const CustomSignal& given) noexcept {
  absorbing(platform_, "setGlobalCustomSignal", [&] {
    CustomSignal signal = limitedCustomSignal(given, *platform_.log);
    {
      std::lock_guard<std::mutex> guard(globalSignalsMutex_);
      for (auto& existing : globalCustomSignals_) {
        if (existing.id() == signal.id()) {
          existing = std::move(signal);
          return;
        }
      }
      if (globalCustomSignals_.size() < HostInputLimits::kMaximumGlobalSignals) {
        globalCustomSignals_.push_back(std::move(signal));
        return;
      }
    }
    platform_.log->error("[Orvane] There are already " +
                         std::to_string(HostInputLimits::kMaximumGlobalSignals) +
                         " global custom signals; \"" + std::string(utf8Prefix(signal.id(), 40)) +
                         "\" is not set. Remove one first.");
  });
}

void Engine::removeGlobalCustomSignals(const std::string& id) noexcept {
  absorbing(platform_, "setGlobalCustomSignal", [&] {
    std::lock_guard<std::mutex> guard(globalSignalsMutex_);
    std::erase_if(globalCustomSignals_, [&](const CustomSignal& s) { return s.id() == id; });
  });
}

CustomSignalList Engine::globalCustomSignals() const {
  std::lock_guard<std::mutex> guard(globalSignalsMutex_);
  return globalCustomSignals_;
}

}  // namespace orvane
