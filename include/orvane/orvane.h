/* File: orvane.h
 * The SDK's C interface, for bridges that can only call C (Swift, Kotlin through JNI, Python
 * through ctypes). It covers the public C++ API of ContextManager.h and Context.h and lets the
 * host drive the platform services a phone provides (lifecycle, motion, device facts, network,
 * notification settings, the main thread).
 *
 * Conventions:
 * - Every function is safe to call from any thread, never throws and never aborts. A NULL
 *   handle or string where one is needed makes the call a no-op that logs a line, or returns
 *   the neutral value its comment names.
 * - Handles (orvane_context, orvane_log) are reference counted. A handle a function returns
 *   belongs to the caller (release it once); a handle passed to a callback is borrowed for the
 *   call (retain it to keep it).
 * - Strings passed in are UTF-8 and copied before the call returns. Strings returned belong to
 *   the caller, who frees them with orvane_string_free, unless the comment says they are
 *   static.
 * - Callbacks with a context or a log run on the main queue: the SDK's own main thread, or the
 *   host's main thread when it chose orvane_use_main_dispatcher. Where a function also takes a
 *   `release_user_data`, that function (when not NULL) is called exactly once, on any thread,
 *   when the SDK lets go of the callback: after it ran, or once it was dropped (cancelled,
 *   replaced, unregistered) without running.
 * - The first call that needs the SDK's shared manager creates it: every call except
 *   orvane_sdk_version, orvane_string_free, orvane_configuration_init, the set-up choices
 *   (orvane_use_*), the orvane_main_* calls, calls on handles, and calls refused for a NULL
 *   argument. The set-up choices must come before it. */
#ifndef ORVANE_ORVANE_H
#define ORVANE_ORVANE_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#include "Export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ==== Values ============================================================================ */

/* One decision and the record of what the user then did. */
typedef struct orvane_context orvane_context;
/* The record a finished log carries to the log sender. */
typedef struct orvane_log orvane_log;
/* One piece of work for the host's main thread (see orvane_use_main_dispatcher). */
typedef struct orvane_main_job orvane_main_job;

/* Every enumeration ends in a _MAX_ENUM member: it keeps the type 32 bits wide on every compiler
 * and makes any 32-bit value a valid one, so an unknown value from a newer or careless caller is
 * refused with a log line instead of being undefined behaviour. */

/* What the user did after the decision. */
typedef enum orvane_event_outcome {
  ORVANE_OUTCOME_POSITIVE_AD_TAPPED = 4,
  ORVANE_OUTCOME_POSITIVE_CONVERTED = 3,
  ORVANE_OUTCOME_POSITIVE_INTERACTED = 2,
  ORVANE_OUTCOME_POSITIVE = 1,
  ORVANE_OUTCOME_SKIPPED = 0,
  ORVANE_OUTCOME_NEGATIVE = -1,
  ORVANE_OUTCOME_NEGATIVE_NOT_INTERACTED = -2,
  ORVANE_OUTCOME_NEGATIVE_DISMISSED = -3,
  ORVANE_EVENT_OUTCOME_MAX_ENUM = 0x7FFFFFFF
} orvane_event_outcome;

/* The user's choice about collection (orvane_set_consent). */
typedef enum orvane_consent_state {
  ORVANE_CONSENT_UNKNOWN = 0,
  ORVANE_CONSENT_GRANTED = 1,
  ORVANE_CONSENT_DENIED = 2,
  ORVANE_CONSENT_STATE_MAX_ENUM = 0x7FFFFFFF
} orvane_consent_state;

/* How much the SDK writes to its log (ContextManager::setLogLevel). */
typedef enum orvane_sdk_log_level {
  ORVANE_SDK_LOG_ERROR = 0,
  ORVANE_SDK_LOG_WARNING = 1, /* the default */
  ORVANE_SDK_LOG_INFO = 2,
  ORVANE_SDK_LOG_DEBUG = 3,
  ORVANE_SDK_LOG_LEVEL_MAX_ENUM = 0x7FFFFFFF
} orvane_sdk_log_level;

/* A fact the host supplies under an id of its own. Decimals are text ("4.99", "-0.25"), so
 * that they stay exact. Strings are copied. */
