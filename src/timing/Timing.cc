#include "timing/Timing.h"

#include <algorithm>
#include <cmath>
#include <functional>

#include "util/JsonReader.h"
#include "util/UUID.h"

namespace orvane {

namespace {

constexpr std::string_view kInvalidValueMessage = "Received invalid timing value";
constexpr std::string_view kUnknownUnitMessage = "Failed to convert server timing to client timing";
constexpr std::string_view kIncompatibleUnitsMessage = "Received incompatible timing units";
constexpr std::string_view kIncompatibleTimingsMessage = "Received incompatible timings";

struct UnitInfo {
  TimingUnit unit;
  std::string_view raw;
  double secondsPerUnit;  // 0 for executions
};

constexpr UnitInfo kUnits[] = {
    {TimingUnit::kSeconds, "seconds", 1},       {TimingUnit::kMinutes, "minutes", 60},
    {TimingUnit::kHours, "hours", 3600},        {TimingUnit::kDays, "days", 86400},
    {TimingUnit::kExecutions, "executions", 0},
};

const UnitInfo& infoFor(TimingUnit unit) {
  for (const UnitInfo& info : kUnits) {
    if (info.unit == unit) return info;
  }
  return kUnits[0];
}

// The length used to compare two rules of the same kind.
double span(const Timing& timing) { return timing.seconds().value_or(timing.value); }

// Whether the window arithmetic can work with this rule: a positive span that stays finite
// in seconds, and at least one whole execution.
bool isUsable(const Timing& timing) {
  if (!(timing.value > 0) || !std::isfinite(timing.value)) return false;
  if (timing.countsExecutions()) return timing.value >= 1;
  return std::isfinite(*timing.seconds());
}

bool isUsableSkew(double skew) { return skew >= 0 && std::isfinite(skew); }

// r^skew kept inside [0, 1], so a draw can never land outside its window whatever the inputs.
double skewedFraction(double r, double skew) {
  const double fraction = std::pow(std::clamp(r, 0.0, 1.0), skew);
  if (!(fraction >= 0)) return 0;  // NaN
  return std::min(fraction, 1.0);
}

// ---- JSON ----

bool hasNonFiniteNumber(const nlohmann::ordered_json& json) {
  if (json.is_number_float()) return !std::isfinite(json.get<double>());
  if (json.is_structured()) {
    for (const auto& item : json) {
      if (hasNonFiniteNumber(item)) return true;
    }
  }
  return false;
}

std::optional<std::string> dumpFinite(const nlohmann::ordered_json& json) {
  if (hasNonFiniteNumber(json)) return std::nullopt;
  return json.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

nlohmann::ordered_json toJson(const Timing& timing) {
  nlohmann::ordered_json json = nlohmann::ordered_json::object();
  json["unit"] = std::string(rawValue(timing.unit));
  json["value"] = timing.value;
  return json;
}

nlohmann::ordered_json toJson(const FlowTimingConfiguration& configuration) {
  nlohmann::ordered_json json = nlohmann::ordered_json::object();
  if (configuration.atLeastEvery) json["atLeastEvery"] = toJson(*configuration.atLeastEvery);
  json["actBySkew"] = configuration.actBySkew;
  if (configuration.atMostOncePer) json["atMostOncePer"] = toJson(*configuration.atMostOncePer);
  return json;
}

nlohmann::ordered_json toJson(const FlowTimingStatus& status) {
  nlohmann::ordered_json json = nlohmann::ordered_json::object();
  json["hasBeenExecutedInTheCurrentWindow"] = status.hasBeenExecutedInTheCurrentWindow;
  json["numberOfExecutions"] = status.numberOfExecutions;
  json["timingWindowId"] = status.timingWindowId;
  auto putDate = [&json](const char* key, const std::optional<Date>& date) {
    if (date) json[key] = date->secondsSince1970;
  };
  auto putCount = [&json](const char* key, const std::optional<int64_t>& count) {
    if (count) json[key] = *count;
  };
  putDate("earliestResetDate", status.earliestResetDate);
  putCount("earliestResetExecutionCount", status.earliestResetExecutionCount);
  putDate("actByDate", status.actByDate);
  putCount("actByExecutionCount", status.actByExecutionCount);
  putDate("latestResetDate", status.latestResetDate);
  putCount("latestResetExecutionCount", status.latestResetExecutionCount);
  json["allowMultipleExecutions"] = status.allowMultipleExecutions;
  json["alwaysActAtLeastOnce"] = status.alwaysActAtLeastOnce;
  return json;
}

std::optional<Timing> decodeTiming(const JsonReader& reader) {
  auto unitText = reader.requiredString("unit");
  auto value = reader.requiredDouble("value");
  if (!unitText || !value) return std::nullopt;
  auto unit = timingUnitFromRawValue(*unitText);
  if (!unit) {
    reader.fail("unknown timing unit \"" + *unitText + "\"");
    return std::nullopt;
  }
  Timing timing{*unit, *value};
  if (!isUsable(timing)) {
    reader.fail("unusable timing value");
    return std::nullopt;
  }
  return timing;
}

std::optional<FlowTimingConfiguration> decodeFlowConfiguration(const JsonReader& reader) {
  FlowTimingConfiguration configuration;
  if (auto field = reader.optional("atLeastEvery")) {
    configuration.atLeastEvery = decodeTiming(*field);
  }
  auto skew = reader.requiredDouble("actBySkew");
  if (auto field = reader.optional("atMostOncePer")) {
    configuration.atMostOncePer = decodeTiming(*field);
  }
  if (!reader.ok() || !skew) return std::nullopt;
  if (!isUsableSkew(*skew)) {
    reader.fail("actBySkew must be finite and at least 0");
    return std::nullopt;
  }
  configuration.actBySkew = *skew;
  return configuration;
}

std::optional<FlowTimingStatus> decodeFlowStatus(const JsonReader& reader) {
  FlowTimingStatus status;
  auto executed = reader.requiredBool("hasBeenExecutedInTheCurrentWindow");
  auto executions = reader.requiredInt64("numberOfExecutions");
  auto windowId = reader.requiredString("timingWindowId");
  auto readDate = [&reader](const char* key) -> std::optional<Date> {
    if (auto seconds = reader.optionalDouble(key)) return Date{*seconds};
    return std::nullopt;
  };
  auto readCount = [&reader](const char* key) -> std::optional<int64_t> {
    auto count = reader.optionalInt64(key);
    if (count && *count < 0) reader.fail(std::string(key) + " is negative");
    return count;
  };
  status.earliestResetDate = readDate("earliestResetDate");
  status.earliestResetExecutionCount = readCount("earliestResetExecutionCount");
  status.actByDate = readDate("actByDate");
  status.actByExecutionCount = readCount("actByExecutionCount");
  status.latestResetDate = readDate("latestResetDate");
  status.latestResetExecutionCount = readCount("latestResetExecutionCount");
  auto allowMultiple = reader.requiredBool("allowMultipleExecutions");
  auto alwaysAct = reader.requiredBool("alwaysActAtLeastOnce");
  if (executions && *executions < 0) reader.fail("numberOfExecutions is negative");
  if (!reader.ok()) return std::nullopt;
  status.hasBeenExecutedInTheCurrentWindow = *executed;
  status.numberOfExecutions = *executions;
  status.timingWindowId = std::move(*windowId);
  status.allowMultipleExecutions = *allowMultiple;
  status.alwaysActAtLeastOnce = *alwaysAct;
  return status;
}

// Parses `text` and reads the one required map `field` of the root object with `decode`.
template <typename T>
std::optional<std::map<std::string, T>> decodeRootMap(
    std::string_view text, std::string_view field,
    const std::function<std::optional<T>(const JsonReader&)>& decode, std::string* error) {
  auto json = parseJson(text, error);
  if (!json) return std::nullopt;
  JsonReader root(*json);
  std::optional<std::map<std::string, T>> result;
  if (auto map = root.required(field)) result = map->asMap<T>(decode);
  if (!root.ok()) {
    if (error) *error = root.error();
    return std::nullopt;
  }
  return result;
}

}  // namespace

std::string_view rawValue(TimingUnit unit) { return infoFor(unit).raw; }

std::optional<TimingUnit> timingUnitFromRawValue(std::string_view text) {
  for (const UnitInfo& info : kUnits) {
    if (info.raw == text) return info.unit;
  }
  return std::nullopt;
}

std::optional<double> Timing::seconds() const {
  if (countsExecutions()) return std::nullopt;
  return value * infoFor(unit).secondsPerUnit;
}

int64_t Timing::executionCount() const {
  const double whole = std::trunc(value);
  if (!(whole >= 1)) return 1;
  if (whole >= static_cast<double>(kMaxExecutionCount)) return kMaxExecutionCount;
  return static_cast<int64_t>(whole);
}

bool FlowTimingConfiguration::countsExecutions() const {
  if (atLeastEvery) return atLeastEvery->countsExecutions();
  return atMostOncePer && atMostOncePer->countsExecutions();
}

int64_t biasedRandomInt(int64_t low, int64_t high, double skew, RandomSource& random) {
  const double fraction = skewedFraction(random.uniformDouble(), skew);
  if (high <= low) return low;
  const double lowD = static_cast<double>(low);
  const double highD = static_cast<double>(high);
  // std::round rounds halves away from zero.
  const double drawn = std::clamp(std::round(fraction * (highD - lowD) + lowD), lowD, highD);
  return std::clamp(static_cast<int64_t>(drawn), low, high);
}

FlowTimingStatus FlowTimingStatus::createForConfiguration(
    const FlowTimingConfiguration& configuration, Date now, RandomSource& random) {
  FlowTimingStatus status;
  const double start = now.secondsSince1970;
  std::optional<double> timeEnd;        // E1: end of the "atLeastEvery" span in time
  std::optional<int64_t> executionEnd;  // C1: the same in executions

  if (const auto& atLeast = configuration.atLeastEvery) {
    if (auto seconds = atLeast->seconds()) {
      const double fraction = skewedFraction(random.uniformDouble(), configuration.actBySkew);
      status.actByDate = Date{start + *seconds * fraction};
      timeEnd = start + *seconds;
    } else {
      const int64_t count = atLeast->executionCount();
      status.actByExecutionCount = biasedRandomInt(1, count, configuration.actBySkew, random);
      executionEnd = count;
    }
  }

  if (const auto& atMost = configuration.atMostOncePer) {
    if (auto seconds = atMost->seconds()) {
      const double earliest = start + *seconds;
      status.earliestResetDate = Date{earliest};
      status.latestResetDate = Date{timeEnd ? std::max(earliest, *timeEnd) : earliest};
    } else {
      const int64_t count = atMost->executionCount();
      status.earliestResetExecutionCount = count;
      status.latestResetExecutionCount = executionEnd ? std::max(count, *executionEnd) : count;
    }
  } else if (timeEnd) {
    status.earliestResetDate = status.latestResetDate = Date{*timeEnd};
  } else if (executionEnd) {
    status.earliestResetExecutionCount = status.latestResetExecutionCount = *executionEnd;
  }

  status.hasBeenExecutedInTheCurrentWindow = false;
  status.numberOfExecutions = 0;
  status.timingWindowId = makeUUIDString(random);
  status.allowMultipleExecutions = !configuration.atMostOncePer.has_value();
  status.alwaysActAtLeastOnce = configuration.atLeastEvery.has_value();
  return status;
}

bool FlowTimingStatus::shouldResetWindow(int64_t currentExecutionNumber, Date currentDate) const {
  const bool executed = hasBeenExecutedInTheCurrentWindow;
  // A window that owes a showing stays until it has had one.
  if (alwaysActAtLeastOnce && !executed) return false;
  if (earliestResetExecutionCount && latestResetExecutionCount) {
    if (*earliestResetExecutionCount < currentExecutionNumber) {
      return executed || *latestResetExecutionCount < currentExecutionNumber;
    }
    return *latestResetExecutionCount < currentExecutionNumber;
  }
  if (!earliestResetDate || !latestResetDate) return false;
  if (*earliestResetDate < currentDate) return executed || *latestResetDate < currentDate;
  return *latestResetDate < currentDate;
}

std::optional<Timing> toClient(const ServerTiming& timing, ErrorReporter& errorReporting) {
  auto reportInvalidValue = [&] {
    errorReporting.reportError(kInvalidValueMessage,
                               PlistDictionary{{"value", timing.value}, {"unit", timing.unit}});
  };
  if (!(timing.value > 0)) {
    reportInvalidValue();
    return std::nullopt;
  }
  auto unit = timingUnitFromRawValue(timing.unit);
  if (!unit) {
    errorReporting.reportError(kUnknownUnitMessage, PlistDictionary{{"unit", timing.unit}});
    return std::nullopt;
  }
  Timing converted{*unit, timing.value};
  // Fractions of an execution and spans beyond a double's range give no usable window.
  if (!isUsable(converted)) {
    reportInvalidValue();
    return std::nullopt;
  }
  return converted;
}

std::optional<FlowTimingConfiguration> toClient(const ServerTimingConfiguration& configuration,
                                                ErrorReporter& errorReporting) {
  std::optional<Timing> atLeast;
  std::optional<Timing> atMost;
  if (configuration.atLeastEvery) atLeast = toClient(*configuration.atLeastEvery, errorReporting);
  if (configuration.atMostOncePer) atMost = toClient(*configuration.atMostOncePer, errorReporting);
  if (!atLeast && !atMost) return std::nullopt;

  if (atLeast && atMost) {
    const std::string atLeastUnit(rawValue(atLeast->unit));
    const std::string atMostUnit(rawValue(atMost->unit));
    if (atLeast->countsExecutions() != atMost->countsExecutions()) {
      errorReporting.reportError(
          kIncompatibleUnitsMessage,
          PlistDictionary{{"atLeastEveryUnit", atLeastUnit}, {"atMostOncePerUnit", atMostUnit}});
      return std::nullopt;
    }
    // Showing at most once per a longer span than the one it must show in cannot hold.
    if (span(*atMost) > span(*atLeast)) {
      errorReporting.reportError(kIncompatibleTimingsMessage,
                                 PlistDictionary{{"atLeastEveryValue", atLeast->value},
                                                 {"atLeastEveryUnit", atLeastUnit},
                                                 {"atMostOncePerValue", atMost->value},
                                                 {"atMostOncePerUnit", atMostUnit}});
      return std::nullopt;
    }
  }

  FlowTimingConfiguration result{atLeast, 1.0, atMost};
  if (configuration.actBySkew) {
    if (isUsableSkew(*configuration.actBySkew)) {
      result.actBySkew = *configuration.actBySkew;
    } else {
      // The rules themselves are sound; a skew that would push the act-by point out of its
      // window falls back to a uniform draw.
      errorReporting.reportError(kInvalidValueMessage,
                                 PlistDictionary{{"actBySkew", *configuration.actBySkew}});
    }
  }
  return result;
}

std::optional<std::string> encodeTimingConfiguration(const TimingConfiguration& configuration) {
  nlohmann::ordered_json flows = nlohmann::ordered_json::object();
  for (const auto& [flow, flowConfiguration] : configuration.flowConfigurations) {
    flows[flow] = toJson(flowConfiguration);
  }
  nlohmann::ordered_json json = nlohmann::ordered_json::object();
  json["flowConfigurations"] = std::move(flows);
  return dumpFinite(json);
}

std::optional<TimingConfiguration> decodeTimingConfiguration(std::string_view text,
                                                             std::string* error) {
  auto flows = decodeRootMap<FlowTimingConfiguration>(text, "flowConfigurations",
                                                      decodeFlowConfiguration, error);
  if (!flows) return std::nullopt;
  return TimingConfiguration{std::move(*flows)};
}

std::optional<std::string> encodeTimingStates(const TimingStates& states) {
  nlohmann::ordered_json flows = nlohmann::ordered_json::object();
  for (const auto& [flow, status] : states.flowState) flows[flow] = toJson(status);
  nlohmann::ordered_json json = nlohmann::ordered_json::object();
  json["flowState"] = std::move(flows);
  return dumpFinite(json);
}

std::optional<TimingStates> decodeTimingStates(std::string_view text, std::string* error) {
  auto flows = decodeRootMap<FlowTimingStatus>(text, "flowState", decodeFlowStatus, error);
  if (!flows) return std::nullopt;
  return TimingStates{std::move(*flows)};
}

}  // namespace orvane
