// File: FeatureValue.h
// The values that flow into and out of a model, and the provider interface that hands a
// model its inputs by name.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "orvane/Export.h"

namespace orvane::coreml {

// The kinds of feature a model description can declare.
enum class FeatureType {
  kInvalid,
  kInt64,
  kDouble,
  kString,
  kImage,
  kMultiArray,
  kDictionary,
  kSequence,
  kState,
};

ORVANE_API const char* featureTypeName(FeatureType type);

// A dense array of doubles in row-major order. Valid when the product of `shape` equals
// values.size(); an empty shape is read as one dimension of values.size().
struct ORVANE_API MultiArray {
  std::vector<int64_t> shape;
  std::vector<double> values;
};

class ORVANE_API FeatureValue {
 public:
  using Int64Dictionary = std::map<int64_t, double>;
  using StringDictionary = std::map<std::string, double>;

  // An undefined double: what a provider hands over for a feature it cannot serve.
  FeatureValue() = default;

  static FeatureValue fromInt64(int64_t value);
  static FeatureValue fromDouble(double value);
  static FeatureValue fromString(std::string value);
  static FeatureValue fromMultiArray(MultiArray value);
  // A one-dimensional array.
  static FeatureValue fromDoubles(std::vector<double> values);
  static FeatureValue fromDictionary(Int64Dictionary value);
  static FeatureValue fromDictionary(StringDictionary value);
  // A value of the given type that carries no data. Models read it as a missing value.
  static FeatureValue undefined(FeatureType type);

  FeatureType type() const { return type_; }
  bool isUndefined() const { return std::holds_alternative<std::monostate>(data_); }

  // Each accessor answers only for a defined value of exactly that kind. Inline: a prediction
  // reads every input through them.
  std::optional<int64_t> int64Value() const {
    if (const auto* v = std::get_if<int64_t>(&data_)) return *v;
    return std::nullopt;
  }
  std::optional<double> doubleValue() const {
    if (const auto* v = std::get_if<double>(&data_)) return *v;
    return std::nullopt;
  }
  const std::string* stringValue() const { return std::get_if<std::string>(&data_); }
  const MultiArray* multiArrayValue() const { return std::get_if<MultiArray>(&data_); }
  const Int64Dictionary* int64DictionaryValue() const {
    return std::get_if<Int64Dictionary>(&data_);
  }
  const StringDictionary* stringDictionaryValue() const {
    return std::get_if<StringDictionary>(&data_);
  }

  bool operator==(const FeatureValue& other) const = default;

 private:
  using Data = std::variant<std::monostate, int64_t, double, std::string, MultiArray,
                            Int64Dictionary, StringDictionary>;
  template <typename T>
  static FeatureValue make(FeatureType type, T value);

  FeatureType type_ = FeatureType::kDouble;
  Data data_;
};

bool operator==(const MultiArray& a, const MultiArray& b);

// Hands a model its inputs. featureValue() is asked once per model input per prediction; an
// absent answer means the feature is not available.
class ORVANE_API FeatureProvider {
 public:
  virtual ~FeatureProvider() = default;
  virtual std::vector<std::string> featureNames() const = 0;
  virtual std::optional<FeatureValue> featureValue(const std::string& name) const = 0;
};

// A provider over a map, for tools and tests.
class ORVANE_API DictionaryFeatureProvider : public FeatureProvider {
 public:
  DictionaryFeatureProvider() = default;
  explicit DictionaryFeatureProvider(std::map<std::string, FeatureValue> values)
      : values_(std::move(values)) {}

  void set(const std::string& name, FeatureValue value) { values_[name] = std::move(value); }
  std::vector<std::string> featureNames() const override;
  std::optional<FeatureValue> featureValue(const std::string& name) const override;

 private:
  std::map<std::string, FeatureValue> values_;
};

}  // namespace orvane::coreml