typedef enum orvane_custom_signal_type {
  ORVANE_CUSTOM_SIGNAL_BOOL = 0,
  ORVANE_CUSTOM_SIGNAL_INT = 1,
  ORVANE_CUSTOM_SIGNAL_FLOAT = 2,
  ORVANE_CUSTOM_SIGNAL_DECIMAL = 3,
  ORVANE_CUSTOM_SIGNAL_STRING = 4,
  ORVANE_CUSTOM_SIGNAL_TYPE_MAX_ENUM = 0x7FFFFFFF
} orvane_custom_signal_type;

typedef struct orvane_custom_signal {
  const char* id;
  orvane_custom_signal_type type;
  union {
    bool bool_value;
    int64_t int_value;
    float float_value;
    const char* decimal_text;
    const char* string_value;
  } value;
} orvane_custom_signal;
/* Lists of custom signals are passed as (pointer, count); NULL with count 0 is the empty list.
 * An entry with a NULL id, an unknown type, a NULL text or a decimal that does not parse is
 * left out (and logged); the rest of the list is used. */

/* The options of setup. Fill with orvane_configuration_init, then change what differs. */
typedef struct orvane_configuration {
  bool enable_touch_behaviour_monitoring;
  bool enable_session_duration_monitoring;
  bool enable_screenshot_monitoring;
  bool enable_automatic_app_start_and_end_tracking;
  bool enable_automatic_app_launch_behaviour_logging;
  bool enable_error_reporting;
  bool enable_instant_context;
  /* The A/B test used until the service sends one; used when both are not NULL. */
  const char* default_ab_test_name;
  const char* default_ab_cohort_name;
  /* Collect only once the user granted consent (orvane_set_consent). */
  bool require_consent;
} orvane_configuration;

/* How a flow is decided today (orvane_get_custom_model). */
typedef struct orvane_model_information {
  bool is_control;
  char* model_version; /* owned by the caller: orvane_string_free */
  int64_t supported_duration;
  bool use_instant_context;
  double random_upsell_chance;
  bool has_upsell_threshold;
  double upsell_threshold;
} orvane_model_information;

/* ---- Revenue: plain values a bridge fills from the store's objects ---------------------- */
/* Prices and amounts are decimal text ("4.99"); enumerations keep the store's raw values.
 * Optional parts are NULL pointers or have a has_ flag. */

typedef enum orvane_subscription_period_unit {
  ORVANE_PERIOD_DAY = 0,
  ORVANE_PERIOD_WEEK = 1,
  ORVANE_PERIOD_MONTH = 2,
  ORVANE_PERIOD_YEAR = 3,
  ORVANE_SUBSCRIPTION_PERIOD_UNIT_MAX_ENUM = 0x7FFFFFFF
} orvane_subscription_period_unit;

typedef struct orvane_subscription_period {
  orvane_subscription_period_unit unit;
  int64_t number_of_units;
} orvane_subscription_period;

typedef enum orvane_discount_payment_mode {
  ORVANE_PAYMENT_PAY_AS_YOU_GO = 0,
  ORVANE_PAYMENT_PAY_UP_FRONT = 1,
  ORVANE_PAYMENT_FREE_TRIAL = 2,
  ORVANE_DISCOUNT_PAYMENT_MODE_MAX_ENUM = 0x7FFFFFFF
} orvane_discount_payment_mode;

/* An introductory price of the older store interface. */
typedef struct orvane_storekit1_product_discount {
  const char* price;
  orvane_subscription_period subscription_period;
  orvane_discount_payment_mode payment_mode;
} orvane_storekit1_product_discount;

/* A product of the older store interface. */
typedef struct orvane_storekit1_product {
  const char* price;
  const char* price_locale_currency_code; /* NULL: the price locale has none */
  bool is_family_shareable;
  bool has_subscription_period; /* false for a product that does not renew */
  orvane_subscription_period subscription_period;
  const orvane_storekit1_product_discount* introductory_price; /* NULL: none */
} orvane_storekit1_product;

