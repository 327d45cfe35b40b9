#include "orvane/Context.h"

#include <algorithm>
#include <cstdio>

#include "api/Engine.h"
#include "logging/LogDictionaries.h"
#include "logging/LogEncoder.h"
#include "models/CoreMLModelManager.h"
#include "models/ModelExecutor.h"
#include "motion/RawMotionCapture.h"
#include "orvane/Log.h"
#include "revenue/StoreKitRevenueTracker.h"
#include "signals/SignalsManager.h"
#include "timing/FlowTimingSignalsGenerator.h"
#include "timing/TimingCoordinator.h"
#include "util/DateProvider.h"
#include "util/LogDateFormat.h"
#include "util/UUID.h"

namespace orvane {
namespace {

constexpr const char* kSkippedOnObserverMessage =
    "[Orvane] Attempted to log a skipped outcome for a context created using "
    "registerContextObserver. Please don't log skipped outcomes for contexts created using this "
    "method. Ignoring this outcome.";

// Logged by the SDK itself or reserved: never "premature".
bool exemptFromPrematureWarning(int outcome) {
  switch (outcome) {
    case 0:
    case -100:
    case -101:
    case -102:
    case -103:
    case -104:
    case -105:
    case 30:
    case 31:
    case 32:
      return true;
    default:
      return false;
  }
}

bool dropsAdditionalMotionRecord(int outcome) {
  return outcome == 0 || outcome == -100 || outcome == -101 || outcome == -102;
}

bool logsItsCreation(MethodUsed method) {
  switch (method) {
    case MethodUsed::kReserved:
    case MethodUsed::kInstantContext:
    case MethodUsed::kFetchContext:
    case MethodUsed::kCalibrate:
    case MethodUsed::kOptimize:
    case MethodUsed::kFurther12:
    case MethodUsed::kFurther14:
      return true;
    default:
      return false;
  }
}

std::string sameMetadataMessage(const std::string& flowName) {
  return "[Orvane] You are logging a new outcome for flow name \"" + flowName +
         "\" with the same outcome metadata as the last one logged. Please consider adding more "
         "meaningful metadata to this outcome before logging it, or review if logging multiple "
         "outcomes for the same context makes sense.\n\nSee the release checklist: "
         "https://docs.orvanepellam.com/release-checklist";
}

std::string prematureMessage(double seconds) {
  char formatted[32];
  std::snprintf(formatted, sizeof formatted, "%.1f", seconds);
  return std::string("[Orvane] There were only ") + formatted +
         "s between the moment you created a Orvane context object, and the moment you logged "
         "the outcome of the user interaction. It is critical you create the context object "
         "**before** you show a prompt (or other UI) to your user, and log its outcome. "
         "Generating a context **after** you asked the user introduces a heavy bias in the "
         "data, as a payment flow usually only reaches this point once the user has already "
         "decided. Please create the context before the prompt is shown.";
}

}  // namespace

std::optional<EventOutcome> eventOutcomeFromRawValue(int rawValue) {
  if (rawValue < -3 || rawValue > 4) return std::nullopt;
  return static_cast<EventOutcome>(rawValue);
}

std::string_view description(EventOutcome outcome) {
  switch (outcome) {
    case EventOutcome::kPositiveAdTapped:
      return "EventOutcome.positiveAdTapped";
    case EventOutcome::kPositiveConverted:
      return "EventOutcome.positiveConverted";
    case EventOutcome::kPositiveInteracted:
      return "EventOutcome.positiveInteracted";
    case EventOutcome::kPositive:
      return "EventOutcome.positive";
    case EventOutcome::kSkipped:
      return "EventOutcome.skipped";
    case EventOutcome::kNegative:
      return "EventOutcome.negative";
    case EventOutcome::kNegativeNotInteracted:
      return "EventOutcome.negativeNotInteracted";
    case EventOutcome::kNegativeDismissed:
      return "EventOutcome.negativeDismissed";
  }
  return "EventOutcome.unknown";
}

// ---- Creation -----------------------------------------------------------------------------

Context::Context(Engine& manager, SignalList requestSignals, std::string flowName,
                 CustomSignalList customSignals)
    : owner_(manager.weakHandle()),
      log_(manager.platform().log),
      flowName_(std::move(flowName)),
      customSignals_(std::move(customSignals)),
      contextUUID_(makeUUIDString(*manager.platform().random)),
      createdAt_(manager.dateProvider()->currentDate()),
      signalsManager_(
          std::make_unique<SignalsManager>(std::move(requestSignals), manager.platform().log)) {}

Context::~Context() = default;

std::shared_ptr<Context> Context::create(Engine& manager, SignalList requestSignals,
                                         std::string flowName, CustomSignalList customSignals,
                                         MethodUsed methodUsed,
                                         const ExtraModelExecutionInformation& extra,
                                         std::shared_ptr<const RawMotionCapture> rawMotion) {
  std::shared_ptr<Context> context(new Context(manager, std::move(requestSignals),
                                               std::move(flowName), std::move(customSignals)));
  context->rawMotion_ = std::move(rawMotion);
  context->decide(manager, methodUsed, extra);
  context->registerAsRecent(manager);
  if (logsItsCreation(methodUsed)) {
    context->logWithArbitraryOutcome(kCreatedOutcome, EventType::kCreation);
  }
  return context;
}

std::shared_ptr<Engine> Context::ownerFor(const char* call) const {
  std::shared_ptr<Engine> owner = Engine::hold(owner_);
  if (!owner) {
    log_->error(std::string("[Orvane] Context.") + call + " on flow \"" + flowName_ +
                "\" does nothing: the ContextManager that created the context is gone.");
  } else if (owner->isShutDown()) {
    log_->error(std::string("[Orvane] Context.") + call + " on flow \"" + flowName_ +
                "\" does nothing: the SDK was shut down.");
    return nullptr;
  }
  return owner;
}

void Context::decide(Engine& owner, MethodUsed methodUsed,
                     const ExtraModelExecutionInformation& extra) {
  // No lock: creation runs on one thread before the context is published (registerAsRecent
  // hands it over under the recent-contexts lock), and components are called from here.
  SignalsManager& signals = *signalsManager_;
  const int64_t requestedDuration = signals.intValue(SignalEnum::id(191)).value_or(0);
  modelInfo_ = std::make_shared<const CustomModelInfo>(
      owner.coreMLModelManager().getModelInfoForFlowValidatingDurationAndCallType(
          flowName_, requestedDuration, false));

  signals.append(SignalBool(SignalEnum::id(19), modelInfo_->executionInformation != nullptr));
  signals.append(SignalString(SignalEnum::id(29), contextUUID_));
  signals.append(SignalString(SignalEnum::id(20), flowName_));
  signals.append(SignalString(SignalEnum::id(14), owner.currentSessionId()));
  signals.append(SignalString(SignalEnum::id(15), owner.installationUUID()));
  signals.append(SignalInt(SignalEnum::id(25), static_cast<int64_t>(methodUsed)));

  if (owner.isSupported() == ContextManagerIsSupported::kUnsupported) {
    internalShouldUpsell_ = true;
    internalWasForcedUpsell_ = false;
    modelResult_ = -3;
  } else {
    CooldownResult cooldown = owner.timingCoordinator().performCooldownCalculation(flowName_);
    signals.append(cooldown.signals);

    ModelExecutor& executor = owner.modelExecutor();
    const auto& execution = modelInfo_->executionInformation;
    ModelExecutorResult result;
    if (const auto* model = dynamic_cast<const CoreMLModelExecutionInformation*>(execution.get())) {
      result = executor.executeCoreMLModel(modelInfo_->modelVersion, *model, extra, signals,
                                           customSignals_);
    } else if (execution) {
      result =
          executor.executeControlGroup(modelInfo_->modelVersion, execution->randomUpsellChance());
    } else {
      result = executor.executeControlGroup(modelInfo_->modelVersion, 1.0);
    }
    signals.append(result.signals);
    modelResult_ = result.decision == ModelDecisionCode::kNoUpsell ? -1 : 1;

    const UpsellDecision decision =
        combineDecisions(cooldown.decision, static_cast<uint8_t>(result.decision));
    internalShouldUpsell_ = decision.shouldUpsell;
    internalWasForcedUpsell_ = decision.wasForcedUpsell;
    if (decision.timingOverrideSignal) signals.append(*decision.timingOverrideSignal);
  }

  if (secondsToDecision_ == -1.0) {
    secondsToDecision_ =
        owner.dateProvider()->currentDate().secondsSince1970 - createdAt_.secondsSince1970;
  }
  if (internalShouldUpsell_) owner.timingCoordinator().markCurrentWindowExecuted(flowName_);

  signals.append(SignalInt(SignalEnum::id(11), modelResult_));
  signals.append(SignalBool(SignalEnum::id(12), internalShouldUpsell_));
  signals.append(
      owner.flowTimingSignalsGenerator().trackFlowCalled(flowName_, internalShouldUpsell_));
}

std::optional<bool> Context::signal21() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return signalsManager_->boolValue(SignalEnum::id(21));
}

