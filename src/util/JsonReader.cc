#include "util/JsonReader.h"

#include <cmath>
#include <limits>

namespace orvane {

namespace {

// Counts nesting outside strings. Cheaper than letting the parser build a pathological
// document and then refusing it.
bool nestingWithinLimit(std::string_view text) {
  size_t depth = 0;
  bool inString = false;
  bool escaped = false;
  for (char c : text) {
    if (inString) {
      if (escaped) {
        escaped = false;
      } else if (c == '\\') {
        escaped = true;
      } else if (c == '"') {
        inString = false;
      }
      continue;
    }
    switch (c) {
      case '"':
        inString = true;
        break;
      case '[':
      case '{':
        if (++depth > kMaxJsonNestingDepth) return false;
        break;
      case ']':
      case '}':
        if (depth > 0) --depth;
        break;
      default:
        break;
    }
  }
  return true;
}

// The midpoint between the largest float and 2^128: doubles at or beyond it would round to
// infinity.
constexpr double kFloatOverflowThreshold = 0x1.ffffffp127;

}  // namespace

std::optional<nlohmann::json> parseJson(std::string_view text, std::string* error) {
  if (!nestingWithinLimit(text)) {
    if (error) *error = "JSON nested deeper than " + std::to_string(kMaxJsonNestingDepth);
    return std::nullopt;
  }
  auto parsed = nlohmann::json::parse(text.begin(), text.end(), nullptr,
                                      /*allow_exceptions=*/false);
  if (parsed.is_discarded()) {
    if (error) *error = "malformed JSON";
    return std::nullopt;
  }
  return parsed;
}

std::string snakeCaseKey(std::string_view camelCaseName) {
  std::string result;
  result.reserve(camelCaseName.size() + 4);
  for (char c : camelCaseName) {
    if (c >= 'A' && c <= 'Z') {
      if (!result.empty()) result.push_back('_');
      result.push_back(static_cast<char>(c - 'A' + 'a'));
    } else {
      result.push_back(c);
    }
  }
  return result;
}

JsonReader::JsonReader(const nlohmann::json& value)
    : value_(&value), failure_(std::make_shared<std::optional<std::string>>()) {}

void JsonReader::fail(std::string_view reason) const {
  if (failure_->has_value()) return;
  *failure_ = (path_.empty() ? std::string("(root)") : path_) + ": " + std::string(reason);
}

void JsonReader::failType(std::string_view expected) const {
  fail("expected " + std::string(expected) + ", found " + value_->type_name());
}

JsonReader JsonReader::child(const nlohmann::json& value, std::string_view name) const {
  std::string path = path_;
  if (!path.empty()) path.push_back('.');
  path.append(name);
  return JsonReader(value, std::move(path), failure_);
}

JsonReader JsonReader::element(const nlohmann::json& value, size_t index) const {
  return JsonReader(value, path_ + "[" + std::to_string(index) + "]", failure_);
}

bool JsonReader::expectObject() const {
  if (value_->is_object()) return true;
  failType("object");
  return false;
}

const nlohmann::json* JsonReader::find(std::string_view name) const {
  // The spelling we were asked for wins over its snake-case twin when a document has both.
  auto it = value_->find(name);
  if (it != value_->end()) return &*it;
  const std::string snake = snakeCaseKey(name);
  if (snake != name) {
    it = value_->find(snake);
    if (it != value_->end()) return &*it;
  }
  return nullptr;
}

std::optional<JsonReader> JsonReader::required(std::string_view name) const {
  if (!expectObject()) return std::nullopt;
  const nlohmann::json* found = find(name);
  if (!found) {
    child(*value_, name).fail("missing required key");
    return std::nullopt;
  }
  if (found->is_null()) {
    child(*found, name).fail("null for required key");
    return std::nullopt;
  }
  return child(*found, name);
}

std::optional<JsonReader> JsonReader::optional(std::string_view name) const {
  if (!expectObject()) return std::nullopt;
  const nlohmann::json* found = find(name);
  if (!found || found->is_null()) return std::nullopt;
  return child(*found, name);
}

std::optional<int64_t> JsonReader::asInt64() const {
  const auto& v = *value_;
  if (v.is_number_unsigned()) {
    const auto u = v.get<uint64_t>();
    if (u > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
      fail("integer out of range");
      return std::nullopt;
    }
    return static_cast<int64_t>(u);
  }
  if (v.is_number_integer()) return v.get<int64_t>();
  if (v.is_number_float()) {
    const double d = v.get<double>();
    // 2^63 is exact in a double; anything at or above it does not fit.
    if (!(d >= -0x1p63 && d < 0x1p63)) {
      fail("integer out of range");
      return std::nullopt;
    }
    if (std::trunc(d) != d) {
      fail("expected integer, found fractional number");
      return std::nullopt;
    }
    return static_cast<int64_t>(d);
  }
  failType("integer");
  return std::nullopt;
}

std::optional<uint16_t> JsonReader::asUInt16() const {
  auto wide = asInt64();
  if (!wide) return std::nullopt;
  if (*wide < 0 || *wide > std::numeric_limits<uint16_t>::max()) {
    fail("integer out of range for 16-bit unsigned");
    return std::nullopt;
  }
  return static_cast<uint16_t>(*wide);
}

std::optional<double> JsonReader::asDouble() const {
  if (!value_->is_number()) {
    failType("number");
    return std::nullopt;
  }
  return value_->get<double>();
}

std::optional<float> JsonReader::asFloat() const {
  auto wide = asDouble();
  if (!wide) return std::nullopt;
  if (std::fabs(*wide) >= kFloatOverflowThreshold) {
    fail("number out of range for 32-bit float");
    return std::nullopt;
  }
  return static_cast<float>(*wide);
}

std::optional<bool> JsonReader::asBool() const {
  if (!value_->is_boolean()) {
    failType("boolean");
    return std::nullopt;
  }
  return value_->get<bool>();
}

std::optional<std::string> JsonReader::asString() const {
  if (!value_->is_string()) {
    failType("string");
    return std::nullopt;
  }
  return value_->get<std::string>();
}

std::optional<int64_t> JsonReader::requiredInt64(std::string_view name) const {
  auto field = required(name);
  return field ? field->asInt64() : std::nullopt;
}
std::optional<int64_t> JsonReader::optionalInt64(std::string_view name) const {
  auto field = optional(name);
  return field ? field->asInt64() : std::nullopt;
}
std::optional<float> JsonReader::requiredFloat(std::string_view name) const {
  auto field = required(name);
  return field ? field->asFloat() : std::nullopt;
}
std::optional<float> JsonReader::optionalFloat(std::string_view name) const {
  auto field = optional(name);
  return field ? field->asFloat() : std::nullopt;
}
std::optional<double> JsonReader::requiredDouble(std::string_view name) const {
  auto field = required(name);
  return field ? field->asDouble() : std::nullopt;
}
std::optional<double> JsonReader::optionalDouble(std::string_view name) const {
  auto field = optional(name);
  return field ? field->asDouble() : std::nullopt;
}
std::optional<bool> JsonReader::requiredBool(std::string_view name) const {
  auto field = required(name);
  return field ? field->asBool() : std::nullopt;
}
std::optional<bool> JsonReader::optionalBool(std::string_view name) const {
  auto field = optional(name);
  return field ? field->asBool() : std::nullopt;
}
std::optional<std::string> JsonReader::requiredString(std::string_view name) const {
  auto field = required(name);
  return field ? field->asString() : std::nullopt;
}
std::optional<std::string> JsonReader::optionalString(std::string_view name) const {
  auto field = optional(name);
  return field ? field->asString() : std::nullopt;
}

}  // namespace orvane
