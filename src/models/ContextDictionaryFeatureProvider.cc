#include "models/ContextDictionaryFeatureProvider.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>

namespace orvane {
namespace {

using coreml::FeatureType;
using coreml::FeatureValue;

constexpr std::string_view kCustomOpen = "<c>";
constexpr std::string_view kCustomClose = "</c>";

const char* customSignalKindName(const CustomSignalValue& value) {
  static constexpr const char* kNames[] = {"bool", "int", "float", "decimal", "string"};
  return kNames[value.index()];
}

}  // namespace

std::string defaultDecimalText(double value) {
  if (std::isnan(value)) return "nan";
  if (std::isinf(value)) return value < 0 ? "-inf" : "inf";
  char buffer[64];
  const double magnitude = std::fabs(value);
  const bool fixed = magnitude == 0 || (magnitude >= 1e-4 && magnitude < 9007199254740992.0);
  auto [end, ec] = std::to_chars(buffer, buffer + sizeof buffer, value,
                                 fixed ? std::chars_format::fixed : std::chars_format::scientific);
  std::string text(buffer, ec == std::errc() ? end : buffer);
  if (fixed && text.find('.') == std::string::npos) text += ".0";
  return text;
}

ContextDictionaryFeatureProvider::ContextDictionaryFeatureProvider(
    const SignalsManager& signalsManager, const CustomSignalList& customSignals,
    const LoadedModel& model, const CoreMLModelMetadata& metadata, std::shared_ptr<SystemLog> log,
    const FeaturePlan* plan)
    : signalsManager_(signalsManager),
      customSignals_(customSignals),
      model_(model),
      metadata_(metadata),
      log_(std::move(log)),
      plan_(plan) {
  if (plan_ == nullptr) {
    ownPlan_ = std::make_unique<FeaturePlan>(model_.description());
    plan_ = ownPlan_.get();
  }
  uint16_t highest = 0;
  for (const Signal& s : signalsManager_.signals()) highest = std::max(highest, s.id().rawValue());
  signalsById_.assign(static_cast<size_t>(highest) + 1, nullptr);
  for (const Signal& s : signalsManager_.signals()) {
    const Signal*& slot = signalsById_[s.id().rawValue()];
    if (slot == nullptr) slot = &s;
  }
}

std::vector<std::string> ContextDictionaryFeatureProvider::featureNames() const {
  std::vector<std::string> names;
  names.reserve(model_.description().inputs.size());
  for (const auto& input : model_.description().inputs) names.push_back(input.name);
  return names;
}

const Signal* ContextDictionaryFeatureProvider::findSignal(uint16_t rawId) const {
  return rawId < signalsById_.size() ? signalsById_[rawId] : nullptr;
}

std::optional<FeatureValue> ContextDictionaryFeatureProvider::featureValue(
    const std::string& featureName) const {
  if (const PlannedFeature* planned = plan_->find(featureName, cursor_)) return valueOf(*planned);
  // Not one of the model's inputs: served all the same, typed as a double.
  return valueOf(FeaturePlan::plan(featureName, FeatureType::kDouble));
}

FeatureValue ContextDictionaryFeatureProvider::valueOf(const PlannedFeature& feature) const {
  const auto& parsed = feature.parsed;
  if (!parsed || parsed->signalName.empty()) return FeatureValue::undefined(feature.type);

  std::optional<FeatureValue> value;
  if (parsed->isCustomSignal) {
    for (const CustomSignal& custom : customSignals_) {
      if (custom.id() == parsed->signalName) {
        // A one-hot column is typed as a number whatever the signal's own type: the value is
        // matched against the categories, not handed to the model.
        value = parsed->categoryIndex ? categoryValueOf(custom)
                                      : customValue(feature.name, feature.type, custom);
        break;
      }
    }
  } else if (feature.signalId) {
    if (const Signal* signal = findSignal(*feature.signalId)) value = signalToFeatureValue(*signal);
  }
  if (!value) return FeatureValue::undefined(feature.type);

  if (parsed->categoryIndex) {
    std::optional<FeatureValue> hot;
    if (parsed->isCustomSignal) {
      // Categories of "<c>plan</c>_N" are listed under "<c>plan</c>", as "34_N" under "34";
      // the bare id is read too.
      hot = handleCategoricalValue(
          std::string(kCustomOpen) + parsed->signalName + std::string(kCustomClose), *value,
          *parsed->categoryIndex);
    }
    if (!hot) hot = handleCategoricalValue(parsed->signalName, *value, *parsed->categoryIndex);
    if (hot) return *hot;
    return FeatureValue::fromInt64(*parsed->categoryIndex == "-1" ? 1 : 0);
  }
  return std::move(*value);
}

std::optional<FeatureValue> ContextDictionaryFeatureProvider::signalToFeatureValue(
    const Signal& signal) {
  switch (signal.kind()) {
    case SignalKind::kBool:
      return FeatureValue::fromInt64(std::get<bool>(signal.value()) ? 1 : 0);
    case SignalKind::kFloat:
      return FeatureValue::fromDouble(std::get<float>(signal.value()));
    case SignalKind::kInt:
      return FeatureValue::fromInt64(std::get<int64_t>(signal.value()));
    case SignalKind::kString:
      return FeatureValue::fromString(std::get<std::string>(signal.value()));
    case SignalKind::kDecimal:
      break;
  }
  return std::nullopt;
}

FeatureValue ContextDictionaryFeatureProvider::categoryValueOf(const CustomSignal& customSignal) {
  return std::visit(
      [](const auto& v) -> FeatureValue {
        using T = std::decay_t<decltype(v)>;
        if constexpr (std::is_same_v<T, bool>) {
          return FeatureValue::fromInt64(v ? 1 : 0);
        } else if constexpr (std::is_same_v<T, int64_t>) {
          return FeatureValue::fromInt64(v);
        } else if constexpr (std::is_same_v<T, float>) {
          return FeatureValue::fromDouble(v);
        } else if constexpr (std::is_same_v<T, Decimal>) {
          return FeatureValue::fromString(v.toString());
        } else {
          return FeatureValue::fromString(v);
        }
      },
      customSignal.value());
}

std::optional<FeatureValue> ContextDictionaryFeatureProvider::customSignalToFeatureValue(
    const std::string& featureName, const CustomSignal& customSignal) const {
  const coreml::FeatureDescription* input = model_.description().input(featureName);
  if (input == nullptr) return FeatureValue::undefined(FeatureType::kDouble);
  return customValue(featureName, input->type, customSignal);
}

FeatureValue ContextDictionaryFeatureProvider::customValue(const std::string& featureName,
                                                           FeatureType type,
                                                           const CustomSignal& customSignal) const {
  const CustomSignalValue& value = customSignal.value();
  if (const bool* b = std::get_if<bool>(&value); b && type == FeatureType::kInt64) {
    return FeatureValue::fromInt64(*b ? 1 : 0);
  }
  if (const float* f = std::get_if<float>(&value); f && type == FeatureType::kDouble) {
    return FeatureValue::fromDouble(*f);
  }
  if (const Decimal* d = std::get_if<Decimal>(&value)) {
    if (type == FeatureType::kString) return FeatureValue::fromString(d->toString());
    if (type == FeatureType::kDouble) return FeatureValue::fromDouble(d->toDouble());
  }
  if (const int64_t* i = std::get_if<int64_t>(&value); i && type == FeatureType::kInt64) {
    return FeatureValue::fromInt64(*i);
  }
  if (const std::string* s = std::get_if<std::string>(&value); s && type == FeatureType::kString) {
    return FeatureValue::fromString(*s);
  }
  if (log_) {
    char line[512];
    std::snprintf(line, sizeof line,
                  "[Orvane] Encountered feature %s where Model type (%ld) does not match custom "
                  "signal type (%s)",
                  featureName.c_str(), static_cast<long>(type), customSignalKindName(value));
    log_->error(line);
  }
  return FeatureValue::undefined(type);
}

std::optional<FeatureValue> ContextDictionaryFeatureProvider::handleCategoricalValue(
    const std::string& signalName, const FeatureValue& featureValue,
    const std::string& categoryIndex) const {
  if (!metadata_.mappings) return std::nullopt;
  auto mapping = metadata_.mappings->find(signalName);
  if (mapping == metadata_.mappings->end()) return std::nullopt;
  const std::string text = convertFeatureValueToString(featureValue);
  const auto& categories = mapping->second;
  const auto at = std::find(categories.begin(), categories.end(), text);
  const long position = at == categories.end() ? -1 : static_cast<long>(at - categories.begin());
  return FeatureValue::fromInt64(std::to_string(position) == categoryIndex ? 1 : 0);
}

FeatureValue ContextDictionaryFeatureProvider::emptyValue(const std::string& featureName) const {
  const coreml::FeatureDescription* input = model_.description().input(featureName);
  return FeatureValue::undefined(input ? input->type : FeatureType::kDouble);
}

std::string ContextDictionaryFeatureProvider::convertFeatureValueToString(
    const FeatureValue& value) {
  if (const std::string* s = value.stringValue()) return *s;
  if (auto d = value.doubleValue()) return defaultDecimalText(*d);
  if (auto i = value.int64Value()) return std::to_string(*i);
  return "no value";
}

}  // namespace orvane