void Context::markReturnedAgain() {
  std::lock_guard<std::mutex> guard(mutex_);
  signalsManager_->replaceSignal(SignalBool(SignalEnum::id(27), true));
}

void Context::registerAsRecent(Engine& owner) {
  const std::optional<bool> mine = signal21();
  const bool differentMaxDelay = owner.withRecentContexts([&](Engine::RecentContexts& recent) {
    bool differs = false;
    if (auto it = recent.find(flowName_); it != recent.end() && it->second) {
      it->second->markReturnedAgain();
      const std::optional<bool> previous = it->second->signal21();
      differs = previous ? *previous != mine.value_or(false) : mine.value_or(false);
    }
    recent[flowName_] = shared_from_this();
    return differs;
  });
  if (differentMaxDelay) {
    owner.platform().log->error(
        "[Orvane] Detected that context for flowname \"" + flowName_ +
        "\" was obtained using different values of maxDelay. This most likely is unintended, "
        "please make sure you always use the same Orvane parameters for a given flow, and to "
        "only obtain a context exactly once before performing the tracked action.");
  }
}

// ---- Outcomes -----------------------------------------------------------------------------

bool Context::alreadyLogged() const noexcept {
  std::lock_guard<std::mutex> guard(mutex_);
  return lastLoggedAt_.has_value();
}