typedef enum orvane_storekit1_transaction_state {
  ORVANE_TRANSACTION_PURCHASING = 0,
  ORVANE_TRANSACTION_PURCHASED = 1,
  ORVANE_TRANSACTION_FAILED = 2,
  ORVANE_TRANSACTION_RESTORED = 3,
  ORVANE_TRANSACTION_DEFERRED = 4,
  ORVANE_STOREKIT1_TRANSACTION_STATE_MAX_ENUM = 0x7FFFFFFF
} orvane_storekit1_transaction_state;

/* A payment transaction of the older store interface. */
typedef struct orvane_storekit1_transaction {
  orvane_storekit1_transaction_state transaction_state;
  bool has_transaction_date;
  double transaction_date; /* seconds since 1970 */
} orvane_storekit1_transaction;

/* An introductory offer of the newer store interface. */
typedef struct orvane_storekit2_subscription_offer {
  const char* price;
  orvane_subscription_period period;
} orvane_storekit2_subscription_offer;

typedef struct orvane_storekit2_subscription_info {
  orvane_subscription_period subscription_period;
  const orvane_storekit2_subscription_offer* introductory_offer; /* NULL: none */
} orvane_storekit2_subscription_info;

/* A product of the newer store interface. */
typedef struct orvane_storekit2_product {
  const char* price;
  const char* price_format_currency_code; /* read on system version 16 and later */
  const char* price_locale_currency_code; /* read before version 16; NULL: none */
  bool is_family_shareable;
  const orvane_storekit2_subscription_info* subscription; /* NULL: does not renew */
} orvane_storekit2_product;

typedef enum orvane_revenue_source {
  ORVANE_REVENUE_AD_IMPRESSION = 0,
  ORVANE_REVENUE_AD_CLICK = 1,
  ORVANE_REVENUE_AD_CLICK_THROUGH = 2,
  ORVANE_REVENUE_AD_CONVERSION = 3,
  ORVANE_REVENUE_AD_ENGAGEMENT = 4,
  ORVANE_REVENUE_PURCHASE_OUTSIDE_APP_STORE = 5,
  ORVANE_REVENUE_SUBSCRIPTION_OUTSIDE_APP_STORE = 6,
  ORVANE_REVENUE_AFFILIATE = 7,
  ORVANE_REVENUE_TIP = 8,
  ORVANE_REVENUE_DONATION = 9,
  ORVANE_REVENUE_SOURCE_MAX_ENUM = 0x7FFFFFFF
} orvane_revenue_source;

/* Revenue that did not pass through the store. `currency` is an ISO 4217 code in any case
 * ("usd", "EUR"). */
typedef struct orvane_revenue_event {
  orvane_revenue_source source;
  const char* revenue;
  const char* currency;
} orvane_revenue_event;

/* ---- Callbacks -------------------------------------------------------------------------- */

typedef void (*orvane_context_fn)(orvane_context* context, void* user_data);
typedef void (*orvane_log_sender_fn)(orvane_log* log, void* user_data);
typedef void (*orvane_release_fn)(void* user_data);

/* ==== Version and memory ================================================================= */

/* The SDK version, "<major>.<minor>.<patch>" (ORVANE_VERSION_STRING of orvane/Version.h).
 * Static; never free it. */
ORVANE_API const char* orvane_sdk_version(void);

/* Frees a string the SDK returned. NULL is ignored. */
ORVANE_API void orvane_string_free(char* string);

/* ==== Setup ============================================================================== */

/* All options at their defaults (every switch on, no A/B test). NULL is ignored. */
ORVANE_API void orvane_configuration_init(orvane_configuration* configuration);

/* Sets the SDK up with the app's license key; call it as early after app start as possible.
 * A NULL `configuration` means the defaults. Returns true, or false (and does nothing) for a
 * NULL key. */
ORVANE_API bool orvane_setup(const char* license_key, const orvane_configuration* configuration);

/* As orvane_setup; finished logs then go to `log_sender` (on the main queue) instead of the
 * upload queue. A NULL `log_sender` keeps the upload queue. */
ORVANE_API bool orvane_setup_with_log_sender(const char* license_key,
                                             const orvane_configuration* configuration,
                                             orvane_log_sender_fn log_sender, void* user_data,
                                             orvane_release_fn release_user_data);

