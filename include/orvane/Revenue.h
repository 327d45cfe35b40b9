// File: Revenue.h
// Revenue that a host reports with an outcome: purchases from the platform's store, in its
// older object interface (StoreKit 1) and its newer value interface (StoreKit 2), and revenue
// that did not pass through the store (`RevenueEvent`). The store types are plain values a
// mobile bridge fills from the store's objects; enumerators keep the store's raw values, so
// a bridge may cast them, and a raw value we do not know is reported as "unknown".
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "orvane/Currency.h"
#include "orvane/CustomSignal.h"
#include "orvane/Decimal.h"
#include "orvane/Export.h"
#include "orvane/PlistValue.h"

namespace orvane {

// ---- The store's products and transactions ---------------------------------------------

enum class SubscriptionPeriodUnit : int { kDay = 0, kWeek = 1, kMonth = 2, kYear = 3 };

struct ORVANE_API SubscriptionPeriod {
  SubscriptionPeriodUnit unit = SubscriptionPeriodUnit::kMonth;
  int64_t numberOfUnits = 1;  // the newer interface calls it `value`
};

enum class DiscountPaymentMode : int { kPayAsYouGo = 0, kPayUpFront = 1, kFreeTrial = 2 };

// An introductory price of the older interface.
struct ORVANE_API StoreKit1ProductDiscount {
  Decimal price;
  SubscriptionPeriod subscriptionPeriod;
  DiscountPaymentMode paymentMode = DiscountPaymentMode::kPayAsYouGo;
};

// A product of the older interface.
struct ORVANE_API StoreKit1Product {
  Decimal price;
  // Currency code of the price locale; none when the locale has none.
  std::optional<std::string> priceLocaleCurrencyCode;
  bool isFamilyShareable = false;
  // None for a product that does not renew.
  std::optional<SubscriptionPeriod> subscriptionPeriod;
  std::optional<StoreKit1ProductDiscount> introductoryPrice;
};

enum class StoreKit1TransactionState : int {
  kPurchasing = 0,
  kPurchased = 1,
  kFailed = 2,
  kRestored = 3,
  kDeferred = 4,
};

// A payment transaction of the older interface.
struct ORVANE_API StoreKit1Transaction {
  StoreKit1TransactionState transactionState = StoreKit1TransactionState::kPurchasing;
  std::optional<Date> transactionDate;
};

// An introductory offer of the newer interface. Its payment mode is not reported.
struct ORVANE_API StoreKit2SubscriptionOffer {
  Decimal price;
  SubscriptionPeriod period;
};

struct ORVANE_API StoreKit2SubscriptionInfo {
  SubscriptionPeriod subscriptionPeriod;
  std::optional<StoreKit2SubscriptionOffer> introductoryOffer;
};

// A product of the newer interface.
struct ORVANE_API StoreKit2Product {
  Decimal price;
  // Currency code of the price format style; read on system version 16 and later.
  std::string priceFormatCurrencyCode;
  // Currency code of the price locale; read before version 16.
  std::optional<std::string> priceLocaleCurrencyCode;
  bool isFamilyShareable = false;
  // None for a product that does not renew.
  std::optional<StoreKit2SubscriptionInfo> subscription;
};

// ---- Revenue outside the store ---------------------------------------------------------

enum class RevenueSource {
  kAdImpression,
  kAdClick,
  kAdClickThrough,
  kAdConversion,
  kAdEngagement,
  kPurchaseOutsideAppStore,
  kSubscriptionOutsideAppStore,
  kAffiliate,
  kTip,
  kDonation,
};

// "ad_impression" and the like: the text a revenue event sends.
ORVANE_API std::string_view revenueSourceText(RevenueSource source);

class ORVANE_API RevenueEvent {
 public:
  RevenueEvent(RevenueSource source, Decimal revenue, Currency currency)
      : source_(source), revenue_(revenue), currency_(currency) {}

  RevenueSource source() const { return source_; }
  const Decimal& revenue() const { return revenue_; }
  Currency currency() const { return currency_; }
  // "ctx_revenue", "ctx_currency" (upper-case code), "ctx_revenue_source".
  CustomSignalList metadata() const;

  bool operator==(const RevenueEvent&) const = default;

 private:
  RevenueSource source_;
  Decimal revenue_;
  Currency currency_;
};

// Whether a push notification should go out now. Nothing in the SDK consumes it; hosts use
// it to report their own push decisions.
enum class PushOutcome : int {
  kShouldShowPush = 0,
  kShouldSkipPushDueToBadMoment = 1,
  kShouldSkipPushDueToAlreadyShown = 2,
};

// None outside 0...2.
ORVANE_API std::optional<PushOutcome> pushOutcomeFromRawValue(int rawValue);

}  // namespace orvane
