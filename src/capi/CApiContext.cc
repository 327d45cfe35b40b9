// Contexts and logs behind their C handles: queries, outcomes, revenue and the log's forms.
#include <algorithm>
#include <cctype>
#include <utility>

#include "capi/CApi.h"

namespace orvane::capi {
namespace {

// The handle's context, or none (logged) for a NULL handle.
const std::shared_ptr<Context>* contextOf(const orvane_context* handle, const char* function) {
  if (!present(handle, function, "context")) return nullptr;
  if (!handle->value) return nullptr;
  return &handle->value;
}

const std::shared_ptr<Log>* logOf(const orvane_log* handle, const char* function) {
  if (!present(handle, function, "log")) return nullptr;
  if (!handle->value) return nullptr;
  return &handle->value;
}

template <typename R, typename Read>
R readContext(const orvane_context* handle, const char* function, R neutral, Read&& read) {
  const auto* context = contextOf(handle, function);
  if (context == nullptr) return neutral;
  return guarded(function, neutral, [&] { return read(**context); });
}

// A number with `*hasValue` (when not NULL) saying whether there is one.
template <typename Read>
auto readNumber(const orvane_context* handle, const char* function, bool* hasValue, Read&& read) {
  using Number = decltype(read(std::declval<const Context&>()));
  if (hasValue != nullptr) *hasValue = false;
  const auto* context = contextOf(handle, function);
  if (context == nullptr) return Number{0};
  return guarded(function, Number{0}, [&] {
    const Number value = read(**context);
    if (hasValue != nullptr) *hasValue = true;
    return value;
  });
}

template <typename Act>
void actOnContext(orvane_context* handle, const char* function, Act&& act) {
  const auto* context = contextOf(handle, function);
  if (context == nullptr) return;
  guardedVoid(function, [&] { act(**context); });
}

SubscriptionPeriod period(const orvane_subscription_period& p) {
  return SubscriptionPeriod{static_cast<SubscriptionPeriodUnit>(cValue(p.unit)), p.number_of_units};
}

std::optional<std::string> optionalText(const char* text) {
  return text != nullptr ? std::optional<std::string>(text) : std::nullopt;
}

std::optional<StoreKit1Product> storeKit1Product(const orvane_storekit1_product& p,
                                                 const char* function) {
  auto price = decimal(p.price, function, "product price");
  if (!price) return std::nullopt;
  StoreKit1Product product;
  product.price = *price;
  product.priceLocaleCurrencyCode = optionalText(p.price_locale_currency_code);
  product.isFamilyShareable = p.is_family_shareable;
  if (p.has_subscription_period) product.subscriptionPeriod = period(p.subscription_period);
  if (p.introductory_price != nullptr) {
    auto introductory = decimal(p.introductory_price->price, function, "introductory price");
    if (!introductory) return std::nullopt;
    product.introductoryPrice = StoreKit1ProductDiscount{
        *introductory, period(p.introductory_price->subscription_period),
        static_cast<DiscountPaymentMode>(cValue(p.introductory_price->payment_mode))};
  }
  return product;
}

std::optional<StoreKit2Product> storeKit2Product(const orvane_storekit2_product& p,
                                                 const char* function) {
  auto price = decimal(p.price, function, "product price");
  if (!price) return std::nullopt;
  if (!present(p.price_format_currency_code, function, "price format currency code")) {
    return std::nullopt;
  }
  StoreKit2Product product;
  product.price = *price;
  product.priceFormatCurrencyCode = p.price_format_currency_code;
  product.priceLocaleCurrencyCode = optionalText(p.price_locale_currency_code);
  product.isFamilyShareable = p.is_family_shareable;
  if (p.subscription != nullptr) {
    StoreKit2SubscriptionInfo info;
    info.subscriptionPeriod = period(p.subscription->subscription_period);
    if (const auto* offer = p.subscription->introductory_offer) {
      auto offerPrice = decimal(offer->price, function, "introductory offer price");
      if (!offerPrice) return std::nullopt;
      info.introductoryOffer = StoreKit2SubscriptionOffer{*offerPrice, period(offer->period)};
    }
    product.subscription = info;
  }
  return product;
}

std::optional<RevenueEvent> revenueEvent(const orvane_revenue_event& e, const char* function) {
  const int source = cValue(e.source);
  if (source < ORVANE_REVENUE_AD_IMPRESSION || source > ORVANE_REVENUE_DONATION) {
    logLine(LogLevel::kError, std::string("[Orvane] ") + function + ": revenue source " +
                                  std::to_string(source) + " is unknown; ignored.");
    return std::nullopt;
  }
  auto amount = decimal(e.revenue, function, "revenue");
  if (!amount) return std::nullopt;
  if (!present(e.currency, function, "currency")) return std::nullopt;
  std::string code = e.currency;
  std::transform(code.begin(), code.end(), code.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  const auto currency = currencyFromRawValue(code);
  if (!currency) {
    logLine(LogLevel::kError, std::string("[Orvane] ") + function + ": currency \"" + e.currency +
                                  "\" is unknown; ignored.");
    return std::nullopt;
  }
  return RevenueEvent(static_cast<RevenueSource>(source), *amount, *currency);
}

// The revenue forms share one shape: convert the host's value, check the outcome, log.
template <typename Value, typename Convert, typename LogWith>
void logRevenue(orvane_context* handle, const Value* value, const orvane_event_outcome& rawOutcome,
                const char* function, Convert&& convert, LogWith&& logWith) {
  const auto* context = contextOf(handle, function);
  if (context == nullptr || !present(value, function, "revenue value")) return;
  guardedVoid(function, [&] {
    const auto eventOutcome = outcome(cValue(rawOutcome), function);
    if (!eventOutcome) return;
    const auto converted = convert(*value, function);
    if (!converted) return;
    logWith(**context, *converted, *eventOutcome);
  });
}

std::optional<std::string> textSignal(const Log& log, uint16_t id) {
  for (const Signal& signal : log.signals()) {
    if (signal.id().rawValue() != id) continue;
    if (const auto* text = std::get_if<std::string>(&signal.value())) return *text;
  }
  return std::nullopt;
}

int32_t intSignal(const Log& log, uint16_t id) {
  for (const Signal& signal : log.signals()) {
    if (signal.id().rawValue() != id) continue;
    if (const auto* value = std::get_if<int64_t>(&signal.value())) {
      return static_cast<int32_t>(*value);
    }
  }
  return ORVANE_LOG_NO_VALUE;
}

template <typename Read>
char* readLogText(const orvane_log* handle, const char* function, Read&& read) {
  const auto* log = logOf(handle, function);
  if (log == nullptr) return nullptr;
  return guarded(function, static_cast<char*>(nullptr), [&]() -> char* {
    const std::optional<std::string> text = read(**log);
    return text ? copyString(*text) : nullptr;
  });
}

// A transaction with the product it bought, if the host has it.
struct Purchase {
  StoreKit1Transaction transaction;
  std::optional<StoreKit1Product> product;
};

std::function<std::optional<Purchase>(const orvane_storekit1_transaction&, const char*)> purchaseOf(
    const orvane_storekit1_product* product) {
  return [product](const orvane_storekit1_transaction& t,
                   const char* function) -> std::optional<Purchase> {
    Purchase purchase;
    purchase.transaction.transactionState =
        static_cast<StoreKit1TransactionState>(cValue(t.transaction_state));
    if (t.has_transaction_date) purchase.transaction.transactionDate = Date{t.transaction_date};
    if (product != nullptr) {
      purchase.product = storeKit1Product(*product, function);
      if (!purchase.product) return std::nullopt;
    }
    return purchase;
  };
}

// The record's own signals: the log's id, its context and flow, outcome and kind.
constexpr uint16_t kLogIdSignal = 8;
constexpr uint16_t kContextUUIDSignal = 29;
constexpr uint16_t kFlowNameSignal = 20;
constexpr uint16_t kOutcomeSignal = 3;
constexpr uint16_t kEventTypeSignal = 23;

}  // namespace
// Defined in the namespace for its names; C linkage makes them the functions orvane.h
// declares. GCC does not carry the header's visibility over to a definition in another
// namespace, so each definition repeats ORVANE_API.
extern "C" {

// ---- References ---------------------------------------------------------------------------

ORVANE_API orvane_context* orvane_context_retain(orvane_context* context) {
  if (!present(context, "orvane_context_retain", "context")) return nullptr;
  context->references.fetch_add(1, std::memory_order_relaxed);
  return context;
}

ORVANE_API void orvane_context_release(orvane_context* context) {
  if (context == nullptr) return;
  if (context->references.fetch_sub(1, std::memory_order_acq_rel) == 1) delete context;
}

ORVANE_API orvane_log* orvane_log_retain(orvane_log* log) {
  if (!present(log, "orvane_log_retain", "log")) return nullptr;
  log->references.fetch_add(1, std::memory_order_relaxed);
  return log;
}

ORVANE_API void orvane_log_release(orvane_log* log) {
  if (log == nullptr) return;
  if (log->references.fetch_sub(1, std::memory_order_acq_rel) == 1) delete log;
}

// ---- Queries ------------------------------------------------------------------------------

ORVANE_API bool orvane_context_should_upsell(const orvane_context* context) {
  return readContext(context, "orvane_context_should_upsell", false,
                     [](const Context& c) { return c.shouldUpsell(); });
}

ORVANE_API bool orvane_context_was_forced_upsell(const orvane_context* context) {
  return readContext(context, "orvane_context_was_forced_upsell", false,
                     [](const Context& c) { return c.wasForcedUpsell(); });
}

ORVANE_API double orvane_context_created_at(const orvane_context* context) {
  return readContext(context, "orvane_context_created_at", 0.0,
                     [](const Context& c) { return c.createdAt().secondsSince1970; });
}

ORVANE_API bool orvane_context_already_logged(const orvane_context* context) {
  return readContext(context, "orvane_context_already_logged", false,
                     [](const Context& c) { return c.alreadyLogged(); });
}

ORVANE_API char* orvane_context_flow_name(const orvane_context* context) {
  return readContext(context, "orvane_context_flow_name", static_cast<char*>(nullptr),
                     [](const Context& c) { return copyString(c.flowName()); });
}

ORVANE_API char* orvane_context_uuid(const orvane_context* context) {
  return readContext(context, "orvane_context_uuid", static_cast<char*>(nullptr),
                     [](const Context& c) { return copyString(c.contextUUID()); });
}

ORVANE_API char* orvane_context_validate(const orvane_context* context) {
  return readContext(context, "orvane_context_validate", static_cast<char*>(nullptr),
                     [](const Context& c) { return copyString(c.validate()); });
}

ORVANE_API char* orvane_context_signals_json(const orvane_context* context) {
  return readContext(context, "orvane_context_signals_json", static_cast<char*>(nullptr),
                     [](const Context& c) { return copyString(toJson(c.signals())); });
}

ORVANE_API char* orvane_context_outcome_metadata_json(const orvane_context* context) {
  return readContext(context, "orvane_context_outcome_metadata_json", static_cast<char*>(nullptr),
                     [](const Context& c) { return copyString(toJson(c.outcomeMetadata())); });
}

ORVANE_API int32_t orvane_context_model_result(const orvane_context* context, bool* has_value) {
  return readNumber(context, "orvane_context_model_result", has_value,
                    [](const Context& c) { return static_cast<int32_t>(c.modelResult()); });
}

ORVANE_API double orvane_context_seconds_between_created_and_should_upsell_checked(
    const orvane_context* context, bool* has_value) {
  return readNumber(
      context, "orvane_context_seconds_between_created_and_should_upsell_checked", has_value,
      [](const Context& c) { return c.secondsBetweenCreatedAndShouldUpsellChecked(); });
}

// ---- Outcomes -----------------------------------------------------------------------------

ORVANE_API void orvane_context_log(orvane_context* context, orvane_event_outcome outcome) {
  actOnContext(context, "orvane_context_log", [&](Context& c) {
    if (auto value = capi::outcome(cValue(outcome), "orvane_context_log")) c.log(*value);
  });
}

ORVANE_API void orvane_context_log_if_not_logged_yet(orvane_context* context,
                                                     orvane_event_outcome outcome) {
  actOnContext(context, "orvane_context_log_if_not_logged_yet", [&](Context& c) {
    if (auto value = capi::outcome(cValue(outcome), "orvane_context_log_if_not_logged_yet")) {
      c.logIfNotLoggedYet(*value);
    }
  });
}

ORVANE_API void orvane_context_append_outcome_metadata(orvane_context* context,
                                                       const orvane_custom_signal* metadata,
                                                       size_t metadata_count) {
  constexpr const char* kFunction = "orvane_context_append_outcome_metadata";
  actOnContext(context, kFunction, [&](Context& c) {
    c.appendOutcomeMetadata(customSignals(metadata, metadata_count, kFunction));
  });
}

// ---- Revenue ------------------------------------------------------------------------------

ORVANE_API void orvane_context_log_storekit2_revenue(orvane_context* context,
                                                     const orvane_storekit2_product* product,
                                                     orvane_event_outcome outcome) {
  logRevenue(
      context, product, outcome, "orvane_context_log_storekit2_revenue", storeKit2Product,
      [](Context& c, const StoreKit2Product& p, EventOutcome o) { c.logRevenueOutcome(p, o); });
}

ORVANE_API void orvane_context_log_storekit2_revenue_if_not_logged_yet(
    orvane_context* context, const orvane_storekit2_product* product,
    orvane_event_outcome outcome) {
  logRevenue(context, product, outcome, "orvane_context_log_storekit2_revenue_if_not_logged_yet",
             storeKit2Product, [](Context& c, const StoreKit2Product& p, EventOutcome o) {
               c.logRevenueOutcomeIfNotLoggedYet(p, o);
             });
}

ORVANE_API void orvane_context_log_revenue_event(orvane_context* context,
                                                 const orvane_revenue_event* event,
                                                 orvane_event_outcome outcome) {
  logRevenue(context, event, outcome, "orvane_context_log_revenue_event", revenueEvent,
             [](Context& c, const RevenueEvent& e, EventOutcome o) { c.logRevenueOutcome(e, o); });
}

ORVANE_API void orvane_context_log_revenue_event_if_not_logged_yet(
    orvane_context* context, const orvane_revenue_event* event, orvane_event_outcome outcome) {
  logRevenue(context, event, outcome, "orvane_context_log_revenue_event_if_not_logged_yet",
             revenueEvent, [](Context& c, const RevenueEvent& e, EventOutcome o) {
               c.logRevenueOutcomeIfNotLoggedYet(e, o);
             });
}

ORVANE_API void orvane_context_log_storekit1_product_revenue(
    orvane_context* context, const orvane_storekit1_product* product,
    orvane_event_outcome outcome) {
  logRevenue(context, product, outcome, "orvane_context_log_storekit1_product_revenue",
             storeKit1Product, [](Context& c, const StoreKit1Product& p, EventOutcome o) {
               c.logStoreKit1RevenueOutcome(p, o);
             });
}

ORVANE_API void orvane_context_log_storekit1_product_revenue_if_not_logged_yet(
    orvane_context* context, const orvane_storekit1_product* product,
    orvane_event_outcome outcome) {
  logRevenue(context, product, outcome,
             "orvane_context_log_storekit1_product_revenue_if_not_logged_yet", storeKit1Product,
             [](Context& c, const StoreKit1Product& p, EventOutcome o) {
               c.logStoreKit1RevenueOutcomeIfNotLoggedYet(p, o);
             });
}

ORVANE_API void orvane_context_log_storekit1_transaction_revenue(
    orvane_context* context, const orvane_storekit1_transaction* transaction,
    const orvane_storekit1_product* product, orvane_event_outcome outcome) {
  logRevenue(context, transaction, outcome, "orvane_context_log_storekit1_transaction_revenue",
             purchaseOf(product), [](Context& c, const Purchase& p, EventOutcome o) {
               c.logStoreKit1RevenueOutcome(p.transaction, p.product, o);
             });
}

ORVANE_API void orvane_context_log_storekit1_transaction_revenue_if_not_logged_yet(
    orvane_context* context, const orvane_storekit1_transaction* transaction,
    const orvane_storekit1_product* product, orvane_event_outcome outcome) {
  logRevenue(context, transaction, outcome,
             "orvane_context_log_storekit1_transaction_revenue_if_not_logged_yet",
             purchaseOf(product), [](Context& c, const Purchase& p, EventOutcome o) {
               c.logStoreKit1RevenueOutcomeIfNotLoggedYet(p.transaction, p.product, o);
             });
}

// ---- Logs ---------------------------------------------------------------------------------

ORVANE_API int32_t orvane_log_outcome(const orvane_log* log) {
  const auto* record = logOf(log, "orvane_log_outcome");
  if (record == nullptr) return ORVANE_LOG_NO_VALUE;
  return guarded("orvane_log_outcome", static_cast<int32_t>(ORVANE_LOG_NO_VALUE),
                 [&] { return intSignal(**record, kOutcomeSignal); });
}

ORVANE_API int32_t orvane_log_event_type(const orvane_log* log) {
  const auto* record = logOf(log, "orvane_log_event_type");
  if (record == nullptr) return ORVANE_LOG_NO_VALUE;
  return guarded("orvane_log_event_type", static_cast<int32_t>(ORVANE_LOG_NO_VALUE),
                 [&] { return intSignal(**record, kEventTypeSignal); });
}

ORVANE_API char* orvane_log_id(const orvane_log* log) {
  return readLogText(log, "orvane_log_id",
                     [](const Log& l) { return textSignal(l, kLogIdSignal); });
}

ORVANE_API char* orvane_log_context_uuid(const orvane_log* log) {
  return readLogText(log, "orvane_log_context_uuid",
                     [](const Log& l) { return textSignal(l, kContextUUIDSignal); });
}

ORVANE_API char* orvane_log_flow_name(const orvane_log* log) {
  return readLogText(log, "orvane_log_flow_name",
                     [](const Log& l) { return textSignal(l, kFlowNameSignal); });
}

ORVANE_API char* orvane_log_json(const orvane_log* log) {
  return readLogText(log, "orvane_log_json",
                     [](const Log& l) { return std::optional<std::string>(l.toJSONString()); });
}

ORVANE_API char* orvane_log_base64(const orvane_log* log) {
  return readLogText(log, "orvane_log_base64",
                     [](const Log& l) { return std::optional<std::string>(l.toBase64()); });
}

ORVANE_API char* orvane_log_signals_json(const orvane_log* log) {
  return readLogText(log, "orvane_log_signals_json",
                     [](const Log& l) { return std::optional(toJson(l.signals())); });
}

ORVANE_API char* orvane_log_custom_signals_json(const orvane_log* log) {
  return readLogText(log, "orvane_log_custom_signals_json",
                     [](const Log& l) { return std::optional(toJson(l.customSignals())); });
}

ORVANE_API char* orvane_log_global_signals_json(const orvane_log* log) {
  return readLogText(log, "orvane_log_global_signals_json",
                     [](const Log& l) { return std::optional(toJson(l.globalSignals())); });
}

ORVANE_API char* orvane_log_outcome_metadata_json(const orvane_log* log) {
  return readLogText(log, "orvane_log_outcome_metadata_json",
                     [](const Log& l) { return std::optional(toJson(l.outcomeMetadata())); });
}

ORVANE_API void orvane_log_send(orvane_log* log) {
  const auto* record = logOf(log, "orvane_log_send");
  if (record == nullptr) return;
  guardedVoid("orvane_log_send", [&] { (*record)->send(); });
}

}  // extern "C"

}  // namespace orvane::capi
