// File: LocaleTiers.h
// The device's region as a coarse market group, reported with the static signals.
#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "orvane/platform/DeviceService.h"

namespace orvane {

enum class CountryTier : int {
  kUnknown = -1,
  kTier0 = 0,  // never assigned by the mapping
  kTier1 = 1,
  kTier2 = 2,
  kTier3 = 3,
  kUnitedStates = 4,
  kChina = 5,
  kIndia = 6,
};

// None outside -1...6.
std::optional<CountryTier> countryTierFromRawValue(int64_t rawValue);

class LocaleTiers {
 public:
  LocaleTiers();
  static LocaleTiers& shared();

  // The tier of an upper-case region code; unknown for a region in no list.
  CountryTier tier(std::string_view regionCode) const;
  // The tier of the device's region, decided on the first call: a change of region while the
  // app runs is not seen.
  CountryTier currentTier(const DeviceService& device);

 private:
  std::unordered_map<std::string, CountryTier> tierMapping_;
  std::once_flag once_;
  CountryTier cachedTier_ = CountryTier::kUnknown;
};

}  // namespace orvane
