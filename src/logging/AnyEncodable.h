// File: AnyEncodable.h
// One untyped value made writable as JSON: a list, a map from text, an integer, a double, a
// float, a decimal (written as its canonical text), a boolean, a text or nothing (null).
// Bytes and dates have no JSON form and fail with "The value is not encodable".
#pragma once

#include <optional>
#include <string>

#include "orvane/PlistValue.h"
#include "util/Result.h"

namespace orvane {

class AnyEncodable {
 public:
  AnyEncodable() = default;  // null
  // NOLINTNEXTLINE(google-explicit-constructor): any value converts to its JSON form
  AnyEncodable(PlistValue value) : value_(std::move(value)) {}
  // NOLINTNEXTLINE(google-explicit-constructor)
  AnyEncodable(std::optional<PlistValue> value) : value_(std::move(value)) {}

  const std::optional<PlistValue>& value() const { return value_; }

  // Compact JSON. Floats are written as their shortest round-trip decimal, non-finite ones as
  // the strings "Infinity", "-Infinity" and "NaN".
  Result<std::string> toJson() const;
  void appendJson(std::string& out, std::optional<PlatformError>& error) const;

 private:
  std::optional<PlistValue> value_;
};

// Appends the JSON form of `value` (as AnyEncodable does) without copying it.
void appendJsonValue(std::string& out, const PlistValue& value,
                     std::optional<PlatformError>& error);
void appendJsonObject(std::string& out, const PlistDictionary& dictionary,
                      std::optional<PlatformError>& error);

// Appends `text` as a JSON string literal; invalid UTF-8 becomes U+FFFD.
void appendJsonString(std::string& out, std::string_view text);
// `text` with every invalid UTF-8 byte replaced by U+FFFD.
std::string repairedUtf8(std::string_view text);
// Appends a float or double in the forms described above.
void appendJsonNumber(std::string& out, float value);
void appendJsonNumber(std::string& out, double value);

}  // namespace orvane
