#include <gtest/gtest.h>

#include <cmath>

#include "orvane/Revenue.h"
#include "revenue/StoreKitRevenueTracker.h"

namespace orvane {
namespace {

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

TEST(StoreKit1MetadataTest, OneTimePurchaseEndsAtTheRecurrence) {
  StoreKit1Product p;
  p.price = dec("4.99");
  p.priceLocaleCurrencyCode = "EUR";
  // An introductory price without a subscription period is not reported.
  p.introductoryPrice = StoreKit1ProductDiscount{
      Decimal(1), {SubscriptionPeriodUnit::kWeek, 1}, DiscountPaymentMode::kPayUpFront};
  EXPECT_EQ(StoreKitRevenueTracker::extractStoreKit1ProductMetadata(p, kStore),
            (CustomSignalList{
                CustomSignalDecimal("ctx_revenue", dec("4.99")),
                CustomSignalString("ctx_currency", "EUR"),
                CustomSignalString("ctx_revenue_source", "in_app_purchase"),
                CustomSignalBool("ctx_is_family_shareable", false),
                CustomSignalString("ctx_recurrence", "one_time_purchase"),
                CustomSignalBool("ctx_is_sandbox_environment", false),
            }));
}

TEST(StoreKit1MetadataTest, SubscriptionWithFreeTrial) {
  EXPECT_EQ(StoreKitRevenueTracker::extractStoreKit1ProductMetadata(monthlyWithTrial(), kSandbox),
            (CustomSignalList{
                CustomSignalDecimal("ctx_revenue", dec("9.99")),
                CustomSignalString("ctx_currency", "USD"),  // the locale has no currency
                CustomSignalString("ctx_revenue_source", "in_app_purchase"),
                CustomSignalBool("ctx_is_family_shareable", true),
                CustomSignalString("ctx_recurrence", "recurring"),
                CustomSignalString("ctx_recurrence_unit", "monthly"),
                CustomSignalInt("ctx_recurrence_interval", 1),
                CustomSignalDecimal("ctx_intro_offer_price", Decimal(0)),
                CustomSignalString("ctx_intro_offer_period", "daily"),
                CustomSignalInt("ctx_intro_offer_duration", 3),
                CustomSignalString("ctx_intro_offer_payment_mode", "free_trial"),
                CustomSignalBool("ctx_is_sandbox_environment", true),
            }));
}

std::string textOf(const CustomSignalList& list, const std::string& id) {
  for (const CustomSignal& s : list) {
    if (s.id() == id) return std::get<std::string>(s.value());
  }
  return "<absent>";
}

TEST(StoreKit1MetadataTest, RawValuesWeDoNotKnowReadAsUnknown) {
  StoreKit1Product p = monthlyWithTrial();
  p.subscriptionPeriod->unit = static_cast<SubscriptionPeriodUnit>(9);
  p.introductoryPrice->subscriptionPeriod.unit = SubscriptionPeriodUnit::kYear;
  p.introductoryPrice->paymentMode = static_cast<DiscountPaymentMode>(9);
  StoreKit1Transaction t{static_cast<StoreKit1TransactionState>(9), std::nullopt};
  const CustomSignalList list =
      StoreKitRevenueTracker::extractStoreKit1TransactionMetadata(t, p, kStore);
  EXPECT_EQ(textOf(list, "ctx_recurrence_unit"), "unknown");
  EXPECT_EQ(textOf(list, "ctx_intro_offer_period"), "yearly");
  EXPECT_EQ(textOf(list, "ctx_intro_offer_payment_mode"), "unknown");
  EXPECT_EQ(textOf(list, "ctx_transaction_state"), "unknown");
}

TEST(StoreKit1MetadataTest, TransactionWithAndWithoutProduct) {
  const StoreKit1Transaction purchased{StoreKit1TransactionState::kPurchased, Date{1714566896.789}};
  EXPECT_EQ(StoreKitRevenueTracker::extractStoreKit1TransactionMetadata(purchased, std::nullopt,
                                                                        kSandbox),
            (CustomSignalList{
                CustomSignalString("ctx_transaction_state", "purchased"),
                CustomSignalString("ctx_transaction_date", "2024-05-01T12:34:56Z"),
                CustomSignalBool("ctx_is_sandbox_environment", true),
            }));

  // With a product the sandbox flag comes once, from the product's rows, before the state.
  const StoreKit1Transaction deferred{StoreKit1TransactionState::kDeferred, std::nullopt};
  CustomSignalList expected =
      StoreKitRevenueTracker::extractStoreKit1ProductMetadata(monthlyWithTrial(), kSandbox);
  expected.push_back(CustomSignalString("ctx_transaction_state", "deferred"));
  EXPECT_EQ(StoreKitRevenueTracker::extractStoreKit1TransactionMetadata(
                deferred, monthlyWithTrial(), kSandbox),
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
  EXPECT_EQ(StoreKitRevenueTracker::extractStoreKit2ProductMetadata(p, kStore),
            (CustomSignalList{
                CustomSignalDecimal("ctx_revenue", dec("49.99")),
                CustomSignalString("ctx_currency", "GBP"),
                CustomSignalString("ctx_revenue_source", "in_app_purchase"),
                CustomSignalBool("ctx_is_family_shareable", false),
                CustomSignalString("ctx_recurrence", "recurring"),
                CustomSignalString("ctx_recurrence_unit", "yearly"),
                CustomSignalInt("ctx_recurrence_interval", 1),
                CustomSignalDecimal("ctx_intro_offer_price", dec("0.99")),
                CustomSignalString("ctx_intro_offer_period", "weekly"),
                CustomSignalInt("ctx_intro_offer_duration", 2),
                CustomSignalBool("ctx_is_sandbox_environment", false),
            }));

  // Before version 16 the price locale's code, and no "USD" fallback.
  const StoreEnvironment older{false, 15};
  EXPECT_EQ(
      textOf(StoreKitRevenueTracker::extractStoreKit2ProductMetadata(p, older), "ctx_currency"),
      "CHF");
  p.priceLocaleCurrencyCode.reset();
  p.subscription.reset();
  const CustomSignalList oneTime =
      StoreKitRevenueTracker::extractStoreKit2ProductMetadata(p, older);
  EXPECT_EQ(textOf(oneTime, "ctx_currency"), "");
  EXPECT_EQ(oneTime.size(), 6u);
  EXPECT_EQ(textOf(oneTime, "ctx_recurrence"), "one_time_purchase");
}

TEST(InternetDateTimeTest, WholeSecondsInUtc) {
  EXPECT_EQ(formatInternetDateTime(Date{0}), "1970-01-01T00:00:00Z");
  EXPECT_EQ(formatInternetDateTime(Date{-0.25}), "1969-12-31T23:59:59Z");  // floor, not toward 0
  EXPECT_EQ(formatInternetDateTime(Date{951827696.0}), "2000-02-29T12:34:56Z");
  EXPECT_FALSE(formatInternetDateTime(Date{NAN}));
  EXPECT_FALSE(formatInternetDateTime(Date{1e20}));
}

TEST(RevenueEventTest, MetadataAndVocabularies) {
  EXPECT_EQ(RevenueEvent(RevenueSource::kTip, dec("2.5"), Currency::kUsd).metadata(),
            (CustomSignalList{
                CustomSignalDecimal("ctx_revenue", dec("2.5")),
                CustomSignalString("ctx_currency", "USD"),
                CustomSignalString("ctx_revenue_source", "tip"),
            }));
  EXPECT_EQ(
      textOf(RevenueEvent(RevenueSource::kSubscriptionOutsideAppStore, Decimal(12), Currency::kEur)
                 .metadata(),
             "ctx_revenue_source"),
      "subscription_outside_app_store");

  EXPECT_EQ(pushOutcomeFromRawValue(2), PushOutcome::kShouldSkipPushDueToAlreadyShown);
  EXPECT_FALSE(pushOutcomeFromRawValue(3));
  EXPECT_FALSE(pushOutcomeFromRawValue(-1));
}

}  // namespace
}  // namespace orvane