/* As orvane_setup, from the app's launch: `launch_options_json` is a JSON object keyed by
 * "url", "sourceApplication", "remoteNotification", "location", "bluetoothCentrals",
 * "bluetoothPeripherals", "cloudKitShareMetadata", "shortcutItem", "userActivity" (values of
 * any JSON type); NULL means the app was not launched with options. False (and nothing done)
 * for a NULL key or options that are not a JSON object. */
ORVANE_API bool orvane_application_did_finish_launching(const char* launch_options_json,
                                                        const char* license_key,
                                                        const orvane_configuration* configuration);

/* Replaces where finished logs go. NULL restores the default, the upload queue. */
ORVANE_API void orvane_set_log_sender(orvane_log_sender_fn log_sender, void* user_data,
                                      orvane_release_fn release_user_data);

/* Where uploads and error reports go: scheme and host, "https://api.example.com". */
ORVANE_API void orvane_set_service_base_url(const char* base_url);

/* With decisions disabled every flow behaves as a control flow. */
ORVANE_API void orvane_set_decisions_enabled(bool enabled);
/* Control mode is decisions disabled. */
ORVANE_API void orvane_set_control_mode(bool enabled);

/* The generation id of the model set in use: the service's id, "ota-<version>", or
 * "calibration" before any update. Caller-owned. */
ORVANE_API char* orvane_current_applied_custom_model_version(void);

/* Diagnostics for a support screen, as JSON text the caller frees with orvane_string_free:
 * {"installationID", "appLaunches", "appliedModelGeneration", "appliedUpdateVersion",
 *  "queuedRecords", "queuedLogIds", "unansweredContexts", "unansweredLogIds",
 *  "uploadBackoffSeconds", "recordsWaitingInMemory", "uploadInFlight"}. NULL only when the
 *  SDK cannot run at all. */
ORVANE_API char* orvane_diagnostics_json(void);

/* Uploads what waits now, without waiting out the back-off after a failure, and waits at most
 * `timeout_seconds` for it. True when no outcome record is left waiting. Blocks the calling
 * thread: never call it from an SDK callback. */
ORVANE_API bool orvane_flush(double timeout_seconds);

/* Records the user's choice, kept across launches. While collection is not allowed
 * (ORVANE_CONSENT_DENIED, or ORVANE_CONSENT_UNKNOWN with require_consent) decisions are still
 * made on the device, but nothing is stored or sent; denying or revoking deletes the queued
 * records. A value outside the enumeration is refused with a log line. */
ORVANE_API void orvane_set_consent(orvane_consent_state state);
ORVANE_API orvane_consent_state orvane_consent(void);
/* Deletes queued records, history, timing state, stored configuration, models and the
 * installation identity; the next start is a new installation. The consent choice stays. */
ORVANE_API void orvane_reset_all_data(void);
/* Flushes (at most `timeout_seconds`), stops sampling and timers; every later call does
 * nothing but log. Returns what the flush returned. */
ORVANE_API bool orvane_shutdown(double timeout_seconds);

/* Sets how much the SDK logs, for the whole process, at once. A value outside the enumeration
 * is refused with a log line. */
ORVANE_API void orvane_set_log_level(orvane_sdk_log_level level);

/* Fills `information` with how `flow_name` is decided today and returns true; false (and
 * `information` zeroed) when the flow has neither a model nor a control assignment (it then
 * always upsells) or an argument is NULL. Free `information->model_version` with
 * orvane_string_free. */
ORVANE_API bool orvane_get_custom_model(const char* flow_name,
                                        orvane_model_information* information);

/* ==== Global custom signals: added to every later log ==================================== */

/* Setting an id that is already present replaces its value in place. */
ORVANE_API void orvane_set_global_custom_signal_bool(const char* id, bool value);
ORVANE_API void orvane_set_global_custom_signal_int(const char* id, int64_t value);
ORVANE_API void orvane_set_global_custom_signal_float(const char* id, float value);
/* Stored as a float, as the C++ form does. */
ORVANE_API void orvane_set_global_custom_signal_double(const char* id, double value);
/* `decimal_text` such as "4.99"; text that does not parse is logged and ignored. */
ORVANE_API void orvane_set_global_custom_signal_decimal(const char* id, const char* decimal_text);
/* A NULL value removes every global custom signal with that id. */
ORVANE_API void orvane_set_global_custom_signal_string(const char* id, const char* value);
/* Removes every global custom signal with that id. */
ORVANE_API void orvane_remove_global_custom_signal(const char* id);