bool Context::refusesSkipped(EventOutcome outcome) const {
  if (outcome != EventOutcome::kSkipped) return false;
  std::optional<int64_t> method;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    method = signalsManager_->intValue(SignalEnum::id(25));
  }
  if (method != static_cast<int64_t>(MethodUsed::kPeriodicEvaluation)) return false;
  log_->error(kSkippedOnObserverMessage);
  return true;
}

void Context::log(EventOutcome outcome) noexcept {
  if (refusesSkipped(outcome)) return;
  logOutcome(static_cast<int>(outcome), EventType::kOutcome, false);
}

void Context::logIfNotLoggedYet(EventOutcome outcome) noexcept {
  if (alreadyLogged() || refusesSkipped(outcome)) return;
  logOutcome(static_cast<int>(outcome), EventType::kOutcome, true);
}

void Context::logWithArbitraryOutcome(int outcome, EventType eventType) noexcept {
  logOutcome(outcome, eventType, false);
}

void Context::logOutcome(int outcome, EventType eventType, bool onlyIfNotLogged) noexcept {
  try {
    const std::shared_ptr<Engine> owner = ownerFor("log");
    if (!owner) return;
    const Platform& platform = owner->platform();
    std::string failure;
    std::shared_ptr<Log> record = createLog(*owner, outcome, eventType, onlyIfNotLogged, failure);
    if (!failure.empty()) {
      platform.log->info("[Orvane] Failed to send log: " + failure);
      return;
    }
    if (!record) return;  // another thread logged first
    bool sameMetadata = false;
    if (eventType != EventType::kCreation) {
      std::lock_guard<std::mutex> guard(mutex_);
      sameMetadata = lastLoggedOutcomeMetadata_.has_value() &&
                     containSameElements(record->outcomeMetadata(), *lastLoggedOutcomeMetadata_);
      lastLoggedOutcomeMetadata_ = record->outcomeMetadata();
    }
    if (sameMetadata) platform.log->error(sameMetadataMessage(flowName_));
    owner->sendLog(std::move(record));
  } catch (const std::exception& e) {
    log_->info(std::string("[Orvane] Failed to send log: ") + e.what());
  } catch (...) {
    log_->info("[Orvane] Failed to send log: unknown error");
  }
}

std::shared_ptr<Log> Context::createLog(Engine& owner, int outcome, EventType eventType,
                                        bool onlyIfNotLogged, std::string& failure) {
  const Date now = owner.dateProvider()->currentDate();
  const double sinceCreation = now.secondsSince1970 - createdAt_.secondsSince1970;
  SignalList signals;
  CustomSignalList metadata;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    if (onlyIfNotLogged && lastLoggedAt_) return nullptr;
    if (outcome != kCreatedOutcome) lastLoggedAt_ = now;
    SignalsManager& manager = *signalsManager_;
    manager.replaceSignal(SignalInt(SignalEnum::id(23), static_cast<int64_t>(eventType)));
    manager.replaceSignal(SignalInt(SignalEnum::id(3), outcome));
    manager.replaceSignal(
        SignalString(SignalEnum::id(8), makeUUIDString(*owner.platform().random)));
    manager.replaceSignal(SignalFloat(SignalEnum::id(9), static_cast<float>(sinceCreation)));
    manager.replaceSignal(SignalString(SignalEnum::id(17), formatLogDate(now)));
    manager.replaceSignal(SignalFloat(SignalEnum::id(28), static_cast<float>(secondsToDecision_)));
    signals = manager.signals();
    metadata = outcomeMetadata_;
  }
  if (!exemptFromPrematureWarning(outcome) && sinceCreation < 0.2) {
    owner.platform().log->error(prematureMessage(sinceCreation));
  }
  if (dropsAdditionalMotionRecord(outcome)) {
    std::erase_if(signals, [](const Signal& s) { return s.id() == SignalEnum::id(444); });
  } else if (rawMotion_) {
    // Built in the background since the request; only a log made at once waits for it.
    const SignalList& raw = rawMotion_->signals();
    signals.insert(signals.end(), raw.begin(), raw.end());
  }
  const CustomSignalList globals = owner.globalCustomSignals();
  auto encoded = owner.logEncoder().encodeLog(signals, customSignals_, globals);
  if (!encoded) {
    failure = encoded.error().description;
    return nullptr;
  }
  return makeEngineLog(std::move(signals), customSignals_, globals, std::move(metadata),
                       std::move(encoded).value(), owner.weakHandle());
}

