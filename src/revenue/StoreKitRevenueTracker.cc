#include "revenue/StoreKitRevenueTracker.h"

#include <chrono>
#include <cmath>
#include <cstdio>

#include "generators/AppInstallationEnvironmentHelper.h"
#include "orvane/platform/Platform.h"

namespace orvane {
namespace {

const char* unitText(SubscriptionPeriodUnit unit) {
  switch (unit) {
    case SubscriptionPeriodUnit::kDay:
      return "daily";
    case SubscriptionPeriodUnit::kWeek:
      return "weekly";
    case SubscriptionPeriodUnit::kMonth:
      return "monthly";
    case SubscriptionPeriodUnit::kYear:
      return "yearly";
  }
  return "unknown";
}

const char* paymentModeText(DiscountPaymentMode mode) {
  switch (mode) {
    case DiscountPaymentMode::kPayAsYouGo:
      return "pay_as_you_go";
    case DiscountPaymentMode::kPayUpFront:
      return "pay_up_front";
    case DiscountPaymentMode::kFreeTrial:
      return "free_trial";
  }
  return "unknown";
}

const char* transactionStateText(StoreKit1TransactionState state) {
  switch (state) {
    case StoreKit1TransactionState::kPurchasing:
      return "purchasing";
    case StoreKit1TransactionState::kPurchased:
      return "purchased";
    case StoreKit1TransactionState::kFailed:
      return "failed";
    case StoreKit1TransactionState::kRestored:
      return "restored";
    case StoreKit1TransactionState::kDeferred:
      return "deferred";
  }
  return "unknown";
}

// The rows both interfaces share up to the recurrence.
void appendPurchase(CustomSignalList& out, const Decimal& price, std::string currency,
                    bool familyShareable) {
  out.push_back(CustomSignalDecimal("ctx_revenue", price));
  out.push_back(CustomSignalString("ctx_currency", std::move(currency)));
  out.push_back(CustomSignalString("ctx_revenue_source", "in_app_purchase"));
  out.push_back(CustomSignalBool("ctx_is_family_shareable", familyShareable));
}

void appendRecurrence(CustomSignalList& out, const std::optional<SubscriptionPeriod>& period) {
  if (!period) {
    out.push_back(CustomSignalString("ctx_recurrence", "one_time_purchase"));
    return;
  }
  out.push_back(CustomSignalString("ctx_recurrence", "recurring"));
  out.push_back(CustomSignalString("ctx_recurrence_unit", unitText(period->unit)));
  out.push_back(CustomSignalInt("ctx_recurrence_interval", period->numberOfUnits));
}

void appendIntroOffer(CustomSignalList& out, const Decimal& price,
                      const SubscriptionPeriod& period) {
  out.push_back(CustomSignalDecimal("ctx_intro_offer_price", price));
  out.push_back(CustomSignalString("ctx_intro_offer_period", unitText(period.unit)));
  out.push_back(CustomSignalInt("ctx_intro_offer_duration", period.numberOfUnits));
}

CustomSignal sandboxFlag(const StoreEnvironment& environment) {
  return CustomSignalBool("ctx_is_sandbox_environment", environment.isSandboxReceipt);
}

int majorVersion(const std::optional<std::string>& version) {
  int major = 0;
  if (!version) return 0;
  for (char c : *version) {
    if (c < '0' || c > '9' || major > 100000) break;
    major = major * 10 + (c - '0');
  }
  return major;
}

}  // namespace

StoreEnvironment StoreEnvironment::of(const Platform& platform) {
  StoreEnvironment environment;
  environment.isSandboxReceipt =
      AppInstallationEnvironmentHelper::isAppStoreReceiptSandbox(platform.bundle);
  if (platform.device)
    environment.systemMajorVersion = majorVersion(platform.device->systemVersion());
  return environment;
}

CustomSignalList StoreKitRevenueTracker::extractStoreKit1ProductMetadata(
    const StoreKit1Product& product, const StoreEnvironment& environment) {
  CustomSignalList out;
  appendPurchase(out, product.price, product.priceLocaleCurrencyCode.value_or("USD"),
                 product.isFamilyShareable);
  appendRecurrence(out, product.subscriptionPeriod);
  // An introductory price only counts for a subscription: a one-time purchase ends its rows
  // at the recurrence.
  if (product.subscriptionPeriod && product.introductoryPrice) {
    const StoreKit1ProductDiscount& intro = *product.introductoryPrice;
    appendIntroOffer(out, intro.price, intro.subscriptionPeriod);
    out.push_back(
        CustomSignalString("ctx_intro_offer_payment_mode", paymentModeText(intro.paymentMode)));
  }
  out.push_back(sandboxFlag(environment));
  return out;
}

CustomSignalList StoreKitRevenueTracker::extractStoreKit2ProductMetadata(
    const StoreKit2Product& product, const StoreEnvironment& environment) {
  CustomSignalList out;
  std::string currency = environment.systemMajorVersion >= 16
                             ? product.priceFormatCurrencyCode
                             : product.priceLocaleCurrencyCode.value_or("");
  appendPurchase(out, product.price, std::move(currency), product.isFamilyShareable);
  std::optional<SubscriptionPeriod> period;
  if (product.subscription) period = product.subscription->subscriptionPeriod;
  appendRecurrence(out, period);
  if (product.subscription && product.subscription->introductoryOffer) {
    const StoreKit2SubscriptionOffer& intro = *product.subscription->introductoryOffer;
    appendIntroOffer(out, intro.price, intro.period);
  }
  out.push_back(sandboxFlag(environment));
  return out;
}

CustomSignalList StoreKitRevenueTracker::extractStoreKit1TransactionMetadata(
    const StoreKit1Transaction& transaction, const std::optional<StoreKit1Product>& product,
    const StoreEnvironment& environment) {
  CustomSignalList out;
  if (product) out = extractStoreKit1ProductMetadata(*product, environment);
  out.push_back(CustomSignalString("ctx_transaction_state",
                                   transactionStateText(transaction.transactionState)));
  if (transaction.transactionDate) {
    if (auto text = formatInternetDateTime(*transaction.transactionDate)) {
      out.push_back(CustomSignalString("ctx_transaction_date", std::move(*text)));
    }
  }
  if (!product) out.push_back(sandboxFlag(environment));
  return out;
}

std::optional<std::string> formatInternetDateTime(Date date) {
  using namespace std::chrono;
  const double seconds = std::floor(date.secondsSince1970);
  // Years 1...9999: the range four year digits can hold.
  constexpr double kFirst = -62135596800.0;  // 0001-01-01T00:00:00Z
  constexpr double kEnd = 253402300800.0;    // 10000-01-01T00:00:00Z
  if (!(seconds >= kFirst && seconds < kEnd)) return std::nullopt;
  const sys_seconds instant{std::chrono::seconds(static_cast<int64_t>(seconds))};
  const sys_days day = floor<days>(instant);
  const year_month_day ymd{day};
  const hh_mm_ss<std::chrono::seconds> time{instant - day};
  char text[32];
  std::snprintf(text, sizeof text, "%04d-%02u-%02uT%02d:%02d:%02dZ", static_cast<int>(ymd.year()),
                static_cast<unsigned>(ymd.month()), static_cast<unsigned>(ymd.day()),
                static_cast<int>(time.hours().count()), static_cast<int>(time.minutes().count()),
                static_cast<int>(time.seconds().count()));
  return std::string(text);
}

}  // namespace orvane
