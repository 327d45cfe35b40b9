// File: ContextDictionaryFeatureProvider.h
// Serves a model's inputs from the signals of one context. Input names follow a small
// grammar: "412" is signal 412; "412_0" is column 0 of signal 412's one-hot encoding (the
// categories come from the model's metadata mappings, and column "-1" lights for a value
// outside them); "<c>plan</c>" is the host's custom signal "plan", and "<c>plan</c>_N" its
// one-hot column N, by the categories listed under "<c>plan</c>" (or "plan"). Anything that cannot
// be served is an undefined value of the input's type, so the model treats it as missing.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "models/FeaturePlan.h"
#include "models/ModelExecutionInformation.h"
#include "orvane/CustomSignal.h"
#include "orvane/coreml/FeatureValue.h"
#include "orvane/platform/SystemLog.h"
#include "signals/SignalsManager.h"

namespace orvane {

class ContextDictionaryFeatureProvider : public coreml::FeatureProvider {
 public:
  // Everything is borrowed and must outlive the provider. Without `plan` the provider parses
  // the model's input names itself.
  ContextDictionaryFeatureProvider(const SignalsManager& signalsManager,
                                   const CustomSignalList& customSignals, const LoadedModel& model,
                                   const CoreMLModelMetadata& metadata,
                                   std::shared_ptr<SystemLog> log,
                                   const FeaturePlan* plan = nullptr);

  // The model's input names.
  std::vector<std::string> featureNames() const override;
  std::optional<coreml::FeatureValue> featureValue(const std::string& featureName) const override;

  static std::optional<ParsedFeatureName> parseFeatureName(std::string_view featureName) {
    return orvane::parseFeatureName(featureName);
  }
  // Bool as integer 0/1, float as double, integer, string; decimals have no model form.
  static std::optional<coreml::FeatureValue> signalToFeatureValue(const Signal& signal);
  // Text of a value for matching against category lists: strings as they are, numbers in
  // their default decimal text ("2", "2.0"), anything else "no value".
  static std::string convertFeatureValueToString(const coreml::FeatureValue& value);

  // A custom signal as one-hot columns see it: its own value, whatever the column's type
  // (decimals as their decimal text).
  static coreml::FeatureValue categoryValueOf(const CustomSignal& customSignal);
  std::optional<coreml::FeatureValue> customSignalToFeatureValue(
      const std::string& featureName, const CustomSignal& customSignal) const;
  // None when the metadata has no categories for `signalName`.
  std::optional<coreml::FeatureValue> handleCategoricalValue(
      const std::string& signalName, const coreml::FeatureValue& featureValue,
      const std::string& categoryIndex) const;
  coreml::FeatureValue emptyValue(const std::string& featureName) const;

 private:
  coreml::FeatureValue valueOf(const PlannedFeature& feature) const;
  coreml::FeatureValue customValue(const std::string& featureName, coreml::FeatureType type,
                                   const CustomSignal& customSignal) const;
  const Signal* findSignal(uint16_t rawId) const;

  const SignalsManager& signalsManager_;
  const CustomSignalList& customSignals_;
  const LoadedModel& model_;
  const CoreMLModelMetadata& metadata_;
  std::shared_ptr<SystemLog> log_;
  std::unique_ptr<FeaturePlan> ownPlan_;
  const FeaturePlan* plan_;
  mutable size_t cursor_ = 0;
  // First signal of each raw id: a model asks for hundreds of inputs per prediction.
  std::vector<const Signal*> signalsById_;
};

// Default decimal text of a double: shortest round-trip digits, ".0" on integral values,
// exponent form outside [1e-4, 2^53), "nan", "inf", "-inf".
std::string defaultDecimalText(double value);

}  // namespace orvane
