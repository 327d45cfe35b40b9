// File: SignalEnum.h
// The closed catalogue of built-in signal ids. The id is a signal's identity on the wire, in
// logs and in model feature names, so ids are never renumbered and gaps are never reused.
#pragma once

#include <algorithm>
#include <array>
#include <compare>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "orvane/Export.h"

namespace orvane {

namespace signal_catalogue {

struct ORVANE_API IdRange {
  uint16_t first;
  uint16_t last;
};

inline constexpr IdRange kRanges[] = {
    {1, 9},     {11, 12},   {14, 21},   {23, 43},   {50, 56},   {59, 64},   {66, 72},
    {80, 83},   {85, 94},   {100, 211}, {215, 224}, {300, 304}, {320, 322}, {370, 370},
    {400, 403}, {405, 432}, {444, 444}, {450, 456}, {501, 503}, {600, 610}, {650, 657},
    {700, 714}, {750, 752}, {800, 806}, {900, 942}, {951, 952}, {955, 956}, {958, 991},
};

inline constexpr size_t kCount = 373;

constexpr std::array<uint16_t, kCount> makeAllIds() {
  std::array<uint16_t, kCount> ids{};
  size_t n = 0;
  for (const auto& range : kRanges) {
    for (uint32_t id = range.first; id <= range.last; ++id) ids[n++] = static_cast<uint16_t>(id);
  }
  return ids;
}

inline constexpr std::array<uint16_t, kCount> kAllIds = makeAllIds();

constexpr bool contains(uint16_t raw) {
  return std::binary_search(kAllIds.begin(), kAllIds.end(), raw);
}

// Called only when a compile-time id is not in the catalogue: not constexpr, so the build fails.
inline void idIsNotInTheCatalogue() {}

}  // namespace signal_catalogue

class ORVANE_API SignalEnum {
 public:
  // A catalogue id known at compile time: SignalEnum::id(191). An id outside the catalogue
  // does not compile.
  static consteval SignalEnum id(uint16_t raw) {
    if (!signal_catalogue::contains(raw)) signal_catalogue::idIsNotInTheCatalogue();
    return SignalEnum(raw);
  }
  // None for a raw value that is not in the catalogue.
  static constexpr std::optional<SignalEnum> fromRawValue(uint16_t raw) {
    if (!signal_catalogue::contains(raw)) return std::nullopt;
    return SignalEnum(raw);
  }
  // Every id, ascending.
  static const std::array<SignalEnum, signal_catalogue::kCount>& allCases();

  constexpr uint16_t rawValue() const { return raw_; }
  // The decimal raw value, e.g. "191".
  std::string description() const { return std::to_string(raw_); }

  constexpr bool operator==(const SignalEnum&) const = default;
  constexpr auto operator<=>(const SignalEnum&) const = default;

 private:
  constexpr explicit SignalEnum(uint16_t raw) : raw_(raw) {}
  uint16_t raw_;
};

}  // namespace orvane

template <>
struct std::hash<orvane::SignalEnum> {
  size_t operator()(orvane::SignalEnum id) const noexcept { return id.rawValue(); }
};
