#include "orvane/Revenue.h"

#include <cctype>

namespace orvane {

std::string_view revenueSourceText(RevenueSource source) {
  switch (source) {
    case RevenueSource::kAdImpression:
      return "ad_impression";
    case RevenueSource::kAdClick:
      return "ad_click";
    case RevenueSource::kAdClickThrough:
      return "ad_click_through";
    case RevenueSource::kAdConversion:
      return "ad_conversion";
    case RevenueSource::kAdEngagement:
      return "ad_engagement";
    case RevenueSource::kPurchaseOutsideAppStore:
      return "purchase_outside_app_store";
    case RevenueSource::kSubscriptionOutsideAppStore:
      return "subscription_outside_app_store";
    case RevenueSource::kAffiliate:
      return "affiliate";
    case RevenueSource::kTip:
      return "tip";
    case RevenueSource::kDonation:
      return "donation";
  }
  return "unknown";
}

CustomSignalList RevenueEvent::metadata() const {
  std::string code(currencyRawValue(currency_));
  for (char& c : code) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return {
      CustomSignalDecimal("ctx_revenue", revenue_),
      CustomSignalString("ctx_currency", std::move(code)),
      CustomSignalString("ctx_revenue_source", std::string(revenueSourceText(source_))),
  };
}

std::optional<PushOutcome> pushOutcomeFromRawValue(int rawValue) {
  if (rawValue < 0 || rawValue > 2) return std::nullopt;
  return static_cast<PushOutcome>(rawValue);
}

}  // namespace orvane
