// File: JsonReader.h
// Decoding of untrusted JSON (server answers, stored records) without exceptions. A reader
// stands on one JSON value and knows the path that led there; every failed read records the
// first failure in a context shared by all readers of one decode, so a decoder can read every
// field it wants and check once at the end. After the first failure later failures are not
// recorded, so the message names the first thing that was wrong.
//
// Field names are given in lower camel case and also found in their snake-case form
// ("modelInfoPerFlow" or "model_info_per_flow"), because the service and older stored
// records use either. Map keys (flow names) are data and are never converted.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

namespace orvane {

// Deeper documents are refused: nothing we decode nests anywhere near this, and refusing
// early keeps recursive copies of kept-as-is sub-documents off the stack.
inline constexpr size_t kMaxJsonNestingDepth = 512;

// Parses `text` without throwing. None, with a reason in `error` when given, for malformed
// JSON or nesting deeper than kMaxJsonNestingDepth.
std::optional<nlohmann::json> parseJson(std::string_view text, std::string* error = nullptr);

// "modelInfoPerFlow" -> "model_info_per_flow".
std::string snakeCaseKey(std::string_view camelCaseName);

class JsonReader {
 public:
  // A root reader with a fresh failure context. `value` must outlive every reader made from
  // this one.
  explicit JsonReader(const nlohmann::json& value);

  bool ok() const { return !failure_->has_value(); }
  // The first failure, as "path: reason"; empty while ok().
  std::string error() const { return failure_->value_or(std::string()); }
  const std::string& path() const { return path_; }
  const nlohmann::json& value() const { return *value_; }

  // Records a failure at this reader's path (the first one wins).
  void fail(std::string_view reason) const;

  // The value this reader stands on, strictly typed. None (and a recorded failure) on a
  // type mismatch.
  // Integers: a JSON integer within range, or a float with an exact integral value.
  std::optional<int64_t> asInt64() const;
  std::optional<uint16_t> asUInt16() const;
  // Any JSON number whose magnitude fits a 32-bit float.
  std::optional<float> asFloat() const;
  std::optional<double> asDouble() const;
  std::optional<bool> asBool() const;
  std::optional<std::string> asString() const;
  // Fails unless this value is an object.
  bool expectObject() const;

  // A reader on the named field of this object. required(): missing or null fails.
  // optional(): missing or null gives none without failing. Both fail when this value is not
  // an object.
  std::optional<JsonReader> required(std::string_view name) const;
  std::optional<JsonReader> optional(std::string_view name) const;

  // Arrays and maps with elements decoded by `decode`, which returns none after recording
  // a failure. The whole collection is none as soon as one element fails.
  template <typename T>
  std::optional<std::vector<T>> asArray(
      const std::function<std::optional<T>(const JsonReader&)>& decode) const;
  template <typename T>
  std::optional<std::map<std::string, T>> asMap(
      const std::function<std::optional<T>(const JsonReader&)>& decode) const;

  // Field shorthands over required()/optional() and the conversions above. For an optional
  // field, none means absent or failed; tell them apart with ok().
  std::optional<int64_t> requiredInt64(std::string_view name) const;
  std::optional<int64_t> optionalInt64(std::string_view name) const;
  std::optional<float> requiredFloat(std::string_view name) const;
  std::optional<float> optionalFloat(std::string_view name) const;
  std::optional<double> requiredDouble(std::string_view name) const;
  std::optional<double> optionalDouble(std::string_view name) const;
  std::optional<bool> requiredBool(std::string_view name) const;
  std::optional<bool> optionalBool(std::string_view name) const;
  std::optional<std::string> requiredString(std::string_view name) const;
  std::optional<std::string> optionalString(std::string_view name) const;

 private:
  using Failure = std::shared_ptr<std::optional<std::string>>;
  JsonReader(const nlohmann::json& value, std::string path, Failure failure)
      : value_(&value), path_(std::move(path)), failure_(std::move(failure)) {}

  JsonReader child(const nlohmann::json& value, std::string_view name) const;
  JsonReader element(const nlohmann::json& value, size_t index) const;
  const nlohmann::json* find(std::string_view name) const;
  void failType(std::string_view expected) const;

  const nlohmann::json* value_;
  std::string path_;
  Failure failure_;
};

template <typename T>
std::optional<std::vector<T>> JsonReader::asArray(
    const std::function<std::optional<T>(const JsonReader&)>& decode) const {
  if (!value_->is_array()) {
    failType("array");
    return std::nullopt;
  }
  std::vector<T> result;
  result.reserve(value_->size());
  for (size_t i = 0; i < value_->size(); ++i) {
    auto decoded = decode(element((*value_)[i], i));
    if (!decoded) return std::nullopt;
    result.push_back(std::move(*decoded));
  }
  return result;
}

template <typename T>
std::optional<std::map<std::string, T>> JsonReader::asMap(
    const std::function<std::optional<T>(const JsonReader&)>& decode) const {
  if (!expectObject()) return std::nullopt;
  std::map<std::string, T> result;
  for (const auto& [key, item] : value_->items()) {
    auto decoded = decode(child(item, key));
    if (!decoded) return std::nullopt;
    result.emplace(key, std::move(*decoded));
  }
  return result;
}

}  // namespace orvane