void Context::appendOutcomeMetadata(const CustomSignalList& metadata) noexcept {
  std::lock_guard<std::mutex> guard(mutex_);
  for (const CustomSignal& entry : metadata) {
    std::erase_if(outcomeMetadata_,
                  [&](const CustomSignal& existing) { return existing.id() == entry.id(); });
  }
  outcomeMetadata_.insert(outcomeMetadata_.end(), metadata.begin(), metadata.end());
}

// ---- Revenue ------------------------------------------------------------------------------

template <typename MakeMetadata>
void Context::logRevenue(MakeMetadata&& makeMetadata, EventOutcome outcome,
                         bool onlyIfNotLogged) noexcept {
  if (onlyIfNotLogged && alreadyLogged()) return;
  try {
    const std::shared_ptr<Engine> owner = ownerFor("logRevenueOutcome");
    if (!owner) return;
    appendOutcomeMetadata(makeMetadata(StoreEnvironment::of(owner->platform())));
  } catch (const std::exception& e) {
    log_->error(std::string("[Orvane] Internal error in revenue logging: ") + e.what());
    return;
  } catch (...) {
    log_->error("[Orvane] Internal error in revenue logging");
    return;
  }
  if (onlyIfNotLogged) {
    logIfNotLoggedYet(outcome);
  } else {
    log(outcome);
  }
}

void Context::logRevenueOutcome(const StoreKit2Product& product, EventOutcome outcome) noexcept {
  logRevenue(
      [&](const StoreEnvironment& environment) {
        return StoreKitRevenueTracker::extractStoreKit2ProductMetadata(product, environment);
      },
      outcome, false);
}

void Context::logRevenueOutcome(const RevenueEvent& event, EventOutcome outcome) noexcept {
  logRevenue([&](const StoreEnvironment&) { return event.metadata(); }, outcome, false);
}

void Context::logStoreKit1RevenueOutcome(const StoreKit1Product& product,
                                         EventOutcome outcome) noexcept {
  logRevenue(
      [&](const StoreEnvironment& environment) {
        return StoreKitRevenueTracker::extractStoreKit1ProductMetadata(product, environment);
      },
      outcome, false);
}

void Context::logStoreKit1RevenueOutcome(const StoreKit1Transaction& transaction,
                                         const std::optional<StoreKit1Product>& product,
                                         EventOutcome outcome) noexcept {
  logRevenue(
      [&](const StoreEnvironment& environment) {
        return StoreKitRevenueTracker::extractStoreKit1TransactionMetadata(transaction, product,
                                                                           environment);
      },
      outcome, false);
}

void Context::logRevenueOutcomeIfNotLoggedYet(const StoreKit2Product& product,
                                              EventOutcome outcome) noexcept {
  logRevenue(
      [&](const StoreEnvironment& environment) {
        return StoreKitRevenueTracker::extractStoreKit2ProductMetadata(product, environment);
      },
      outcome, true);
}

void Context::logRevenueOutcomeIfNotLoggedYet(const RevenueEvent& event,
                                              EventOutcome outcome) noexcept {
  logRevenue([&](const StoreEnvironment&) { return event.metadata(); }, outcome, true);
}

void Context::logStoreKit1RevenueOutcomeIfNotLoggedYet(const StoreKit1Product& product,
                                                       EventOutcome outcome) noexcept {
  logRevenue(
      [&](const StoreEnvironment& environment) {
        return StoreKitRevenueTracker::extractStoreKit1ProductMetadata(product, environment);
      },
      outcome, true);
}

void Context::logStoreKit1RevenueOutcomeIfNotLoggedYet(
    const StoreKit1Transaction& transaction, const std::optional<StoreKit1Product>& product,
    EventOutcome outcome) noexcept {
  logRevenue(
      [&](const StoreEnvironment& environment) {
        return StoreKitRevenueTracker::extractStoreKit1TransactionMetadata(transaction, product,
                                                                           environment);
      },
      outcome, true);
}

SignalList Context::signals() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return signalsManager_->signals();
}

void Context::appendSignals(const SignalList& signals) {
  std::lock_guard<std::mutex> guard(mutex_);
  signalsManager_->append(signals);
}

CustomSignalList Context::outcomeMetadata() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return outcomeMetadata_;
}

}  // namespace orvane
