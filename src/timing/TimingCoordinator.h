// File: TimingCoordinator.h
// Turns each flow's timing rules into windows and tells context creation, per request,
// whether the flow must show its upsell now, is blocked, or is left to the model.
//
// Two locks: the configuration (outer) and the window states (inner). Whoever takes both
// takes them in that order; marking a window as executed takes only the inner one. Reports
// are sent after the locks are released, so the error reporter never runs under them.
// Both records are persisted on every change; without a defaults suite the coordinator
// works from memory alone.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "config/ServerPayload.h"
#include "logging/ErrorReporter.h"
#include "models/ModelDecisionCode.h"
#include "orvane/Signal.h"
#include "orvane/platform/RandomSource.h"
#include "timing/Timing.h"
#include "util/DateProvider.h"
#include "util/UserDefaultsProvider.h"
#include "util/WrappingLock.h"

namespace orvane {

enum class TimingDecision : uint8_t {
  kMustAct = 0,      // the window's act-by point has passed without a showing
  kFollowModel = 1,  // timing has no say
  kBlocked = 2,      // already shown in this window
};

struct CooldownResult {
  TimingDecision decision = TimingDecision::kFollowModel;
  // Timing signals, in the order they go into the context.
  SignalList signals;
};

struct UpsellDecision {
  bool shouldUpsell = false;
  bool wasForcedUpsell = false;
  // SignalBool 650 (timing blocked a yes) or 651 (timing forced a no into a yes), when either
  // applies.
  std::optional<Signal> timingOverrideSignal;

  bool operator==(const UpsellDecision&) const = default;
};

// Combines the timing decision with the model's code. A code above 2 counts as 2: the model
// part did not judge the moment, so any yes it carries is forced.
UpsellDecision combineDecisions(TimingDecision timing, uint8_t modelDecisionCode);

class TimingCoordinator {
 public:
  static constexpr std::string_view kGeneralConfigurationKey = "orvane_timing_coordinator";
  static constexpr std::string_view kPerFlowStateKey = "orvane_timing_coordinator_flow_state";

  // Reads both records. `userDefaultsProvider` may be null or wrap no store. `errorReporter`
  // is called only when there is something to report, so the reporter can be created lazily.
  TimingCoordinator(std::shared_ptr<UserDefaultsProvider> userDefaultsProvider,
                    std::shared_ptr<DateProvider> dateProvider,
                    std::shared_ptr<RandomSource> random,
                    std::function<ErrorReporter&()> errorReporter);
  TimingCoordinator(const TimingCoordinator&) = delete;
  TimingCoordinator& operator=(const TimingCoordinator&) = delete;

  // Replaces every flow's rules with those of an update payload (none: no flow has rules).
  // A flow whose rules are unchanged keeps its window; any other loses it. Takes both locks.
  void applyLatestConfiguration(
      const std::optional<std::map<std::string, ServerModelInfo>>& modelInfoPerFlow);

  // Counts this request in the flow's window (opening a new one when due) and decides.
  CooldownResult performCooldownCalculation(const std::string& flowName);

  // After a context of `flowName` decided to upsell: its current window has had its showing.
  // Nothing happens for a flow without a window.
  void markCurrentWindowExecuted(const std::string& flowName);

  // Persist the current records (each under its own lock).
  void storeClientConfiguration();
  void storeFlowTimingState();

  // Snapshots, for diagnostics.
  TimingConfiguration currentConfiguration() const;
  TimingStates currentStates() const;
  // Back to no rules and no flow history, as on a new installation.
  void forgetStored();

 private:
  ErrorReporter& reporter() const { return errorReporter_(); }
  // Whether the records were read from the suite at construction. A coordinator made before
  // the suite opened keeps its records in memory for the process rather than write them over
  // the stored ones it never read.
  bool hasStore() const { return persists_; }
  // True when written, or when there is nowhere to write; false when the record could not
  // be encoded (nothing is written then).
  bool persist(std::string_view key, const std::optional<std::string>& encoded);
  bool persistConfiguration(const TimingConfiguration& configuration);
  bool persistStates(const TimingStates& states);
  void reportSaveFailures(bool configurationSaved, bool statesSaved);

  std::shared_ptr<UserDefaultsProvider> defaults_;
  std::shared_ptr<DateProvider> dateProvider_;
  std::shared_ptr<RandomSource> random_;
  std::function<ErrorReporter&()> errorReporter_;
  const bool persists_;
  mutable WrappingLock<TimingConfiguration> currentClientTimingConfiguration_;
  mutable WrappingLock<TimingStates> currentPerFlowStats_;
};

}  // namespace orvane
