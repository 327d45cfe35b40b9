// File: FeatureValue.cc
#include "orvane/coreml/FeatureValue.h"

#include "orvane/coreml/ModelDescription.h"

namespace orvane::coreml {

const char* featureTypeName(FeatureType type) {
  switch (type) {
    case FeatureType::kInvalid:
      return "invalid";
    case FeatureType::kInt64:
      return "int64";
    case FeatureType::kDouble:
      return "double";
    case FeatureType::kString:
      return "string";
    case FeatureType::kImage:
      return "image";
    case FeatureType::kMultiArray:
      return "multi-array";
    case FeatureType::kDictionary:
      return "dictionary";
    case FeatureType::kSequence:
      return "sequence";
    case FeatureType::kState:
      return "state";
  }
  return "invalid";
}

bool operator==(const MultiArray& a, const MultiArray& b) {
  return a.shape == b.shape && a.values == b.values;
}

template <typename T>
FeatureValue FeatureValue::make(FeatureType type, T value) {
  FeatureValue result;
  result.type_ = type;
  // Emplaced rather than assigned from a temporary variant: cheaper, and it keeps g++ 12's
  // flow analysis from raising false alarms on the variant's string member.
  result.data_.emplace<T>(std::move(value));
  return result;
}

FeatureValue FeatureValue::fromInt64(int64_t value) { return make(FeatureType::kInt64, value); }
FeatureValue FeatureValue::fromDouble(double value) { return make(FeatureType::kDouble, value); }
FeatureValue FeatureValue::fromString(std::string value) {
  return make(FeatureType::kString, std::move(value));
}
FeatureValue FeatureValue::fromMultiArray(MultiArray value) {
  return make(FeatureType::kMultiArray, std::move(value));
}
FeatureValue FeatureValue::fromDoubles(std::vector<double> values) {
  MultiArray array;
  array.shape = {static_cast<int64_t>(values.size())};
  array.values = std::move(values);
  return fromMultiArray(std::move(array));
}
FeatureValue FeatureValue::fromDictionary(Int64Dictionary value) {
  return make(FeatureType::kDictionary, std::move(value));
}
FeatureValue FeatureValue::fromDictionary(StringDictionary value) {
  return make(FeatureType::kDictionary, std::move(value));
}
FeatureValue FeatureValue::undefined(FeatureType type) {
  FeatureValue result;
  result.type_ = type;
  return result;
}

std::vector<std::string> DictionaryFeatureProvider::featureNames() const {
  std::vector<std::string> names;
  names.reserve(values_.size());
  for (const auto& [name, value] : values_) names.push_back(name);
  return names;
}

std::optional<FeatureValue> DictionaryFeatureProvider::featureValue(const std::string& name) const {
  auto it = values_.find(name);
  if (it == values_.end()) return std::nullopt;
  return it->second;
}

const FeatureDescription* ModelDescription::input(const std::string& name) const {
  for (const auto& feature : inputs) {
    if (feature.name == name) return &feature;
  }
  return nullptr;
}

const FeatureDescription* ModelDescription::output(const std::string& name) const {
  for (const auto& feature : outputs) {
    if (feature.name == name) return &feature;
  }
  return nullptr;
}

}  // namespace orvane::coreml