/* ==== Requests for a decision ============================================================ */
/* Callbacks receive a borrowed context (retain it to keep it) and run once, on the main
 * queue. A NULL callback makes the request without being told the answer. */

/* Waits until `duration` seconds of motion data exist, then calls back. */
ORVANE_API void orvane_fetch_context(const char* flow_name, int64_t duration,
                                     const orvane_custom_signal* signals, size_t signal_count,
                                     orvane_context_fn callback, void* user_data,
                                     orvane_release_fn release_user_data);

/* Decides at once on the caller's thread, with whatever motion data there is. Caller-owned
 * (orvane_context_release); NULL for a NULL flow name. */
ORVANE_API orvane_context* orvane_instant_context(const char* flow_name, int64_t duration,
                                                  const orvane_custom_signal* signals,
                                                  size_t signal_count);

/* Waits at most `max_delay` seconds; a negative `max_delay` means none given (3 s). A flow
 * with a model of its own waits for the model's duration. */
ORVANE_API void orvane_optimize(const char* flow_name, int64_t max_delay,
                                const orvane_custom_signal* signals, size_t signal_count,
                                orvane_context_fn callback, void* user_data,
                                orvane_release_fn release_user_data);

ORVANE_API void orvane_calibrate(const char* flow_name, int64_t max_delay,
                                 const orvane_custom_signal* signals, size_t signal_count,
                                 orvane_context_fn callback, void* user_data,
                                 orvane_release_fn release_user_data);

/* The flow's most recent context, marked as handed out again; caller-owned, NULL if none. */
ORVANE_API orvane_context* orvane_recent_context(const char* flow_name);

/* Drops the flow's waiting requests: their callbacks are never called (their user data is
 * released). */
ORVANE_API void orvane_cancel_context_callback(const char* flow_name);

/* ==== Observers: a flow evaluated in the background until its first good moment ========== */

/* While the app is active the flow is evaluated once per polling interval; `callback` runs
 * once, on the main queue, with the first context that says yes, and is then removed.
 * Registering the flow again replaces (and releases) the previous observer. */
ORVANE_API void orvane_register_context_observer(const char* flow_name, orvane_context_fn callback,
                                                 void* user_data,
                                                 orvane_release_fn release_user_data);
ORVANE_API void orvane_unregister_context_observer(const char* flow_name);

/* ==== Tracked events: each logs a context of its own at once ============================= */

ORVANE_API void orvane_track_event(const char* name, const orvane_custom_signal* signals,
                                   size_t signal_count);
ORVANE_API void orvane_track_page_view(const char* name, const orvane_custom_signal* signals,
                                       size_t signal_count);
ORVANE_API void orvane_track_user_action(const char* name, const orvane_custom_signal* signals,
                                         size_t signal_count);

/* ==== Golden signals ===================================================================== */

/* Creates and logs a context for an ad bid and returns selected values as a JSON object:
 * "ctxId", optionally "contextDuration", "c<id>" per configured signal (decimals as text),
 * "u_<activity>_<version>" activity scores. Both arguments may be NULL. Caller-owned; "{}"
 * when nothing could be collected. */
ORVANE_API char* orvane_golden_signals(const char* trigger, const char* bid_id);

/* ==== Contexts =========================================================================== */

/* Takes one more reference and returns `context`. */
ORVANE_API orvane_context* orvane_context_retain(orvane_context* context);
/* Gives one reference back; the last one frees the handle. NULL is ignored. */
ORVANE_API void orvane_context_release(orvane_context* context);

/* The decision (false for NULL). */
ORVANE_API bool orvane_context_should_upsell(const orvane_context* context);
/* The yes was imposed (random chance or timing), not chosen by the model (false for NULL). */
ORVANE_API bool orvane_context_was_forced_upsell(const orvane_context* context);
/* Seconds since 1970 (0 for NULL). */
ORVANE_API double orvane_context_created_at(const orvane_context* context);
/* An outcome has been logged; the creation log does not count (false for NULL). */
ORVANE_API bool orvane_context_already_logged(const orvane_context* context);
/* Caller-owned; NULL for NULL. */
ORVANE_API char* orvane_context_flow_name(const orvane_context* context);
ORVANE_API char* orvane_context_uuid(const orvane_context* context);
/* The integration report, one finding per line. Caller-owned; NULL for NULL. */
ORVANE_API char* orvane_context_validate(const orvane_context* context);

