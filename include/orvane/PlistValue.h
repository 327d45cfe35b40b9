// File: PlistValue.h
// The property-list value: what the key-value store holds and what untyped log dictionaries
// carry. Exactly one of bool, int64, double, float, Decimal, text, bytes, date, array or
// dictionary.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "orvane/Decimal.h"

namespace orvane {

// A point in time, seconds since 1970-01-01T00:00:00Z.
struct Date {
  double secondsSince1970 = 0;
  bool operator==(const Date&) const = default;
  auto operator<=>(const Date&) const = default;
};

using Bytes = std::vector<uint8_t>;

class PlistValue;
using PlistArray = std::vector<PlistValue>;
using PlistDictionary = std::map<std::string, PlistValue>;

class PlistValue {
 public:
  enum class Type {
    kBool,
    kInt,
    kDouble,
    kFloat,
    kDecimal,
    kString,
    kBytes,
    kDate,
    kArray,
    kDictionary
  };
  using Storage = std::variant<bool, int64_t, double, float, Decimal, std::string, Bytes, Date,
                               PlistArray, PlistDictionary>;

  PlistValue() : storage_(false) {}
  PlistValue(bool v) : storage_(v) {}                        // NOLINT(google-explicit-constructor)
  PlistValue(int v) : storage_(static_cast<int64_t>(v)) {}   // NOLINT(google-explicit-constructor)
  PlistValue(int64_t v) : storage_(v) {}                     // NOLINT(google-explicit-constructor)
  PlistValue(double v) : storage_(v) {}                      // NOLINT(google-explicit-constructor)
  PlistValue(float v) : storage_(v) {}                       // NOLINT(google-explicit-constructor)
  PlistValue(Decimal v) : storage_(v) {}                     // NOLINT(google-explicit-constructor)
  PlistValue(std::string v) : storage_(std::move(v)) {}      // NOLINT(google-explicit-constructor)
  PlistValue(const char* v) : storage_(std::string(v)) {}    // NOLINT(google-explicit-constructor)
  PlistValue(Bytes v) : storage_(std::move(v)) {}            // NOLINT(google-explicit-constructor)
  PlistValue(Date v) : storage_(v) {}                        // NOLINT(google-explicit-constructor)
  PlistValue(PlistArray v) : storage_(std::move(v)) {}       // NOLINT(google-explicit-constructor)
  PlistValue(PlistDictionary v) : storage_(std::move(v)) {}  // NOLINT(google-explicit-constructor)

  Type type() const { return static_cast<Type>(storage_.index()); }
  const Storage& storage() const { return storage_; }

  // Exact-type accessors: none when the value holds another type.
  std::optional<bool> asBool() const { return get<bool>(); }
  std::optional<int64_t> asInt() const { return get<int64_t>(); }
  std::optional<double> asDouble() const { return get<double>(); }
  std::optional<float> asFloat() const { return get<float>(); }
  std::optional<Decimal> asDecimal() const { return get<Decimal>(); }
  const std::string* asString() const { return std::get_if<std::string>(&storage_); }
  const Bytes* asBytes() const { return std::get_if<Bytes>(&storage_); }
  std::optional<Date> asDate() const { return get<Date>(); }
  const PlistArray* asArray() const { return std::get_if<PlistArray>(&storage_); }
  const PlistDictionary* asDictionary() const { return std::get_if<PlistDictionary>(&storage_); }

  // Numeric reading across the numeric types (bool, int, double, float, Decimal), as the
  // platform's defaults store does for integer(forKey:) and double(forKey:).
  std::optional<int64_t> numericInt() const;
  std::optional<double> numericDouble() const;

  bool operator==(const PlistValue& other) const { return storage_ == other.storage_; }

 private:
  template <typename T>
  std::optional<T> get() const {
    if (const T* v = std::get_if<T>(&storage_)) return *v;
    return std::nullopt;
  }

  Storage storage_;
};

// A readable rendering for logs and test failure messages.
std::string describe(const PlistValue& value);

}  // namespace orvane
