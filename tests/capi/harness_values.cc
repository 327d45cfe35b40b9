// The values of a captured log, as the C suites compare them. The SDK keeps its flat view of a
// record to itself, so the harness builds one from the record's public signal lists: a JSON
// object of "ctx_<id>" built-in signals, "f_<id>" custom signals, "g_<id>" global ones and
// "o_<id>" outcome metadata, the first of each key; floats in their shortest form, null when
// not finite.
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <type_traits>

#include "capi/CApi.h"

namespace {

std::string quoted(const std::string& text) {
  std::string out = "\"";
  for (const char c : text) {
    if (static_cast<unsigned char>(c) < 0x20) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
      out += escaped;
      continue;
    }
    if (c == '"' || c == '\\') out += '\\';
    out += c;
  }
  return out + "\"";
}

template <typename Variant>
std::string jsonOf(const Variant& value) {
  return std::visit(
      [](const auto& v) -> std::string {
        using T = std::decay_t<decltype(v)>;
        if constexpr (std::is_same_v<T, bool>) {
          return v ? "true" : "false";
        } else if constexpr (std::is_same_v<T, int64_t>) {
          return std::to_string(v);
        } else if constexpr (std::is_same_v<T, float>) {
          if (!std::isfinite(v)) return "null";
          char text[32];
          const auto end = std::to_chars(text, text + sizeof text, v).ptr;
          return std::string(text, end);
        } else if constexpr (std::is_same_v<T, orvane::Decimal>) {
          return quoted(v.toString());
        } else {
          return quoted(v);
        }
      },
      value);
}

}  // namespace

extern "C" char* harness_log_values_json(const orvane_log* log) {
  if (log == nullptr || !log->value) return nullptr;
  std::set<std::string> seen;
  std::string json = "{";
  auto add = [&](const std::string& key, const std::string& value) {
    if (!seen.insert(key).second) return;
    if (json.size() > 1) json += ",";
    json += quoted(key) + ":" + value;
  };
  for (const orvane::Signal& signal : log->value->signals()) {
    add("ctx_" + std::to_string(signal.id().rawValue()), jsonOf(signal.value()));
  }
  const auto addAll = [&](const char* prefix, const orvane::CustomSignalList& signals) {
    for (const orvane::CustomSignal& signal : signals)
      add(prefix + signal.id(), jsonOf(signal.value()));
  };
  addAll("f_", log->value->customSignals());
  addAll("g_", log->value->globalSignals());
  addAll("o_", log->value->outcomeMetadata());
  json += "}";
  char* copy = static_cast<char*>(std::malloc(json.size() + 1));
  if (copy != nullptr) std::memcpy(copy, json.c_str(), json.size() + 1);
  return copy;
}