/* What the SDK recorded. The signal lists are JSON arrays, caller-owned (NULL for NULL), of
 * {"id", "type", "value"} objects in the record's order, where an id may repeat: built-in
 * signals have numeric ids, custom signals and metadata text ids; "type" is "bool", "int",
 * "float", "decimal" or "string"; decimals are text ("4.99"), non-finite floats "NaN",
 * "Infinity" or "-Infinity". */
ORVANE_API char* orvane_context_signals_json(const orvane_context* context);
ORVANE_API char* orvane_context_outcome_metadata_json(const orvane_context* context);
/* -3 unsupported device, -1 no, 1 yes. Sets `*has_value` (when not NULL) to whether there is
 * a number: false, with 0 returned, for NULL. */
ORVANE_API int32_t orvane_context_model_result(const orvane_context* context, bool* has_value);
/* Seconds from creation to the decision; `has_value` as above. */
ORVANE_API double orvane_context_seconds_between_created_and_should_upsell_checked(
    const orvane_context* context, bool* has_value);

/* Sends a record of `outcome`; every call sends a new record. An outcome outside -3...4 is
 * logged and ignored, as by the forms below. */
ORVANE_API void orvane_context_log(orvane_context* context, orvane_event_outcome outcome);
/* Sends only while no outcome has been logged. */
ORVANE_API void orvane_context_log_if_not_logged_yet(orvane_context* context,
                                                     orvane_event_outcome outcome);
/* Entries replace earlier entries of the same id and go to the end, in the given order. */
ORVANE_API void orvane_context_append_outcome_metadata(orvane_context* context,
                                                       const orvane_custom_signal* metadata,
                                                       size_t metadata_count);

/* Revenue forms: append the purchase's metadata, then log `outcome`. The _if_not_logged_yet
 * forms do neither once an outcome has been logged. A price that is not decimal text, an
 * unknown currency or source, or a NULL required field makes the call a logged no-op. */
ORVANE_API void orvane_context_log_storekit2_revenue(orvane_context* context,
                                                     const orvane_storekit2_product* product,
                                                     orvane_event_outcome outcome);
ORVANE_API void orvane_context_log_revenue_event(orvane_context* context,
                                                 const orvane_revenue_event* event,
                                                 orvane_event_outcome outcome);
ORVANE_API void orvane_context_log_storekit1_product_revenue(
    orvane_context* context, const orvane_storekit1_product* product, orvane_event_outcome outcome);
/* `product` may be NULL. */
ORVANE_API void orvane_context_log_storekit1_transaction_revenue(
    orvane_context* context, const orvane_storekit1_transaction* transaction,
    const orvane_storekit1_product* product, orvane_event_outcome outcome);
ORVANE_API void orvane_context_log_storekit2_revenue_if_not_logged_yet(
    orvane_context* context, const orvane_storekit2_product* product, orvane_event_outcome outcome);
ORVANE_API void orvane_context_log_revenue_event_if_not_logged_yet(
    orvane_context* context, const orvane_revenue_event* event, orvane_event_outcome outcome);
ORVANE_API void orvane_context_log_storekit1_product_revenue_if_not_logged_yet(
    orvane_context* context, const orvane_storekit1_product* product, orvane_event_outcome outcome);
ORVANE_API void orvane_context_log_storekit1_transaction_revenue_if_not_logged_yet(
    orvane_context* context, const orvane_storekit1_transaction* transaction,
    const orvane_storekit1_product* product, orvane_event_outcome outcome);

/* ==== Logs (what a log sender receives) ================================================== */

/* The value the numeric accessors return for a NULL log. */
#define ORVANE_LOG_NO_VALUE INT32_MIN

ORVANE_API orvane_log* orvane_log_retain(orvane_log* log);
ORVANE_API void orvane_log_release(orvane_log* log);

/* The logged outcome: an orvane_event_outcome, or the SDK's own -100 (tracked event), -101
 * (creation), -104 (golden signals). */
