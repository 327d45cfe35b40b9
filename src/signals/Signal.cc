#include "orvane/Signal.h"

#include <charconv>
#include <utility>

#include "orvane/CustomSignal.h"

namespace orvane {

const std::array<SignalEnum, signal_catalogue::kCount>& SignalEnum::allCases() {
  static const auto cases = []<size_t... I>(std::index_sequence<I...>) {
    return std::array<SignalEnum, signal_catalogue::kCount>{
        *SignalEnum::fromRawValue(signal_catalogue::kAllIds[I])...};
  }
  (std::make_index_sequence<signal_catalogue::kCount>());
  return cases;
}

std::string shortestFloatText(float value) {
  char buffer[32];
  auto [ptr, ec] = std::to_chars(buffer, buffer + sizeof buffer, value);
  return ec == std::errc() ? std::string(buffer, ptr) : std::string();
}

namespace {

// The kind name and the value text shared by built-in and custom signals.
struct ValueText {
  const char* kind;
  std::string text;
};

ValueText valueText(const std::variant<bool, int64_t, float, Decimal, std::string>& value) {
  switch (value.index()) {
    case 0:
      return {"Bool", std::get<bool>(value) ? "true" : "false"};
    case 1:
      return {"Int", std::to_string(std::get<int64_t>(value))};
    case 2:
      return {"Float", shortestFloatText(std::get<float>(value))};
    case 3:
      return {"Decimal", std::get<Decimal>(value).toString()};
    default:
      return {"String", "\"" + std::get<std::string>(value) + "\""};
  }
}

}  // namespace

std::string Signal::description() const {
  const ValueText v = valueText(value_);
  return std::string("Signal") + v.kind + "(id: " + id_.description() + ", value: " + v.text + ")";
}

std::string CustomSignal::description() const {
  const ValueText v = valueText(value_);
  return std::string("CustomSignal") + v.kind + "(id: " + id_ + ", value: " + v.text + ")";
}

bool containSameElements(const CustomSignalList& a, const CustomSignalList& b) {
  if (a.size() != b.size()) return false;
  // Every element of each list must have an equal partner in the other. With repeated ids this
  // can call lists equal only when they repeat alike, which is the safe reading.
  auto covered = [](const CustomSignalList& x, const CustomSignalList& y) {
    for (const auto& signal : x) {
      bool found = false;
      for (const auto& other : y) {
        if (signal.id() == other.id()) {
          if (!(signal == other)) return false;
          found = true;
        }
      }
      if (!found) return false;
    }
    return true;
  };
  return covered(a, b) && covered(b, a);
}

}  // namespace orvane
