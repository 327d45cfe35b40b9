#include "logging/AnyEncodable.h"

#include <charconv>
#include <cmath>

namespace orvane {
namespace {

template <typename T>
void appendFloating(std::string& out, T value) {
  if (std::isnan(value)) {
    out += "\"NaN\"";
  } else if (std::isinf(value)) {
    out += value > 0 ? "\"Infinity\"" : "\"-Infinity\"";
  } else {
    char buffer[64];
    auto [ptr, ec] = std::to_chars(buffer, buffer + sizeof buffer, value);
    out.append(buffer, ec == std::errc() ? ptr : buffer);
  }
}

// Length of the valid UTF-8 sequence starting at `s[i]`, or 0 when it is not valid.
size_t validUtf8Length(std::string_view s, size_t i) {
  const auto c = static_cast<uint8_t>(s[i]);
  size_t length = 0;
  uint32_t min = 0;
  if (c < 0x80) return 1;
  if ((c & 0xE0) == 0xC0) {
    length = 2;
    min = 0x80;
  } else if ((c & 0xF0) == 0xE0) {
    length = 3;
    min = 0x800;
  } else if ((c & 0xF8) == 0xF0) {
    length = 4;
    min = 0x10000;
  } else {
    return 0;
  }
  if (i + length > s.size()) return 0;
  uint32_t cp = c & (0x7F >> length);
  for (size_t k = 1; k < length; ++k) {
    const auto b = static_cast<uint8_t>(s[i + k]);
    if ((b & 0xC0) != 0x80) return 0;
    cp = (cp << 6) | (b & 0x3F);
  }
  if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return 0;
  return length;
}

// Appends the UTF-8 sequence at `text[i]`, or U+FFFD for an invalid byte; returns the index
// after what was consumed.
size_t appendUtf8Sequence(std::string& out, std::string_view text, size_t i) {
  const size_t length = validUtf8Length(text, i);
  if (length == 0) {
    out += "\xEF\xBF\xBD";  // U+FFFD
    return i + 1;
  }
  out.append(text.substr(i, length));
  return i + length;
}

}  // namespace

void appendJsonNumber(std::string& out, float value) { appendFloating(out, value); }
void appendJsonNumber(std::string& out, double value) { appendFloating(out, value); }

void appendJsonString(std::string& out, std::string_view text) {
  out.push_back('"');
  for (size_t i = 0; i < text.size();) {
    // Copy runs of plain ASCII in one go: base64 pieces and ids are all plain.
    size_t run = i;
    while (run < text.size()) {
      const auto u = static_cast<uint8_t>(text[run]);
      if (u < 0x20 || u >= 0x80 || u == '"' || u == '\\') break;
      ++run;
    }
    if (run > i) {
      out.append(text.data() + i, run - i);
      i = run;
      continue;
    }
    const char c = text[i];
    switch (c) {
      case '"':
        out += "\\\"";
        ++i;
        continue;
      case '\\':
        out += "\\\\";
        ++i;
        continue;
      case '\n':
        out += "\\n";
        ++i;
        continue;
      case '\r':
        out += "\\r";
        ++i;
        continue;
      case '\t':
        out += "\\t";
        ++i;
        continue;
      case '\b':
        out += "\\b";
        ++i;
        continue;
      case '\f':
        out += "\\f";
        ++i;
        continue;
      default:
        break;
    }
    if (static_cast<uint8_t>(c) < 0x20) {
      static constexpr char kHex[] = "0123456789abcdef";
      out += "\\u00";
      out.push_back(kHex[(c >> 4) & 0xF]);
      out.push_back(kHex[c & 0xF]);
      ++i;
      continue;
    }
    i = appendUtf8Sequence(out, text, i);
  }
  out.push_back('"');
}

std::string repairedUtf8(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size();) i = appendUtf8Sequence(out, text, i);
  return out;
}

void appendJsonObject(std::string& out, const PlistDictionary& dictionary,
                      std::optional<PlatformError>& error) {
  out.push_back('{');
  bool first = true;
  for (const auto& [key, item] : dictionary) {
    if (error) return;
    if (!first) out.push_back(',');
    first = false;
    appendJsonString(out, key);
    out.push_back(':');
    appendJsonValue(out, item, error);
  }
  out.push_back('}');
}

void appendJsonValue(std::string& out, const PlistValue& v, std::optional<PlatformError>& error) {
  if (error) return;
  switch (v.type()) {
    case PlistValue::Type::kArray: {
      out.push_back('[');
      bool first = true;
      for (const auto& item : *v.asArray()) {
        if (!first) out.push_back(',');
        first = false;
        appendJsonValue(out, item, error);
      }
      out.push_back(']');
      return;
    }
    case PlistValue::Type::kDictionary:
      appendJsonObject(out, *v.asDictionary(), error);
      return;
    case PlistValue::Type::kInt:
      out += std::to_string(*v.asInt());
      return;
    case PlistValue::Type::kDouble:
      appendFloating(out, *v.asDouble());
      return;
    case PlistValue::Type::kFloat:
      appendFloating(out, *v.asFloat());
      return;
    case PlistValue::Type::kDecimal:
      appendJsonString(out, v.asDecimal()->toString());
      return;
    case PlistValue::Type::kBool:
      out += *v.asBool() ? "true" : "false";
      return;
    case PlistValue::Type::kString:
      appendJsonString(out, *v.asString());
      return;
    case PlistValue::Type::kBytes:
    case PlistValue::Type::kDate:
      error = PlatformError{kEncodingErrorDomain, 0, "The value is not encodable"};
      return;
  }
}

void AnyEncodable::appendJson(std::string& out, std::optional<PlatformError>& error) const {
  if (error) return;
  if (!value_) {
    out += "null";
    return;
  }
  appendJsonValue(out, *value_, error);
}

Result<std::string> AnyEncodable::toJson() const {
  std::string out;
  std::optional<PlatformError> error;
  appendJson(out, error);
  if (error) return *error;
  return out;
}

}  // namespace orvane
