// File: Timing.h
// Per-flow timing rules as the client keeps them, and one flow's current window.
//
// A flow may have two rules: act at most once per a span, and act at least once per a span.
// Spans count either time (seconds to days) or executions (context requests for the flow).
// A window holds the points that follow from the rules at the moment it opened: when it may
// be replaced after a showing, when it must be replaced in any case, and the random point by
// which the flow must act.
//
// Records are stored as JSON with camel-case keys and read back in either key spelling.
// Dates are seconds since 1970 as doubles.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "config/ServerPayload.h"
#include "logging/ErrorReporter.h"
#include "orvane/PlistValue.h"
#include "orvane/platform/RandomSource.h"

namespace orvane {

enum class TimingUnit { kSeconds, kMinutes, kHours, kDays, kExecutions };

// "seconds", "minutes", "hours", "days", "executions".
std::string_view rawValue(TimingUnit unit);
std::optional<TimingUnit> timingUnitFromRawValue(std::string_view text);

struct Timing {
  TimingUnit unit = TimingUnit::kSeconds;
  double value = 0;

  bool countsExecutions() const { return unit == TimingUnit::kExecutions; }
  // Value times seconds per unit; none for executions.
  std::optional<double> seconds() const;
  // The value truncated to a whole count, kept within [1, kMaxExecutionCount].
  int64_t executionCount() const;

  bool operator==(const Timing&) const = default;
};

// Counts beyond 2^53 are not exact as doubles and no flow runs that often, so larger execution
// spans are held at this.
inline constexpr int64_t kMaxExecutionCount = int64_t{1} << 53;

struct FlowTimingConfiguration {
  std::optional<Timing> atLeastEvery;
  double actBySkew = 1.0;
  std::optional<Timing> atMostOncePer;

  // Whether the rules count executions ("atLeastEvery" decides when present).
  bool countsExecutions() const;

  bool operator==(const FlowTimingConfiguration&) const = default;
};

struct TimingConfiguration {
  std::map<std::string, FlowTimingConfiguration> flowConfigurations;

  bool operator==(const TimingConfiguration&) const = default;
};

struct FlowTimingStatus {
  bool hasBeenExecutedInTheCurrentWindow = false;
  int64_t numberOfExecutions = 0;
  std::string timingWindowId;
  std::optional<Date> earliestResetDate;
  std::optional<int64_t> earliestResetExecutionCount;
  std::optional<Date> actByDate;
  std::optional<int64_t> actByExecutionCount;
  std::optional<Date> latestResetDate;
  std::optional<int64_t> latestResetExecutionCount;
  bool allowMultipleExecutions = true;
  bool alwaysActAtLeastOnce = false;

  // A fresh window opened at `now`. Draws the act-by point (one uniform draw, when there is an
  // "atLeastEvery" rule) and then the window id from `random`.
  static FlowTimingStatus createForConfiguration(const FlowTimingConfiguration& configuration,
                                                 Date now, RandomSource& random);

  // Whether the request with execution number `currentExecutionNumber` at `currentDate`
  // belongs to a new window.
  bool shouldResetWindow(int64_t currentExecutionNumber, Date currentDate) const;

  bool operator==(const FlowTimingStatus&) const = default;
};

struct TimingStates {
  std::map<std::string, FlowTimingStatus> flowState;

  bool operator==(const TimingStates&) const = default;
};

// round(r^skew * (high - low) + low) for r uniform in [0, 1], halves away from zero. A skew
// above 1 pulls the result towards low, below 1 towards high.
int64_t biasedRandomInt(int64_t low, int64_t high, double skew, RandomSource& random);

// ---- From the service's form ------------------------------------------------------------
// Both report what they reject and give none; neither throws.

// Rejects values of 0 or less, unknown units, execution counts below 1 and spans too large
// to represent.
std::optional<Timing> toClient(const ServerTiming& timing, ErrorReporter& errorReporting);
// None when neither rule is usable, or when the two rules cannot hold together.
std::optional<FlowTimingConfiguration> toClient(const ServerTimingConfiguration& configuration,
                                                ErrorReporter& errorReporting);

// ---- Stored form ------------------------------------------------------------------------
// Encoding gives none when a number is not finite (JSON cannot carry it). Decoding gives
// none, with the reason in `error`, for text that is not the record or holds values that the
// rules never produce (negative counts, unusable timings).

std::optional<std::string> encodeTimingConfiguration(const TimingConfiguration& configuration);
std::optional<TimingConfiguration> decodeTimingConfiguration(std::string_view text,
                                                             std::string* error = nullptr);
std::optional<std::string> encodeTimingStates(const TimingStates& states);
std::optional<TimingStates> decodeTimingStates(std::string_view text, std::string* error = nullptr);

}  // namespace orvane
