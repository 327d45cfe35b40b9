#include <gtest/gtest.h>

#include <cmath>

#include "orvane/Revenue.h"
#include "revenue/StoreKitRevenueTracker.h"
#include "testutil/SignalReaders.h"

namespace orvane {
namespace {

using testing::customSignalSummary;
using Tracker = StoreKitRevenueTracker;

Decimal dec(const char* text) { return *Decimal::parse(text); }

const StoreEnvironment kStore{false, 17};
const StoreEnvironment kSandbox{true, 17};

// 9.99 a month after a three-day free trial.
StoreKit1Product monthlyWithTrial() {
  StoreKit1Product p;
  p.price = dec("9.99");
  p.isFamilyShareable = true;
  p.subscriptionPeriod = SubscriptionPeriod{SubscriptionPeriodUnit::kMonth, 1};
  p.introductoryPrice = StoreKit1ProductDiscount{
      Decimal(0), {SubscriptionPeriodUnit::kDay, 3}, DiscountPaymentMode::kFreeTrial};
  return p;
}

std::string textOf(const CustomSignalList& list, const std::string& id) {
  for (const CustomSignal& s : list) {
    if (s.id() == id) return std::get<std::string>(s.value());
  }
  return "<absent>";
}

TEST(StoreKit1MetadataTest, OneTimePurchaseAndSubscriptionWithFreeTrial) {
  StoreKit1Product p;
  p.price = dec("4.99");
  p.priceLocaleCurrencyCode = "EUR";
  // An introductory price without a subscription period is not reported.
  p.introductoryPrice = StoreKit1ProductDiscount{
      Decimal(1), {SubscriptionPeriodUnit::kWeek, 1}, DiscountPaymentMode::kPayUpFront};
  EXPECT_EQ(customSignalSummary(Tracker::extractStoreKit1ProductMetadata(p, kStore)),
            R"(d:ctx_revenue=4.99 s:ctx_currency="EUR" s:ctx_revenue_source="in_app_purchase" )"
            R"(b:ctx_is_family_shareable=false s:ctx_recurrence="one_time_purchase" )"
            R"(b:ctx_is_sandbox_environment=false)");
  // The locale has no currency: USD.
  EXPECT_EQ(
      customSignalSummary(Tracker::extractStoreKit1ProductMetadata(monthlyWithTrial(), kSandbox)),
      R"(d:ctx_revenue=9.99 s:ctx_currency="USD" s:ctx_revenue_source="in_app_purchase" )"
      R"(b:ctx_is_family_shareable=true s:ctx_recurrence="recurring" )"
      R"(s:ctx_recurrence_unit="monthly" i:ctx_recurrence_interval=1 )"
      R"(d:ctx_intro_offer_price=0 s:ctx_intro_offer_period="daily" )"
      R"(i:ctx_intro_offer_duration=3 s:ctx_intro_offer_payment_mode="free_trial" )"
      R"(b:ctx_is_sandbox_environment=true)");
}

TEST(StoreKit1MetadataTest, RawValuesWeDoNotKnowReadAsUnknown) {
  StoreKit1Product p = monthlyWithTrial();
  p.subscriptionPeriod->unit = static_cast<SubscriptionPeriodUnit>(9);
  p.introductoryPrice->subscriptionPeriod.unit = SubscriptionPeriodUnit::kYear;
  p.introductoryPrice->paymentMode = static_cast<DiscountPaymentMode>(9);
  StoreKit1Transaction t{static_cast<StoreKit1TransactionState>(9), std::nullopt};
  const CustomSignalList list = Tracker::extractStoreKit1TransactionMetadata(t, p, kStore);
  EXPECT_EQ(textOf(list, "ctx_recurrence_unit"), "unknown");
  EXPECT_EQ(textOf(list, "ctx_intro_offer_period"), "yearly");
  EXPECT_EQ(textOf(list, "ctx_intro_offer_payment_mode"), "unknown");
  EXPECT_EQ(textOf(list, "ctx_transaction_state"), "unknown");
}

TEST(StoreKit1MetadataTest, TransactionWithAndWithoutProduct) {
  const StoreKit1Transaction purchased{StoreKit1TransactionState::kPurchased, Date{1714566896.789}};
  EXPECT_EQ(customSignalSummary(
                Tracker::extractStoreKit1TransactionMetadata(purchased, std::nullopt, kSandbox)),
            R"(s:ctx_transaction_state="purchased" s:ctx_transaction_date="2024-05-01T12:34:56Z" )"
            R"(b:ctx_is_sandbox_environment=true)");

  // With a product the sandbox flag comes once, from the product's rows, before the state.
  const StoreKit1Transaction deferred{StoreKit1TransactionState::kDeferred, std::nullopt};
  CustomSignalList expected =
      Tracker::extractStoreKit1ProductMetadata(monthlyWithTrial(), kSandbox);
  expected.push_back(CustomSignalString("ctx_transaction_state", "deferred"));
  EXPECT_EQ(Tracker::extractStoreKit1TransactionMetadata(deferred, monthlyWithTrial(), kSandbox),
            expected);
}

TEST(StoreKit2MetadataTest, CurrencyByVersionAndNoPaymentMode) {
  StoreKit2Product p;
  p.price = dec("49.99");
  p.priceFormatCurrencyCode = "GBP";
  p.priceLocaleCurrencyCode = "CHF";
  p.subscription = StoreKit2SubscriptionInfo{
      {SubscriptionPeriodUnit::kYear, 1},
      StoreKit2SubscriptionOffer{dec("0.99"), {SubscriptionPeriodUnit::kWeek, 2}}};
  EXPECT_EQ(customSignalSummary(Tracker::extractStoreKit2ProductMetadata(p, kStore)),
            R"(d:ctx_revenue=49.99 s:ctx_currency="GBP" s:ctx_revenue_source="in_app_purchase" )"
            R"(b:ctx_is_family_shareable=false s:ctx_recurrence="recurring" )"
            R"(s:ctx_recurrence_unit="yearly" i:ctx_recurrence_interval=1 )"
            R"(d:ctx_intro_offer_price=0.99 s:ctx_intro_offer_period="weekly" )"
            R"(i:ctx_intro_offer_duration=2 b:ctx_is_sandbox_environment=false)");

  // Before version 16 the price locale's code, and no "USD" fallback.
  const StoreEnvironment older{false, 15};
  EXPECT_EQ(textOf(Tracker::extractStoreKit2ProductMetadata(p, older), "ctx_currency"), "CHF");
  p.priceLocaleCurrencyCode.reset();
  p.subscription.reset();
  const CustomSignalList oneTime = Tracker::extractStoreKit2ProductMetadata(p, older);
  EXPECT_EQ(textOf(oneTime, "ctx_currency"), "");
  EXPECT_EQ(oneTime.size(), 6u);
  EXPECT_EQ(textOf(oneTime, "ctx_recurrence"), "one_time_purchase");
}

TEST(RevenueEventTest, MetadataDatesAndVocabularies) {
  EXPECT_EQ(
      customSignalSummary(RevenueEvent(RevenueSource::kTip, dec("2.5"), Currency::kUsd).metadata()),
      R"(d:ctx_revenue=2.5 s:ctx_currency="USD" s:ctx_revenue_source="tip")");
  EXPECT_EQ(
      textOf(RevenueEvent(RevenueSource::kSubscriptionOutsideAppStore, Decimal(12), Currency::kEur)
                 .metadata(),
             "ctx_revenue_source"),
      "subscription_outside_app_store");
  EXPECT_EQ(pushOutcomeFromRawValue(2), PushOutcome::kShouldSkipPushDueToAlreadyShown);
  EXPECT_FALSE(pushOutcomeFromRawValue(3) || pushOutcomeFromRawValue(-1));

  // Internet date-time: whole seconds in UTC, floored.
  EXPECT_EQ(formatInternetDateTime(Date{0}), "1970-01-01T00:00:00Z");
  EXPECT_EQ(formatInternetDateTime(Date{-0.25}), "1969-12-31T23:59:59Z");
  EXPECT_EQ(formatInternetDateTime(Date{951827696.0}), "2000-02-29T12:34:56Z");
  EXPECT_FALSE(formatInternetDateTime(Date{NAN}) || formatInternetDateTime(Date{1e20}));
}

TEST(CurrencyTest, RawValuesAreExactLowerCaseCodes) {
  // Every enumerator reads back from its own code; a table out of step with the enumeration
  // (a code inserted, removed or swapped) breaks this for some currency.
  const auto last = static_cast<size_t>(Currency::kZwl);
  for (size_t i = 0; i <= last; ++i) {
    const auto currency = static_cast<Currency>(i);
    const std::string_view code = currencyRawValue(currency);
    SCOPED_TRACE(std::string(code));
    EXPECT_EQ(code.size(), 3u);
    EXPECT_EQ(currencyFromRawValue(code), currency);
  }
  const std::pair<std::string_view, Currency> known[] = {
      {"aed", Currency::kAed}, {"chf", Currency::kChf}, {"eur", Currency::kEur},
      {"gbp", Currency::kGbp}, {"jpy", Currency::kJpy}, {"mru", Currency::kMru},
      {"usd", Currency::kUsd}, {"zwl", Currency::kZwl},
  };
  for (const auto& [code, currency] : known) EXPECT_EQ(currencyFromRawValue(code), currency);

  // Only whole, lower-case codes of the table: no prefix, no neighbour, nothing past the ends.
  const std::string_view unknowns[] = {"",  "USD", "Usd", "us",  "usdd", "usd ",      " usd",
                                       "a", "aaa", "zzz", "zwm", "btc",  {"usd\0", 4}};
  for (std::string_view unknown : unknowns) {
    EXPECT_FALSE(currencyFromRawValue(unknown)) << "\"" << unknown << "\"";
  }
}

}  // namespace
}  // namespace orvane
