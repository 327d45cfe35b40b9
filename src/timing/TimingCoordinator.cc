#include "timing/TimingCoordinator.h"

#include <limits>
#include <utility>

namespace orvane {

namespace {

constexpr std::string_view kLoadConfigurationFailed = "Failed to load general timing configuration";
constexpr std::string_view kLoadStatesFailed = "Failed to load current per flow timing state";
constexpr std::string_view kSaveConfigurationFailed = "Failed to save general timing configuration";
constexpr std::string_view kSaveStatesFailed = "Failed to save flow timing configuration";

constexpr SignalEnum kHasTimingRules = SignalEnum::id(652);
constexpr SignalEnum kExecutionNumber = SignalEnum::id(653);
constexpr SignalEnum kActBySkew = SignalEnum::id(654);
constexpr SignalEnum kCountsExecutions = SignalEnum::id(655);
constexpr SignalEnum kDistanceToActBy = SignalEnum::id(656);
constexpr SignalEnum kTimingWindowId = SignalEnum::id(657);
constexpr SignalEnum kTimingBlockedUpsell = SignalEnum::id(650);
constexpr SignalEnum kTimingForcedUpsell = SignalEnum::id(651);

// Forwards to a reporter that is created only when something is reported.
class LazyErrorReporter : public ErrorReporter {
 public:
  explicit LazyErrorReporter(const std::function<ErrorReporter&()>& get) : get_(get) {}
  using ErrorReporter::reportError;
  void reportError(std::string_view message, const std::optional<PlatformError>& error,
                   bool usingDefaultConfiguration,
                   const std::optional<PlistDictionary>& additionalData) override {
    get_().reportError(message, error, usingDefaultConfiguration, additionalData);
  }

