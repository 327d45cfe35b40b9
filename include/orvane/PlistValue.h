// File: PlistValue.h
// The property-list value: what the key-value store holds and what untyped log dictionaries
// carry. Exactly one of bool, int64, double, float, Decimal, text, bytes, date, array or
// dictionary.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "orvane/Decimal.h"
#include "orvane/Export.h"

namespace orvane {

// A point in time, seconds since 1970-01-01T00:00:00Z.
struct ORVANE_API Date {
  double secondsSince1970 = 0;
  bool operator==(const Date&) const = default;
  auto operator<=>(const Date&) const = default;
};

using Bytes = std::vector<uint8_t>;

class PlistValue;
using PlistArray = std::vector<PlistValue>;
using PlistDictionary = std::map<std::string, PlistValue>;

// Immutable once made. Arrays and dictionaries are held by shared pointer, so copying a value
// shares its contents rather than duplicating them: the upload queues copy a hundred large
// records every time one record is added.
class ORVANE_API PlistValue {
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

  PlistValue() : storage_(false) {}
  PlistValue(bool v) : storage_(v) {}                       // NOLINT(google-explicit-constructor)
  PlistValue(int v) : storage_(static_cast<int64_t>(v)) {}  // NOLINT(google-explicit-constructor)
  PlistValue(int64_t v) : storage_(v) {}                    // NOLINT(google-explicit-constructor)
  PlistValue(double v) : storage_(v) {}                     // NOLINT(google-explicit-constructor)
  PlistValue(float v) : storage_(v) {}                      // NOLINT(google-explicit-constructor)
  PlistValue(Decimal v) : storage_(v) {}                    // NOLINT(google-explicit-constructor)
  PlistValue(std::string v) : storage_(std::move(v)) {}     // NOLINT(google-explicit-constructor)
  PlistValue(const char* v) : storage_(std::string(v)) {}   // NOLINT(google-explicit-constructor)
  PlistValue(Bytes v) : storage_(std::move(v)) {}           // NOLINT(google-explicit-constructor)
  PlistValue(Date v) : storage_(v) {}                       // NOLINT(google-explicit-constructor)
  PlistValue(PlistArray v)                                  // NOLINT(google-explicit-constructor)
      : storage_(std::make_shared<const PlistArray>(std::move(v))) {}
  PlistValue(PlistDictionary v)  // NOLINT(google-explicit-constructor)
      : storage_(std::make_shared<const PlistDictionary>(std::move(v))) {}

  Type type() const { return static_cast<Type>(storage_.index()); }

  // Exact-type accessors: none when the value holds another type.
  std::optional<bool> asBool() const { return get<bool>(); }
  std::optional<int64_t> asInt() const { return get<int64_t>(); }
  std::optional<double> asDouble() const { return get<double>(); }
  std::optional<float> asFloat() const { return get<float>(); }
  std::optional<Decimal> asDecimal() const { return get<Decimal>(); }
  const std::string* asString() const { return std::get_if<std::string>(&storage_); }
  const Bytes* asBytes() const { return std::get_if<Bytes>(&storage_); }
  std::optional<Date> asDate() const { return get<Date>(); }
  const PlistArray* asArray() const { return shared<PlistArray>(); }
  const PlistDictionary* asDictionary() const { return shared<PlistDictionary>(); }

  // Numeric reading across the numeric types (bool, int, double, float, Decimal), as the
  // platform's defaults store does for integer(forKey:) and double(forKey:).
  std::optional<int64_t> numericInt() const;
  std::optional<double> numericDouble() const;

  // True when both are copies of one array or dictionary, which are then equal without
  // looking inside.
  bool sharesContentsWith(const PlistValue& other) const;

  bool operator==(const PlistValue& other) const;

 private:
  using Storage =
      std::variant<bool, int64_t, double, float, Decimal, std::string, Bytes, Date,
                   std::shared_ptr<const PlistArray>, std::shared_ptr<const PlistDictionary>>;

  template <typename T>
  std::optional<T> get() const {
    if (const T* v = std::get_if<T>(&storage_)) return *v;
    return std::nullopt;
  }
  template <typename Container>
  const Container* shared() const {
    const auto* held = std::get_if<std::shared_ptr<const Container>>(&storage_);
    return held ? held->get() : nullptr;
  }

  Storage storage_;
};

// A readable rendering for logs and test failure messages.
ORVANE_API std::string describe(const PlistValue& value);

}  // namespace orvane
