#include "models/ContextDictionaryFeatureProvider.h"

#include <charconv>
#include <cmath>
#include <cstdio>

namespace orvane {
namespace {

using coreml::FeatureType;
using coreml::FeatureValue;

constexpr std::string_view kCustomOpen = "<c>";
constexpr std::string_view kCustomClose = "</c>";

// The second "_"-separated part of `rest`, if there are at least two parts.
std::optional<std::string> secondPart(std::string_view rest) {
  const size_t first = rest.find('_');
  if (first == std::string_view::npos) return std::nullopt;
  std::string_view tail = rest.substr(first + 1);
  return std::string(tail.substr(0, tail.find('_')));
}

// Decimal unsigned 16-bit number with an optional sign, as the platform's integer parser
// reads it ("-0" is zero; any other negative number does not fit).
std::optional<uint16_t> parseUInt16(std::string_view text) {
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
    const LoadedModel& model, const CoreMLModelMetadata& metadata, std::shared_ptr<SystemLog> log)
    : signalsManager_(signalsManager),
      customSignals_(customSignals),
      model_(model),
      metadata_(metadata),
      log_(std::move(log)) {
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

std::optional<ParsedFeatureName> ContextDictionaryFeatureProvider::parseFeatureName(
    std::string_view name) {
  if (name.starts_with(kCustomOpen)) {
    const size_t close = name.find(kCustomClose);
    if (close == std::string_view::npos) return std::nullopt;
    // "<c></c>" and a close marker inside the open one give no name.
    const std::string_view signalName =
        close >= kCustomOpen.size() ? name.substr(kCustomOpen.size(), close - kCustomOpen.size())
                                    : std::string_view();
    return ParsedFeatureName{std::string(signalName), true, secondPart(name.substr(close))};
  }
  const size_t underscore = name.find('_');
  return ParsedFeatureName{std::string(name.substr(0, underscore)), false,
                           underscore == std::string_view::npos
                               ? std::nullopt
                               : std::optional<std::string>(secondPart(name))};
}

const Signal* ContextDictionaryFeatureProvider::findSignal(uint16_t rawId) const {
  return rawId < signalsById_.size() ? signalsById_[rawId] : nullptr;
}

std::optional<FeatureValue> ContextDictionaryFeatureProvider::featureValue(
    const std::string& featureName) const {
  const auto parsed = parseFeatureName(featureName);
  if (!parsed || parsed->signalName.empty()) return emptyValue(featureName);

  std::optional<FeatureValue> value;
  if (parsed->isCustomSignal) {
    for (const CustomSignal& custom : customSignals_) {
      if (custom.id() == parsed->signalName) {
        value = customSignalToFeatureValue(featureName, custom);
        break;
      }
    }
  } else if (auto raw = parseUInt16(parsed->signalName);
             raw && SignalEnum::fromRawValue(*raw).has_value()) {
    if (const Signal* signal = findSignal(*raw)) value = signalToFeatureValue(*signal);
  }
  if (!value) return emptyValue(featureName);

  if (parsed->categoryIndex) {
    if (auto hot = handleCategoricalValue(parsed->signalName, *value, *parsed->categoryIndex)) {
      return hot;
    }
    return FeatureValue::fromInt64(*parsed->categoryIndex == "-1" ? 1 : 0);
  }
  return value;
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

std::optional<FeatureValue> ContextDictionaryFeatureProvider::customSignalToFeatureValue(
    const std::string& featureName, const CustomSignal& customSignal) const {
  const coreml::FeatureDescription* input = model_.description().input(featureName);
  if (input == nullptr) return FeatureValue::undefined(FeatureType::kDouble);
  const FeatureType type = input->type;
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
