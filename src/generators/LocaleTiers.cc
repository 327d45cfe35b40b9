// Region lists of the market tiers.
#include "generators/LocaleTiers.h"

#include <iterator>

namespace orvane {
namespace {

// clang-format off
constexpr std::string_view kTier1[] = {
    "CA", "DE", "FR", "GB", "IT", "ES", "NL", "CH", "SE", "BE", "AT", "NO", "DK", "FI", "IE", "LU",
    "JP", "AU", "KR", "SG", "HK", "NZ", "AE", "SA", "QA", "KW", "IS", "MT", "LI", "MC", "SM", "AD",
    "VA"};
constexpr std::string_view kTier2[] = {
    "PL", "CZ", "HU", "RO", "PT", "GR", "SK", "HR", "LT", "LV", "EE", "TH", "MY", "ID", "PH", "VN",
    "TW", "BR", "MX", "AR", "CO", "CL", "CR", "UY", "PA", "ZA", "EG", "NG", "MA", "TR", "IL"};
constexpr std::string_view kTier3[] = {
    "UA", "RS", "BG", "BY", "MD", "AL", "BA", "ME", "MK", "XK", "BD", "PK", "LK", "MM", "KH", "NP",
    "LA", "MV", "BT", "BN", "FJ", "PG", "WS", "TO", "TV", "NR", "PE", "VE", "EC", "BO", "PY", "GT",
    "SV", "HN", "NI", "DO", "BZ", "GY", "SR", "TT", "BB", "AG", "LC", "VC", "GD", "BS", "KY", "KE",
    "GH", "DZ", "TN", "ET", "TZ", "UG", "CI", "SN", "CM", "ZM", "ZW", "MZ", "SD", "BW", "NA", "LS",
    "SZ", "MW", "RW", "BI", "GA", "CG", "CD", "AO", "GQ", "ST", "GW", "GM", "SL", "LR", "MR", "NE",
    "BJ", "TG", "OM", "BH", "JO", "LB", "IQ", "IR", "YE", "SY", "PS", "AF"};
// clang-format on

static_assert(std::size(kTier1) == 33 && std::size(kTier2) == 31 && std::size(kTier3) == 92);

}  // namespace

std::optional<CountryTier> countryTierFromRawValue(int64_t rawValue) {
  if (rawValue < -1 || rawValue > 6) return std::nullopt;
  return static_cast<CountryTier>(rawValue);
}

LocaleTiers::LocaleTiers() {
  tierMapping_.emplace("US", CountryTier::kUnitedStates);
  tierMapping_.emplace("CN", CountryTier::kChina);
  tierMapping_.emplace("IN", CountryTier::kIndia);
  for (auto code : kTier1) tierMapping_.insert_or_assign(std::string(code), CountryTier::kTier1);
  for (auto code : kTier2) tierMapping_.insert_or_assign(std::string(code), CountryTier::kTier2);
  for (auto code : kTier3) tierMapping_.insert_or_assign(std::string(code), CountryTier::kTier3);
}

LocaleTiers& LocaleTiers::shared() {
  static LocaleTiers* tiers = new LocaleTiers();  // never destroyed: read from any thread
  return *tiers;
}

CountryTier LocaleTiers::tier(std::string_view regionCode) const {
  auto it = tierMapping_.find(std::string(regionCode));
  return it == tierMapping_.end() ? CountryTier::kUnknown : it->second;
}

CountryTier LocaleTiers::currentTier(const DeviceService& device) {
  std::call_once(once_, [&] {
    const auto region = device.currentLocale().regionCode;
    cachedTier_ = region ? tier(*region) : CountryTier::kUnknown;
  });
  return cachedTier_;
}

}  // namespace orvane
