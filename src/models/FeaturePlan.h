// File: FeaturePlan.h
// A model's input names, parsed once per loaded model: which signal each input reads, which
// one-hot column it is, and the type the model wants. A prediction asks for every input by
// name, in declaration order, so lookups follow a cursor and fall back to a hash map.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "orvane/coreml/ModelDescription.h"

namespace orvane {

struct ParsedFeatureName {
  std::string signalName;
  bool isCustomSignal = false;
  std::optional<std::string> categoryIndex;

  bool operator==(const ParsedFeatureName&) const = default;
};

// "412" -> signal 412; "412_0" -> signal 412, column 0; "<c>plan</c>_2" -> custom signal
// plan, column 2. None for a name that opens "<c>" and never closes it.
std::optional<ParsedFeatureName> parseFeatureName(std::string_view featureName);

// Decimal unsigned 16-bit number with an optional sign ("-0" is zero; other negative
// numbers do not fit).
std::optional<uint16_t> parseSignalNumber(std::string_view text);

struct PlannedFeature {
  std::string name;
  std::optional<ParsedFeatureName> parsed;
  // Set for a built-in signal name that is a catalogue id.
  std::optional<uint16_t> signalId;
  coreml::FeatureType type = coreml::FeatureType::kDouble;
};

class FeaturePlan {
 public:
  explicit FeaturePlan(const coreml::ModelDescription& description);

  // `cursor` carries the position after the previous lookup between calls.
  const PlannedFeature* find(const std::string& name, size_t& cursor) const;
  const std::vector<PlannedFeature>& features() const { return features_; }

  static PlannedFeature plan(std::string name, coreml::FeatureType type);

 private:
  std::vector<PlannedFeature> features_;
  std::unordered_map<std::string, size_t> index_;
};

}  // namespace orvane