ORVANE_API int32_t orvane_log_outcome(const orvane_log* log);
/* The kind of record: 1 creation, 2 outcome, 10 page view, 11 user action, 12 event. */
ORVANE_API int32_t orvane_log_event_type(const orvane_log* log);
/* Caller-owned texts; NULL for NULL (or when the record lacks the value). */
ORVANE_API char* orvane_log_id(const orvane_log* log);
ORVANE_API char* orvane_log_context_uuid(const orvane_log* log);
ORVANE_API char* orvane_log_flow_name(const orvane_log* log);
/* The encoded record as the service takes it: a JSON object of "ctx_1" (version), "ctx_400"
 * (piece count) and the base64 pieces. For forwarding to the host's own analytics. */
ORVANE_API char* orvane_log_json(const orvane_log* log);
/* The encoded record as one base64 text. */
ORVANE_API char* orvane_log_base64(const orvane_log* log);
/* The record's signal lists, as JSON arrays in the form orvane_context_signals_json
 * describes. Caller-owned; NULL for NULL. */
ORVANE_API char* orvane_log_signals_json(const orvane_log* log);
ORVANE_API char* orvane_log_custom_signals_json(const orvane_log* log);
ORVANE_API char* orvane_log_global_signals_json(const orvane_log* log);
ORVANE_API char* orvane_log_outcome_metadata_json(const orvane_log* log);
/* Queues the record for upload, as the default log sender does. */
ORVANE_API void orvane_log_send(orvane_log* log);

/* ==== The host-driven platform: set-up choices =========================================== */
/* Valid only before the first call that creates the shared manager (see the conventions at
 * the top); afterwards they return false and log why. They replace services of the default
 * platform. A process whose C++ code created the manager first keeps its platform (logged). */

typedef void (*orvane_motion_state_fn)(bool running, void* user_data);

/* Motion comes from orvane_push_device_motion instead of the platform. The SDK counts as
 * supported only with both sensors. `on_state_change` (may be NULL) hears true when the SDK
 * starts wanting updates and false when it stops, in order, on an SDK thread: the host starts
 * and stops its sensors accordingly. */
ORVANE_API bool orvane_use_host_motion(bool accelerometer_available, bool gyroscope_available,
                                       orvane_motion_state_fn on_state_change, void* user_data);

typedef enum orvane_log_level {
  ORVANE_LOG_DEBUG = 0,
  ORVANE_LOG_INFO = 1,
  ORVANE_LOG_DEFAULT = 2,
  ORVANE_LOG_ERROR = 3,
  ORVANE_LOG_LEVEL_MAX_ENUM = 0x7FFFFFFF
} orvane_log_level;
typedef void (*orvane_log_sink_fn)(orvane_log_level level, const char* message, void* user_data);

/* Every SDK log line (all levels, "[Orvane] " prefixed) goes to `sink` instead of stderr, one
 * call at a time, from any thread; `message` is valid during the call. The sink may be called
 * while the SDK holds a lock: it must not call into the SDK. */
ORVANE_API bool orvane_use_log_sink(orvane_log_sink_fn sink, void* user_data);

typedef void (*orvane_main_dispatcher_fn)(orvane_main_job* job, void* user_data);

/* The host's main thread becomes the SDK's main queue: each job goes to `dispatcher` (on an
 * SDK thread, or the main thread), which hands it to the main loop, in order, to be run there
 * with orvane_main_job_run; it must neither run the job inline nor call into the SDK. Context
 * and log callbacks then run on the host's main thread. */
ORVANE_API bool orvane_use_main_dispatcher(orvane_main_dispatcher_fn dispatcher, void* user_data);

/* Paths come only from orvane_set_network_path, not from the platform's own monitor. */
ORVANE_API bool orvane_use_host_network(void);

/* ==== The host-driven platform: at any time ============================================== */

/* Runs a job on the calling thread (the host's main thread) and frees it. */
ORVANE_API void orvane_main_job_run(orvane_main_job* job);
/* Frees a job without running it (a main loop shutting down). */
ORVANE_API void orvane_main_job_discard(orvane_main_job* job);
/* Names the calling thread as the host's main thread. Without it, the thread that last ran a
 * job counts as the main thread. Call it from the main thread before the first request. */
