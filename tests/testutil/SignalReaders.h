// File: SignalReaders.h
// Reading signal lists in assertions.
#pragma once

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "orvane/CustomSignal.h"
#include "orvane/Signal.h"

namespace orvane::testing {

inline const Signal* findSignal(const SignalList& signals, uint16_t id) {
  auto it = std::find_if(signals.begin(), signals.end(),
                         [&](const Signal& s) { return s.id().rawValue() == id; });
  return it == signals.end() ? nullptr : &*it;
}

// The value of the first signal with `id`; none when absent or of another kind.
template <typename T>
std::optional<T> signalValue(const SignalList& signals, uint16_t id) {
  const Signal* s = findSignal(signals, id);
  const T* v = s ? std::get_if<T>(&s->value()) : nullptr;
  return v ? std::optional<T>(*v) : std::nullopt;
}

inline std::optional<int64_t> intSignal(const SignalList& signals, uint16_t id) {
  return signalValue<int64_t>(signals, id);
}

inline size_t signalCount(const SignalList& signals, uint16_t id) {
  return static_cast<size_t>(std::count_if(
      signals.begin(), signals.end(), [&](const Signal& s) { return s.id().rawValue() == id; }));
}

inline std::vector<uint16_t> signalIds(const SignalList& signals) {
  std::vector<uint16_t> ids;
  for (const Signal& s : signals) ids.push_back(s.id().rawValue());
  return ids;
}

// Signals as their descriptions: a mismatch shows which id or value differs, and a NaN
// feature still compares equal.
inline std::vector<std::string> signalTexts(const SignalList& signals) {
  std::vector<std::string> out;
  for (const Signal& s : signals) out.push_back(s.description());
  return out;
}

// The whole list on one line, "i25=3 b12=true f9=1.5 s20=\"home\"": each signal's kind initial,
// id and value as the signal prints it.
inline std::string signalSummary(const SignalList& signals) {
  std::string out;
  for (const Signal& s : signals) {
    const std::string d = s.description();  // "SignalInt(id: 25, value: 3)"
    const size_t value = d.find("value: ") + 7;
    if (!out.empty()) out += ' ';
    out += static_cast<char>(d[6] - 'A' + 'a') + std::to_string(s.id().rawValue()) + "=" +
           d.substr(value, d.size() - value - 1);
  }
  return out;
}

// Custom signals the same way, "d:ctx_revenue=4.99 s:ctx_currency=\"EUR\"".
inline std::string customSignalSummary(const CustomSignalList& signals) {
  std::string out;
  for (const CustomSignal& s : signals) {
    const std::string d = s.description();  // "CustomSignalInt(id: n, value: -4)"
    const size_t value = d.find(", value: ") + 9;
    if (!out.empty()) out += ' ';
    out += std::string(1, static_cast<char>(d[12] - 'A' + 'a')) + ":" + s.id() + "=" +
           d.substr(value, d.size() - value - 1);
  }
  return out;
}

}  // namespace orvane::testing
