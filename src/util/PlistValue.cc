#include "orvane/PlistValue.h"

#include <charconv>
#include <cmath>
#include <limits>

namespace orvane {

std::optional<int64_t> PlistValue::numericInt() const {
  switch (type()) {
    case Type::kBool:
      return *asBool() ? 1 : 0;
    case Type::kInt:
      return *asInt();
    case Type::kDouble:
    case Type::kFloat:
    case Type::kDecimal: {
      const double d = *numericDouble();
      if (!std::isfinite(d) || d >= 9.2233720368547758e18 || d < -9.2233720368547758e18) {
        return std::nullopt;
      }
      return static_cast<int64_t>(d);
    }
    default:
      return std::nullopt;
  }
}

std::optional<double> PlistValue::numericDouble() const {
  switch (type()) {
    case Type::kBool:
      return *asBool() ? 1.0 : 0.0;
    case Type::kInt:
      return static_cast<double>(*asInt());
    case Type::kDouble:
      return *asDouble();
    case Type::kFloat:
      return static_cast<double>(*asFloat());
    case Type::kDecimal:
      return asDecimal()->toDouble();
    default:
      return std::nullopt;
  }
}

bool PlistValue::sharesContentsWith(const PlistValue& other) const {
  if (const PlistArray* array = asArray()) return array == other.asArray();
  if (const PlistDictionary* dictionary = asDictionary()) return dictionary == other.asDictionary();
  return false;
}

bool PlistValue::operator==(const PlistValue& other) const {
  if (type() != other.type()) return false;
  if (sharesContentsWith(other)) return true;
  if (const PlistArray* array = asArray()) return *array == *other.asArray();
  if (const PlistDictionary* dictionary = asDictionary()) {
    return *dictionary == *other.asDictionary();
  }
  return storage_ == other.storage_;
}

namespace {

template <typename T>
std::string shortest(T v) {
  char buffer[64];
  auto [ptr, ec] = std::to_chars(buffer, buffer + sizeof buffer, v);
  return ec == std::errc() ? std::string(buffer, ptr) : std::string("?");
}

}  // namespace

std::string describe(const PlistValue& value) {
  switch (value.type()) {
    case PlistValue::Type::kBool:
      return *value.asBool() ? "true" : "false";
    case PlistValue::Type::kInt:
      return std::to_string(*value.asInt());
    case PlistValue::Type::kDouble:
      return shortest(*value.asDouble());
    case PlistValue::Type::kFloat:
      return shortest(*value.asFloat()) + "f";
    case PlistValue::Type::kDecimal:
      return value.asDecimal()->toString();
    case PlistValue::Type::kString:
      return "\"" + *value.asString() + "\"";
    case PlistValue::Type::kBytes:
      return "<" + std::to_string(value.asBytes()->size()) + " bytes>";
    case PlistValue::Type::kDate:
      return "@" + shortest(value.asDate()->secondsSince1970);
    case PlistValue::Type::kArray: {
      std::string out = "[";
      for (const auto& item : *value.asArray()) {
        if (out.size() > 1) out += ", ";
        out += describe(item);
      }
      return out + "]";
    }
    case PlistValue::Type::kDictionary: {
      std::string out = "{";
      for (const auto& [key, item] : *value.asDictionary()) {
        if (out.size() > 1) out += ", ";
        out += "\"" + key + "\": " + describe(item);
      }
      return out + "}";
    }
  }
  return "?";
}

}  // namespace orvane
