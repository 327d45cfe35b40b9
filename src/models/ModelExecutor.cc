#include "models/ModelExecutor.h"

#include <charconv>
#include <cmath>

#include "models/ContextDictionaryFeatureProvider.h"
#include "models/ModelOutputCheck.h"

namespace orvane {
namespace {

constexpr SignalEnum kModelVersionSignal = SignalEnum::id(18);
constexpr SignalEnum kModelExecutedSignal = SignalEnum::id(16);
constexpr SignalEnum kProbabilitiesSignal = SignalEnum::id(24);
constexpr SignalEnum kThresholdSignal = SignalEnum::id(426);
constexpr SignalEnum kForcedByChanceSignal = SignalEnum::id(26);

std::string jsonNumber(double value) {
  char buffer[32];
  auto [end, ec] = std::to_chars(buffer, buffer + sizeof buffer, value);
  return ec == std::errc() ? std::string(buffer, end) : std::string("0");
}

std::string jsonString(const std::string& text) {
  std::string out = "\"";
  for (char c : text) {
    const auto u = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (u < 0x20) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\u%04x", u);
      out += escaped;
    } else {
      out += c;
    }
  }
  return out + "\"";
}

}  // namespace

std::string ModelExecutor::probabilitiesJson(
    const std::optional<std::map<std::string, double>>& all, double probability) {
  const std::map<std::string, double> entries =
      all ? *all : std::map<std::string, double>{{"1", probability}};
  std::string json = "{";
  for (const auto& [key, value] : entries) {
    // JSON has no form for NaN or infinity: the short hand-made text stands in.
    if (!std::isfinite(value)) return "{\"1\": " + defaultDecimalText(probability) + "}";
    if (json.size() > 1) json += ',';
    json += jsonString(key) + ':' + jsonNumber(value);
  }
  return json + "}";
}

bool ModelExecutor::chanceHits(double randomUpsellChance) {
  return deps_.random->uniformDouble() < randomUpsellChance;
}

ModelExecutorResult ModelExecutor::executeCoreMLModel(
    const std::string& modelVersion, const CoreMLModelExecutionInformation& executionInformation,
    const ExtraModelExecutionInformation& extra, const SignalsManager& signalsManager,
    const CustomSignalList& customSignals) {
  const auto& model = executionInformation.coreMLModel();
  if (!model) return executeControlGroup("", 1.0);
  ContextDictionaryFeatureProvider provider(signalsManager, customSignals, *model,
                                            executionInformation.coreMLModelMetadata(), deps_.log,
                                            executionInformation.featurePlan());
  auto prediction = model->predict(provider);
  if (!prediction) {
    if (deps_.errorReporter) {
      deps_.errorReporter().reportError(
          "Failed to execute CoreML model.",
          PlatformError{"ModelRuntime", 0, prediction.error().message()}, true, std::nullopt);
    }
    return executeControlGroup("", 1.0);
  }

  double probability = -1.0;
  std::optional<std::map<std::string, double>> probabilities;
  if (auto out = prediction->find(kProbabilityOutputName); out != prediction->end()) {
    if (const auto* dictionary = out->second.stringDictionaryValue()) {
      probabilities = *dictionary;
      if (auto one = dictionary->find(kPositiveClassLabel); one != dictionary->end()) {
        probability = one->second;
      }
    }
  }

  ModelExecutorResult result;
  result.signals.push_back(SignalString(kModelVersionSignal, modelVersion));
  result.signals.push_back(SignalInt(kModelExecutedSignal, 1));
  result.signals.push_back(
      SignalString(kProbabilitiesSignal, probabilitiesJson(probabilities, probability)));

  const ModelThresholds& thresholds = executionInformation.modelThresholds();
  std::optional<double> threshold;
  if (extra.thresholdFunction) threshold = extra.thresholdFunction(executionInformation);
  if (!threshold && thresholds.hourlyUpsellThresholds && deps_.calendar) {
    threshold = calculateHourlyUpsellThreshold(*deps_.calendar, deps_.dateProvider->currentDate(),
                                               *thresholds.hourlyUpsellThresholds);
  }
  const double used = threshold.value_or(thresholds.upsellThreshold);
  result.signals.push_back(SignalFloat(kThresholdSignal, static_cast<float>(used)));

  const bool hit = chanceHits(executionInformation.randomUpsellChance());
  // A missing probability (-1) never counts as below: the moment is not judged bad.
  const bool below = probability != -1.0 && probability < used;
  if (below) {
    result.decision = hit ? ModelDecisionCode::kForcedUpsell : ModelDecisionCode::kNoUpsell;
  } else {
    result.decision = ModelDecisionCode::kUpsell;
  }
  result.signals.push_back(SignalBool(kForcedByChanceSignal, below && hit));
  return result;
}

ModelExecutorResult ModelExecutor::executeControlGroup(const std::string& modelVersion,
                                                       double randomUpsellChance) {
  ModelExecutorResult result;
  result.signals.push_back(SignalInt(kModelExecutedSignal, 0));
  if (!modelVersion.empty())
    result.signals.push_back(SignalString(kModelVersionSignal, modelVersion));
  if (randomUpsellChance >= 1.0) {
    result.decision = ModelDecisionCode::kForcedUpsell;
    return result;
  }
  const bool hit = chanceHits(randomUpsellChance);
  result.decision = hit ? ModelDecisionCode::kForcedUpsell : ModelDecisionCode::kNoUpsell;
  result.signals.push_back(SignalBool(kForcedByChanceSignal, hit));
  return result;
}

std::optional<double> ModelExecutor::calculateHourlyUpsellThreshold(
    const Calendar& currentCalendar, Date currentDate,
    const std::vector<std::vector<double>>& hourlyUpsellThresholds) {
  const auto fields = currentCalendar.components(currentDate.secondsSince1970);
  if (!fields || fields->weekday < 1 || fields->weekday > 7 || fields->hour < 0 ||
      fields->hour > 23) {
    return std::nullopt;
  }
  const size_t row = static_cast<size_t>(fields->weekday - 1);
  const size_t column = static_cast<size_t>(fields->hour);
  const size_t nextRow = fields->hour == 23 ? static_cast<size_t>(fields->weekday % 7) : row;
  const size_t nextColumn = (column + 1) % 24;
  // Only a 7 x 24 table reaches here; the checks keep a malformed one from reading past it.
  if (row >= hourlyUpsellThresholds.size() || nextRow >= hourlyUpsellThresholds.size() ||
      column >= hourlyUpsellThresholds[row].size() ||
      nextColumn >= hourlyUpsellThresholds[nextRow].size()) {
    return std::nullopt;
  }
  const double current = hourlyUpsellThresholds[row][column];
  const double next = hourlyUpsellThresholds[nextRow][nextColumn];
  return current + (fields->minute / 60.0) * (next - current);
}

}  // namespace orvane
