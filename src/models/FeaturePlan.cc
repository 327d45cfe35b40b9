#include "models/FeaturePlan.h"

#include "orvane/SignalEnum.h"

namespace orvane {
namespace {

constexpr std::string_view kCustomOpen = "<c>";
constexpr std::string_view kCustomClose = "</c>";

// The second "_"-separated part of `rest`, if there are at least two parts.
std::optional<std::string> secondPart(std::string_view rest) {
  const size_t first = rest.find('_');
  if (first == std::string_view::npos) return std::nullopt;
  std::string_view tail = rest.substr(first + 1);
  return std::string(tail.substr(0, tail.find('_')));
}

}  // namespace

std::optional<ParsedFeatureName> parseFeatureName(std::string_view name) {
  if (name.starts_with(kCustomOpen)) {
    const size_t close = name.find(kCustomClose);
    if (close == std::string_view::npos) return std::nullopt;
    return ParsedFeatureName{
        std::string(name.substr(kCustomOpen.size(), close - kCustomOpen.size())), true,
        secondPart(name.substr(close))};
  }
  const size_t underscore = name.find('_');
  return ParsedFeatureName{std::string(name.substr(0, underscore)), false,
                           underscore == std::string_view::npos ? std::nullopt : secondPart(name)};
}

std::optional<uint16_t> parseSignalNumber(std::string_view text) {
  bool negative = false;
  if (!text.empty() && (text.front() == '+' || text.front() == '-')) {
    negative = text.front() == '-';
    text.remove_prefix(1);
  }
  if (text.empty()) return std::nullopt;
  uint32_t value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return std::nullopt;
    value = value * 10 + static_cast<uint32_t>(c - '0');
    if (value > 0xFFFF) return std::nullopt;
  }
  if (negative && value != 0) return std::nullopt;
  return static_cast<uint16_t>(value);
}

PlannedFeature FeaturePlan::plan(std::string name, coreml::FeatureType type) {
  PlannedFeature feature{std::move(name), std::nullopt, std::nullopt, type};
  feature.parsed = parseFeatureName(feature.name);
  if (feature.parsed && !feature.parsed->isCustomSignal) {
    auto raw = parseSignalNumber(feature.parsed->signalName);
    if (raw && SignalEnum::fromRawValue(*raw)) feature.signalId = raw;
  }
  return feature;
}

FeaturePlan::FeaturePlan(const coreml::ModelDescription& description) {
  features_.reserve(description.inputs.size());
  for (const auto& input : description.inputs) {
    index_.emplace(input.name, features_.size());
    features_.push_back(plan(input.name, input.type));
  }
}

const PlannedFeature* FeaturePlan::find(const std::string& name, size_t& cursor) const {
  if (cursor < features_.size() && features_[cursor].name == name) return &features_[cursor++];
  auto it = index_.find(name);
  if (it == index_.end()) return nullptr;
  cursor = it->second + 1;
  return &features_[it->second];
}

}  // namespace orvane