 private:
  const std::function<ErrorReporter&()>& get_;
};

// Whole seconds towards zero, held within int64 (an act-by date may lie far out).
int64_t wholeSeconds(double seconds) {
  if (!(seconds == seconds)) return 0;  // NaN
  if (seconds >= 0x1p63) return std::numeric_limits<int64_t>::max();
  if (seconds < -0x1p63) return std::numeric_limits<int64_t>::min();
  return static_cast<int64_t>(seconds);
}

// The stored record under `key`: none (silently) when nothing is stored; none with a report
// when what is stored cannot be read.
template <typename T, typename Decode>
std::optional<T> loadRecord(const UserDefaultsProvider& defaults, std::string_view key,
                            Decode decode, ErrorReporter& reporter,
                            std::string_view failureMessage) {
  auto stored = defaults.object(key);
  if (!stored) return std::nullopt;
  std::string error = "stored value is not data";
  std::optional<T> decoded;
  if (const Bytes* bytes = stored->asBytes()) {
    decoded = decode(std::string_view(reinterpret_cast<const char*>(bytes->data()), bytes->size()),
                     &error);
  }
  if (!decoded) {
    reporter.reportError(failureMessage, PlatformError{kDecodingErrorDomain, 0, error}, false,
                         std::nullopt);
  }
  return decoded;
}

CooldownResult withoutRules() {
  return CooldownResult{TimingDecision::kFollowModel,
                        {SignalBool(kHasTimingRules, false), SignalInt(kExecutionNumber, -1),
                         SignalFloat(kActBySkew, -1.0f)}};
}

TimingDecision decide(const FlowTimingStatus& status, int64_t executionNumber, Date now) {
  const bool executed = status.hasBeenExecutedInTheCurrentWindow;
  if (!status.allowMultipleExecutions && executed) return TimingDecision::kBlocked;
  if (status.alwaysActAtLeastOnce && !executed) {
    const bool countReached =
        status.actByExecutionCount && *status.actByExecutionCount <= executionNumber;
    const bool dateReached = status.actByDate && *status.actByDate <= now;
    if (countReached || dateReached) return TimingDecision::kMustAct;
  }
  return TimingDecision::kFollowModel;
}

}  // namespace

UpsellDecision combineDecisions(TimingDecision timing, uint8_t modelDecisionCode) {
  const bool modelSaysYes = modelDecisionCode != 0;
  const bool modelForced = modelDecisionCode >= 2;
  switch (timing) {
    case TimingDecision::kMustAct:
      if (!modelSaysYes) return {true, true, SignalBool(kTimingForcedUpsell, true)};
      return {true, modelForced, std::nullopt};
    case TimingDecision::kBlocked:
      if (modelSaysYes) return {false, false, SignalBool(kTimingBlockedUpsell, true)};
      return {false, false, std::nullopt};
    case TimingDecision::kFollowModel:
      break;
  }
  return {modelSaysYes, modelForced, std::nullopt};
}

void TimingCoordinator::forgetStored() {
  currentClientTimingConfiguration_.withLock(
      [](TimingConfiguration& value) { value = TimingConfiguration{}; });
  currentPerFlowStats_.withLock([](TimingStates& value) { value = TimingStates{}; });
}

TimingCoordinator::TimingCoordinator(std::shared_ptr<UserDefaultsProvider> userDefaultsProvider,
                                     std::shared_ptr<DateProvider> dateProvider,
                                     std::shared_ptr<RandomSource> random,
                                     std::function<ErrorReporter&()> errorReporter)
    : defaults_(std::move(userDefaultsProvider)),
      dateProvider_(std::move(dateProvider)),
      random_(std::move(random)),
      errorReporter_(std::move(errorReporter)),
      persists_(defaults_ && defaults_->isAvailable()) {
  if (!hasStore()) return;
  LazyErrorReporter lazy(errorReporter_);
  // An unreadable record starts empty and stays in the store until the next write replaces
  // it.
  if (auto configuration = loadRecord<TimingConfiguration>(
          *defaults_, kGeneralConfigurationKey,
          [](std::string_view text, std::string* error) {
            return decodeTimingConfiguration(text, error);
          },
          lazy, kLoadConfigurationFailed)) {
    currentClientTimingConfiguration_.withLock(
        [&](TimingConfiguration& value) { value = std::move(*configuration); });
  }
  if (auto states = loadRecord<TimingStates>(
          *defaults_, kPerFlowStateKey,
          [](std::string_view text, std::string* error) { return decodeTimingStates(text, error); },
          lazy, kLoadStatesFailed)) {
    currentPerFlowStats_.withLock([&](TimingStates& value) { value = std::move(*states); });
  }
}

void TimingCoordinator::applyLatestConfiguration(
    const std::optional<std::map<std::string, ServerModelInfo>>& modelInfoPerFlow) {
  // Converted before locking: conversion only reports, and reports stay outside the locks.
  std::map<std::string, FlowTimingConfiguration> next;
  if (modelInfoPerFlow) {
    LazyErrorReporter lazy(errorReporter_);
    for (const auto& [flow, info] : *modelInfoPerFlow) {
      if (!info.timingConfiguration) continue;
      if (auto converted = toClient(*info.timingConfiguration, lazy)) {
        next.emplace(flow, *converted);
      }
    }
  }

  bool configurationSaved = true;
  bool statesSaved = true;
  currentClientTimingConfiguration_.withLock([&](TimingConfiguration& configuration) {
    currentPerFlowStats_.withLock([&](TimingStates& states) {
      // A window is kept only under the very rules that opened it; a flow with new or no
      // rules starts a fresh window at its next request.
      for (auto it = states.flowState.begin(); it != states.flowState.end();) {
        const auto incoming = next.find(it->first);
        const auto current = configuration.flowConfigurations.find(it->first);
        const bool unchanged = incoming != next.end() &&
                               current != configuration.flowConfigurations.end() &&
                               incoming->second == current->second;
        it = unchanged ? std::next(it) : states.flowState.erase(it);
      }
      configuration.flowConfigurations = std::move(next);
      configurationSaved = persistConfiguration(configuration);
      statesSaved = persistStates(states);
    });
  });
  reportSaveFailures(configurationSaved, statesSaved);
}

CooldownResult TimingCoordinator::performCooldownCalculation(const std::string& flowName) {
  CooldownResult result;
  bool statesSaved = true;
  currentClientTimingConfiguration_.withLock([&](TimingConfiguration& configuration) {
    const auto found = configuration.flowConfigurations.find(flowName);
    if (found == configuration.flowConfigurations.end()) {
      result = withoutRules();
      return;
    }
    const FlowTimingConfiguration& rules = found->second;
    currentPerFlowStats_.withLock([&](TimingStates& states) {
      const Date now = dateProvider_->currentDate();
      result.signals.push_back(SignalBool(kHasTimingRules, true));
      result.signals.push_back(SignalFloat(kActBySkew, static_cast<float>(rules.actBySkew)));
      result.signals.push_back(SignalBool(kCountsExecutions, rules.countsExecutions()));

      auto [entry, opened] = states.flowState.try_emplace(flowName);
      FlowTimingStatus& status = entry->second;
      if (opened) status = FlowTimingStatus::createForConfiguration(rules, now, *random_);
      int64_t executionNumber = status.numberOfExecutions < std::numeric_limits<int64_t>::max()
                                    ? status.numberOfExecutions + 1
                                    : status.numberOfExecutions;
      if (status.shouldResetWindow(executionNumber, now)) {
        status = FlowTimingStatus::createForConfiguration(rules, now, *random_);
        executionNumber = 1;
      }
      status.numberOfExecutions = executionNumber;
      statesSaved = persistStates(states);

      result.signals.push_back(SignalInt(kExecutionNumber, executionNumber));
      result.signals.push_back(SignalString(kTimingWindowId, status.timingWindowId));
      if (status.actByDate) {
        result.signals.push_back(
            SignalInt(kDistanceToActBy,
                      wholeSeconds(status.actByDate->secondsSince1970 - now.secondsSince1970)));
      }
      if (status.actByExecutionCount) {
        // Both are non-negative, so the difference cannot overflow.
        result.signals.push_back(
            SignalInt(kDistanceToActBy, *status.actByExecutionCount - executionNumber));
      }
      result.decision = decide(status, executionNumber, now);
    });
  });
  reportSaveFailures(true, statesSaved);
  return result;
}

void TimingCoordinator::markCurrentWindowExecuted(const std::string& flowName) {
  bool statesSaved = true;
  currentPerFlowStats_.withLock([&](TimingStates& states) {
    const auto found = states.flowState.find(flowName);
    if (found == states.flowState.end()) return;
    found->second.hasBeenExecutedInTheCurrentWindow = true;
    statesSaved = persistStates(states);
  });
  reportSaveFailures(true, statesSaved);
}

void TimingCoordinator::storeClientConfiguration() {
  const bool saved = currentClientTimingConfiguration_.withLock(
      [&](TimingConfiguration& configuration) { return persistConfiguration(configuration); });
  reportSaveFailures(saved, true);
}

void TimingCoordinator::storeFlowTimingState() {
  const bool saved =
      currentPerFlowStats_.withLock([&](TimingStates& states) { return persistStates(states); });
  reportSaveFailures(true, saved);
}

TimingConfiguration TimingCoordinator::currentConfiguration() const {
  return currentClientTimingConfiguration_.withLock(
      [](TimingConfiguration& configuration) { return configuration; });
}

TimingStates TimingCoordinator::currentStates() const {
  return currentPerFlowStats_.withLock([](TimingStates& states) { return states; });
}

bool TimingCoordinator::persist(std::string_view key, const std::optional<std::string>& encoded) {
  if (!encoded) return false;
  defaults_->set(key, Bytes(encoded->begin(), encoded->end()));
  return true;
}

bool TimingCoordinator::persistConfiguration(const TimingConfiguration& configuration) {
  if (!hasStore()) return true;
  return persist(kGeneralConfigurationKey, encodeTimingConfiguration(configuration));
}

bool TimingCoordinator::persistStates(const TimingStates& states) {
  if (!hasStore()) return true;
  return persist(kPerFlowStateKey, encodeTimingStates(states));
}

void TimingCoordinator::reportSaveFailures(bool configurationSaved, bool statesSaved) {
  // The in-memory records stay in force either way.
  const PlatformError notFinite{kEncodingErrorDomain, 0, "a number in the record is not finite"};
  if (!configurationSaved) {
    reporter().reportError(kSaveConfigurationFailed, notFinite, false, std::nullopt);
  }
  if (!statesSaved) reporter().reportError(kSaveStatesFailed, notFinite, false, std::nullopt);
}

}  // namespace orvane