ORVANE_API void orvane_main_thread_set_current(void);

/* The app's lifecycle, as the platform notifies it. */
ORVANE_API void orvane_application_did_become_active(void);
ORVANE_API void orvane_application_will_resign_active(void);
ORVANE_API void orvane_application_did_enter_background(void);
/* Raw values: 0 restricted, 1 denied, 2 available. */
ORVANE_API void orvane_application_set_background_refresh_status(int32_t status);
ORVANE_API void orvane_application_set_protected_data_available(bool available);

typedef struct orvane_vector3 {
  double x, y, z;
} orvane_vector3;

/* One device-motion update: user acceleration (gravity removed) and gravity in g, rotation
 * rate in rad/s, roll/pitch/yaw in radians, and when it was measured in seconds since boot
 * (the platform's motion timestamps: systemUptime, elapsedRealtime). */
typedef struct orvane_device_motion {
  orvane_vector3 user_acceleration;
  orvane_vector3 rotation_rate;
  double roll, pitch, yaw;
  orvane_vector3 gravity;
  double timestamp;
} orvane_device_motion;

/* Hands one update to the SDK (host motion only); push them in time order. False when the SDK
 * is not sampling (the update is dropped) or host motion was not chosen. */
ORVANE_API bool orvane_push_device_motion(const orvane_device_motion* motion);

/* Merges facts about the device into what the SDK knows: a JSON object with any of the keys
 * "machineIdentifier", "simulatedModelIdentifier", "modelName", "systemVersion" (text),
 * "userInterfaceIdiom", "orientation" (raw values), "physicalMemoryBytes",
 * "activeProcessorCount", "trackingAuthorizationStatus", "isLowPowerModeEnabled",
 * "thermalState", and the objects "locale" {"identifier", "languageCode", "regionCode",
 * "currencyCode", "usesMetricSystem"}, "battery" {"level" 0...1, "state"}, "mainScreen"
 * {"widthPoints", "heightPoints", "scale", "brightness", "isCaptured", "interfaceStyle",
 * "layoutDirection", "horizontalSizeClass", "verticalSizeClass"}, "audioSession"
 * {"isOtherAudioPlaying", "secondaryAudioShouldBeSilencedHint",
 * "allowHapticsAndSystemSoundsDuringRecording"}. A key left out keeps its value, null makes
 * the fact unknown. False (nothing changed) for text that is not such an object or a value of
 * the wrong type; unknown keys are logged and skipped. */
ORVANE_API bool orvane_update_device_facts(const char* facts_json);

typedef enum orvane_network_interface {
  ORVANE_NETWORK_ANY = 0,
  ORVANE_NETWORK_WIFI = 1,
  ORVANE_NETWORK_INTERFACE_MAX_ENUM = 0x7FFFFFFF
} orvane_network_interface;

typedef enum orvane_tristate {
  ORVANE_UNKNOWN = -1,
  ORVANE_NO = 0,
  ORVANE_YES = 1,
  ORVANE_TRISTATE_MAX_ENUM = 0x7FFFFFFF
} orvane_tristate;

/* The path monitors' view of an interface kind: usable, low-data mode, costs money. */
ORVANE_API void orvane_set_network_path(orvane_network_interface kind, bool is_satisfied,
                                        orvane_tristate is_constrained,
                                        orvane_tristate is_expensive);

/* The app's notification settings in the platform's raw values; the optional last three are
 * -1 when the system predates them. Read by the SDK when the app becomes active. */
typedef struct orvane_notification_settings {
  int32_t authorization_status;
  int32_t notification_center_setting;
  int32_t lock_screen_setting;
  int32_t car_play_setting;
  int32_t alert_setting;
  int32_t badge_setting;
  int32_t sound_setting;
  int32_t critical_alert_setting;
  int32_t announcement_setting;
  int32_t alert_style;
  int32_t show_previews_setting;
  bool provides_app_notification_settings;
  int32_t direct_messages_setting;
  int32_t scheduled_delivery_setting;
  int32_t time_sensitive_setting;
} orvane_notification_settings;

/* NULL means the settings cannot be read. */
ORVANE_API void orvane_set_notification_settings(const orvane_notification_settings* settings);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* ORVANE_ORVANE_H */
