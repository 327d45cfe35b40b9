// File: ModelExecutor.h
// Turns the signals of a moment into the upsell decision of one flow: the flow's model
// judges the moment against a threshold (fixed, by hour of the week, or from the request),
// and a random chance may force an upsell the model turned down. Control flows use the
// chance alone. A model that fails never blocks the upsell.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "logging/ErrorReporter.h"
#include "models/ModelDecisionCode.h"
#include "models/ModelExecutionInformation.h"
#include "orvane/CustomSignal.h"
#include "orvane/Signal.h"
#include "orvane/platform/Calendar.h"
#include "orvane/platform/RandomSource.h"
#include "orvane/platform/SystemLog.h"
#include "signals/SignalsManager.h"
#include "util/DateProvider.h"

namespace orvane {

struct ModelExecutorResult {
  SignalList signals;
  ModelDecisionCode decision = ModelDecisionCode::kForcedUpsell;
};

class ModelExecutor {
 public:
  struct Dependencies {
    std::shared_ptr<RandomSource> random;
    std::shared_ptr<Calendar> calendar;
    std::shared_ptr<DateProvider> dateProvider;
    std::shared_ptr<SystemLog> log;
    std::function<ErrorReporter&()> errorReporter;
  };

  explicit ModelExecutor(Dependencies dependencies) : deps_(std::move(dependencies)) {}

  // Signals 18, 16, 24, 426, 26 in that order; a failing prediction is reported and answered
  // by the always-upsell control rule.
  ModelExecutorResult executeCoreMLModel(
      const std::string& modelVersion, const CoreMLModelExecutionInformation& executionInformation,
      const ExtraModelExecutionInformation& extra, const SignalsManager& signalsManager,
      const CustomSignalList& customSignals);
  // Signal 16 = 0, then 18 when the version is not empty, then 26 when a chance below 1 was
  // drawn.
  ModelExecutorResult executeControlGroup(const std::string& modelVersion,
                                          double randomUpsellChance);

  // Linear interpolation between this hour's cell and the next hour's (the next day's first
  // cell at 23:00; Saturday wraps to Sunday). None when the date has no calendar reading.
  static std::optional<double> calculateHourlyUpsellThreshold(
      const Calendar& currentCalendar, Date currentDate,
      const std::vector<std::vector<double>>& hourlyUpsellThresholds);

  // The class probabilities as the JSON of signal 24.
  static std::string probabilitiesJson(const std::optional<std::map<std::string, double>>& all,
                                       double probability);

 private:
  // Uniform in [0, 1]; hits when strictly below the chance.
  bool chanceHits(double randomUpsellChance);

  Dependencies deps_;
};

}  // namespace orvane
