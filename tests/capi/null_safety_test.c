/* The default platform with a log sink: NULL arguments, the set-up choices closing when the
 * SDK starts, the sink receiving lines, and a request answered on the SDK's own main
 * thread. */
#define _GNU_SOURCE

#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "harness.h"

/* ---- The log sink -------------------------------------------------------------------------- */

#define MAX_LINES 1024
static pthread_mutex_t lines_mutex = PTHREAD_MUTEX_INITIALIZER;
static char* lines[MAX_LINES];
static orvane_log_level levels[MAX_LINES];
static size_t line_count = 0;

static void sink(orvane_log_level level, const char* message, void* user_data) {
  (void)user_data;
  pthread_mutex_lock(&lines_mutex);
  if (line_count < MAX_LINES) {
    lines[line_count] = strdup(message);
    levels[line_count] = level;
    ++line_count;
  }
  pthread_mutex_unlock(&lines_mutex);
}

static size_t lines_seen(void) {
  size_t count;
  pthread_mutex_lock(&lines_mutex);
  count = line_count;
  pthread_mutex_unlock(&lines_mutex);
  return count;
}

/* How many lines from index `from` on contain `part`; the level of the last one in `level`. */
static size_t lines_containing(size_t from, const char* part, orvane_log_level* level) {
  size_t i, found = 0;
  pthread_mutex_lock(&lines_mutex);
  for (i = from; i < line_count; ++i) {
    if (contains(lines[i], part)) {
      ++found;
      if (level) *level = levels[i];
    }
  }
  pthread_mutex_unlock(&lines_mutex);
  return found;
}

/* ---- NULL arguments ------------------------------------------------------------------------ */

static int releases = 0;
static int callbacks = 0;
static void count_release(void* user_data) {
  (void)user_data;
  ++releases;
}
static void count_callback(orvane_context* context, void* user_data) {
  (void)context;
  (void)user_data;
  ++callbacks;
}

static const orvane_storekit1_product sk1_product = {
    "4.99", "USD", false, false, {ORVANE_PERIOD_MONTH, 1}, NULL};
static const orvane_storekit1_transaction sk1_transaction = {ORVANE_TRANSACTION_PURCHASED, false,
                                                             0};
static const orvane_storekit2_product sk2_product = {"4.99", "USD", NULL, false, NULL};
static const orvane_revenue_event revenue = {ORVANE_REVENUE_TIP, "1", "usd"};

/* Each case calls one function with a NULL where it needs a value and says whether the
 * documented neutral value came back. */
static bool ctx_should_upsell(void) { return !orvane_context_should_upsell(NULL); }
static bool ctx_forced(void) { return !orvane_context_was_forced_upsell(NULL); }
static bool ctx_created(void) { return orvane_context_created_at(NULL) == 0.0; }
static bool ctx_logged(void) { return !orvane_context_already_logged(NULL); }
static bool ctx_flow(void) { return orvane_context_flow_name(NULL) == NULL; }
static bool ctx_uuid(void) { return orvane_context_uuid(NULL) == NULL; }
static bool ctx_validate(void) { return orvane_context_validate(NULL) == NULL; }
static bool ctx_retain(void) { return orvane_context_retain(NULL) == NULL; }
static bool ctx_signals(void) { return orvane_context_signals_json(NULL) == NULL; }
static bool ctx_outcome_metadata(void) {
  return orvane_context_outcome_metadata_json(NULL) == NULL;
}
static bool ctx_model_result(void) {
  bool has_value = true;
  return orvane_context_model_result(NULL, &has_value) == 0 && !has_value;
}
static bool ctx_seconds_to_decision(void) {
  bool has_value = true;
  return orvane_context_seconds_between_created_and_should_upsell_checked(NULL, &has_value) ==
             0.0 &&
         !has_value;
}
static bool log_signals(void) { return orvane_log_signals_json(NULL) == NULL; }
static bool log_custom_signals(void) { return orvane_log_custom_signals_json(NULL) == NULL; }
static bool log_global_signals(void) { return orvane_log_global_signals_json(NULL) == NULL; }
static bool log_outcome_metadata(void) { return orvane_log_outcome_metadata_json(NULL) == NULL; }
static bool ctx_log(void) { return orvane_context_log(NULL, ORVANE_OUTCOME_POSITIVE), true; }
static bool ctx_log_once(void) {
  return orvane_context_log_if_not_logged_yet(NULL, ORVANE_OUTCOME_POSITIVE), true;
}
static bool ctx_metadata(void) {
  orvane_custom_signal entry;
  entry.id = "a";
  entry.type = ORVANE_CUSTOM_SIGNAL_BOOL;
  entry.value.bool_value = true;
  return orvane_context_append_outcome_metadata(NULL, &entry, 1), true;
}
static bool ctx_sk2(void) {
  return orvane_context_log_storekit2_revenue(NULL, &sk2_product, ORVANE_OUTCOME_POSITIVE), true;
}
static bool ctx_sk2_once(void) {
  orvane_context_log_storekit2_revenue_if_not_logged_yet(NULL, &sk2_product,
                                                         ORVANE_OUTCOME_POSITIVE);
  return true;
}
static bool ctx_event(void) {
  return orvane_context_log_revenue_event(NULL, &revenue, ORVANE_OUTCOME_POSITIVE), true;
}
static bool ctx_event_once(void) {
  orvane_context_log_revenue_event_if_not_logged_yet(NULL, &revenue, ORVANE_OUTCOME_POSITIVE);
  return true;
}
static bool ctx_sk1(void) {
  orvane_context_log_storekit1_product_revenue(NULL, &sk1_product, ORVANE_OUTCOME_POSITIVE);
  return true;
}
static bool ctx_sk1_once(void) {
  orvane_context_log_storekit1_product_revenue_if_not_logged_yet(NULL, &sk1_product,
                                                                 ORVANE_OUTCOME_POSITIVE);
  return true;
}
static bool ctx_sk1_transaction(void) {
  orvane_context_log_storekit1_transaction_revenue(NULL, &sk1_transaction, &sk1_product,
                                                   ORVANE_OUTCOME_POSITIVE);
  return true;
}
static bool ctx_sk1_transaction_once(void) {
  orvane_context_log_storekit1_transaction_revenue_if_not_logged_yet(NULL, &sk1_transaction, NULL,
                                                                     ORVANE_OUTCOME_POSITIVE);
  return true;
}
static bool log_outcome(void) { return orvane_log_outcome(NULL) == ORVANE_LOG_NO_VALUE; }
static bool log_event_type(void) { return orvane_log_event_type(NULL) == ORVANE_LOG_NO_VALUE; }
static bool log_id(void) { return orvane_log_id(NULL) == NULL; }
static bool log_uuid(void) { return orvane_log_context_uuid(NULL) == NULL; }
static bool log_flow(void) { return orvane_log_flow_name(NULL) == NULL; }
static bool log_json(void) { return orvane_log_json(NULL) == NULL; }
static bool log_base64(void) { return orvane_log_base64(NULL) == NULL; }
static bool log_send(void) { return orvane_log_send(NULL), true; }
static bool log_retain(void) { return orvane_log_retain(NULL) == NULL; }
static bool setup_key(void) { return !orvane_setup(NULL, NULL); }
static bool setup_sender_key(void) {
  const int before = releases;
  return !orvane_setup_with_log_sender(NULL, NULL, capture_log, NULL, count_release) &&
         releases == before + 1;
}
static bool launching_key(void) {
  return !orvane_application_did_finish_launching("{}", NULL, NULL);
}
static bool service_url(void) { return orvane_set_service_base_url(NULL), true; }
static bool custom_model(void) {
  orvane_model_information information;
  information.model_version = (char*)"stale";
  return !orvane_get_custom_model(NULL, &information) && information.model_version == NULL;
}
static bool custom_model_out(void) { return !orvane_get_custom_model("flow", NULL); }
static bool global_bool(void) { return orvane_set_global_custom_signal_bool(NULL, true), true; }
static bool global_int(void) { return orvane_set_global_custom_signal_int(NULL, 1), true; }
static bool global_float(void) { return orvane_set_global_custom_signal_float(NULL, 1), true; }
static bool global_double(void) { return orvane_set_global_custom_signal_double(NULL, 1), true; }
static bool global_decimal(void) {
  return orvane_set_global_custom_signal_decimal(NULL, "1"), true;
}
static bool global_string(void) { return orvane_set_global_custom_signal_string(NULL, "x"), true; }
static bool global_remove(void) { return orvane_remove_global_custom_signal(NULL), true; }
static bool fetch(void) {
  const int before = releases;
  orvane_fetch_context(NULL, 1, NULL, 0, count_callback, NULL, count_release);
  return releases == before + 1;
}
static bool instant(void) { return orvane_instant_context(NULL, 1, NULL, 0) == NULL; }
static bool optimize(void) {
  const int before = releases;
  orvane_optimize(NULL, 1, NULL, 0, count_callback, NULL, count_release);
  return releases == before + 1;
}
static bool calibrate(void) {
  const int before = releases;
  orvane_calibrate(NULL, 1, NULL, 0, count_callback, NULL, count_release);
  return releases == before + 1;
}
static bool recent(void) { return orvane_recent_context(NULL) == NULL; }
static bool cancel(void) { return orvane_cancel_context_callback(NULL), true; }
static bool observe(void) {
  const int before = releases;
  orvane_register_context_observer(NULL, count_callback, NULL, count_release);
  return releases == before + 1;
}
static bool unobserve(void) { return orvane_unregister_context_observer(NULL), true; }
static bool track_event(void) { return orvane_track_event(NULL, NULL, 0), true; }
static bool track_page(void) { return orvane_track_page_view(NULL, NULL, 0), true; }
static bool track_action(void) { return orvane_track_user_action(NULL, NULL, 0), true; }
static bool push_motion(void) { return !orvane_push_device_motion(NULL); }
static bool device_facts(void) { return !orvane_update_device_facts(NULL); }
static bool job_run(void) { return orvane_main_job_run(NULL), true; }
static bool job_discard(void) { return orvane_main_job_discard(NULL), true; }
static bool configuration_init(void) { return orvane_configuration_init(NULL), true; }

typedef struct null_case {
  const char* function; /* named in the line the call logs */
  bool (*call)(void);
} null_case;

static const null_case null_cases[] = {
    {"orvane_context_should_upsell", ctx_should_upsell},
    {"orvane_context_was_forced_upsell", ctx_forced},
    {"orvane_context_created_at", ctx_created},
    {"orvane_context_already_logged", ctx_logged},
    {"orvane_context_flow_name", ctx_flow},
    {"orvane_context_uuid", ctx_uuid},
    {"orvane_context_validate", ctx_validate},
    {"orvane_context_retain", ctx_retain},
    {"orvane_context_signals_json", ctx_signals},
    {"orvane_context_outcome_metadata_json", ctx_outcome_metadata},
    {"orvane_context_model_result", ctx_model_result},
    {"orvane_context_seconds_between_created_and_should_upsell_checked", ctx_seconds_to_decision},
    {"orvane_log_signals_json", log_signals},
    {"orvane_log_custom_signals_json", log_custom_signals},
    {"orvane_log_global_signals_json", log_global_signals},
    {"orvane_log_outcome_metadata_json", log_outcome_metadata},
    {"orvane_context_log", ctx_log},
    {"orvane_context_log_if_not_logged_yet", ctx_log_once},
    {"orvane_context_append_outcome_metadata", ctx_metadata},
    {"orvane_context_log_storekit2_revenue", ctx_sk2},
    {"orvane_context_log_storekit2_revenue_if_not_logged_yet", ctx_sk2_once},
    {"orvane_context_log_revenue_event", ctx_event},
    {"orvane_context_log_revenue_event_if_not_logged_yet", ctx_event_once},
    {"orvane_context_log_storekit1_product_revenue", ctx_sk1},
    {"orvane_context_log_storekit1_product_revenue_if_not_logged_yet", ctx_sk1_once},
    {"orvane_context_log_storekit1_transaction_revenue", ctx_sk1_transaction},
    {"orvane_context_log_storekit1_transaction_revenue_if_not_logged_yet",
     ctx_sk1_transaction_once},
    {"orvane_log_outcome", log_outcome},
    {"orvane_log_event_type", log_event_type},
    {"orvane_log_id", log_id},
    {"orvane_log_context_uuid", log_uuid},
    {"orvane_log_flow_name", log_flow},
    {"orvane_log_json", log_json},
    {"orvane_log_base64", log_base64},
    {"orvane_log_send", log_send},
    {"orvane_log_retain", log_retain},
    {"orvane_setup", setup_key},
    {"orvane_setup_with_log_sender", setup_sender_key},
    {"orvane_application_did_finish_launching", launching_key},
    {"orvane_set_service_base_url", service_url},
    {"orvane_get_custom_model", custom_model},
    {"orvane_get_custom_model", custom_model_out},
    {"orvane_set_global_custom_signal_bool", global_bool},
    {"orvane_set_global_custom_signal_int", global_int},
    {"orvane_set_global_custom_signal_float", global_float},
    {"orvane_set_global_custom_signal_double", global_double},
    {"orvane_set_global_custom_signal_decimal", global_decimal},
    {"orvane_set_global_custom_signal_string", global_string},
    {"orvane_remove_global_custom_signal", global_remove},
    {"orvane_fetch_context", fetch},
    {"orvane_instant_context", instant},
    {"orvane_optimize", optimize},
    {"orvane_calibrate", calibrate},
    {"orvane_recent_context", recent},
    {"orvane_cancel_context_callback", cancel},
    {"orvane_register_context_observer", observe},
    {"orvane_unregister_context_observer", unobserve},
    {"orvane_track_event", track_event},
    {"orvane_track_page_view", track_page},
    {"orvane_track_user_action", track_action},
    {"orvane_push_device_motion", push_motion},
    {"orvane_update_device_facts", device_facts},
    {"orvane_main_job_run", job_run},
    {"orvane_main_job_discard", job_discard},
    {"orvane_configuration_init", configuration_init},
};

static void test_null_arguments_are_logged_no_ops(void) {
  size_t i;
  for (i = 0; i < sizeof null_cases / sizeof null_cases[0]; ++i) {
    const size_t before = lines_seen();
    char expected[160];
    const bool neutral = null_cases[i].call();
    if (!neutral) FAIL("%s did not return its neutral value", null_cases[i].function);
    /* "<function>: " exactly: a line of another function must not count. */
    snprintf(expected, sizeof expected, "] %s: ", null_cases[i].function);
    if (lines_containing(before, expected, NULL) != 1) {
      FAIL("%s did not log exactly one line naming it", null_cases[i].function);
    }
  }
  CHECK(callbacks == 0);
  /* NULL is "nothing to free" for the release and free functions, without a line. */
  {
    const size_t before = lines_seen();
    orvane_context_release(NULL);
    orvane_log_release(NULL);
    orvane_string_free(NULL);
    CHECK(lines_seen() == before);
  }
  /* None of this created the shared manager: the set-up choices are still open. */
  CHECK(orvane_use_host_network());
}

static void test_version_is_static_and_matches_the_build(void) {
  const char* version = orvane_sdk_version();
  CHECK_TEXT(version, ORVANE_TEST_EXPECTED_VERSION);
  CHECK(orvane_sdk_version() == version);
}

static void never_dispatch(orvane_main_job* job, void* user_data) {
  (void)user_data;
  orvane_main_job_discard(job);
}

static void test_set_up_choices_close_when_the_sdk_starts(void) {
  size_t before;
  CHECK(orvane_setup("capi-null-safety-license-key", NULL));
  before = lines_seen();
  CHECK(!orvane_use_host_network());
  CHECK(!orvane_use_log_sink(sink, NULL));
  CHECK(!orvane_use_host_motion(true, true, NULL, NULL));
  CHECK(!orvane_use_main_dispatcher(never_dispatch, NULL));
  CHECK_NUMBER(lines_containing(before, "set-up choices must come before", NULL), 4);
}

static void test_services_the_host_does_not_drive_refuse_its_values(void) {
  orvane_device_motion motion;
  const size_t before = lines_seen();
  memset(&motion, 0, sizeof motion);
  motion.timestamp = seconds_since_boot();
  /* The default platform replays its own motion; the host's updates are refused, and said so
   * once rather than a hundred times a second. */
  CHECK(!orvane_push_device_motion(&motion));
  CHECK(!orvane_push_device_motion(&motion));
  CHECK_NUMBER(lines_containing(before, "motion service is not driven by the host", NULL), 1);
  /* The network was chosen host-driven before the start; no line about it. */
  orvane_set_network_path(ORVANE_NETWORK_ANY, true, ORVANE_UNKNOWN, ORVANE_UNKNOWN);
  CHECK_NUMBER(lines_containing(before, "not driven by the host", NULL), 1);
}

static void test_sdk_lines_reach_the_sink_with_their_level(void) {
  char flow[520];
  orvane_context* context;
  orvane_log_level level = ORVANE_LOG_DEBUG;
  const size_t before = lines_seen();
  memset(flow, 'f', sizeof flow - 1);
  flow[sizeof flow - 1] = '\0';
  context = orvane_instant_context(flow, 1, NULL, 0);
  CHECK(context != NULL);
  CHECK_NUMBER(lines_containing(before, "exceeds the maximum allowed length", &level), 1);
  CHECK(level == ORVANE_LOG_ERROR);
  orvane_context_release(context);
}

static void test_the_log_level_filters_sdk_lines(void) {
  char flow[520];
  orvane_context* context;
  size_t before = lines_seen();
  memset(flow, 'f', sizeof flow - 1);
  flow[sizeof flow - 1] = '\0';
  orvane_set_log_level((orvane_sdk_log_level)99);
  CHECK_NUMBER(lines_containing(before, "99 is not a log level", NULL), 1);
  /* Error lines pass at every level. */
  orvane_set_log_level(ORVANE_SDK_LOG_ERROR);
  before = lines_seen();
  context = orvane_instant_context(flow, 1, NULL, 0);
  CHECK(context != NULL);
  CHECK_NUMBER(lines_containing(before, "exceeds the maximum allowed length", NULL), 1);
  orvane_context_release(context);
  orvane_set_log_level(ORVANE_SDK_LOG_WARNING);
}

static void test_consent_is_checked_and_kept(void) {
  size_t before = lines_seen();
  CHECK(orvane_consent() == ORVANE_CONSENT_UNKNOWN);
  orvane_set_consent((orvane_consent_state)99);
  CHECK_NUMBER(lines_containing(before, "99 is not a consent state", NULL), 1);
  CHECK(orvane_consent() == ORVANE_CONSENT_UNKNOWN);
  orvane_set_consent(ORVANE_CONSENT_DENIED);
  CHECK(orvane_consent() == ORVANE_CONSENT_DENIED);
  before = lines_seen();
  orvane_reset_all_data();
  CHECK_NUMBER(lines_containing(before, "All data erased", NULL), 1);
  CHECK(orvane_consent() == ORVANE_CONSENT_DENIED);
  orvane_set_consent(ORVANE_CONSENT_UNKNOWN);
}

static void test_after_shutdown_calls_do_nothing(void) {
  orvane_context* context;
  const size_t before = lines_seen();
  orvane_shutdown(0.2);
  context = orvane_instant_context("after", 1, NULL, 0);
  CHECK(context == NULL);
  CHECK_NUMBER(lines_containing(before, "does nothing: the SDK was shut down", NULL), 1);
}

/* ---- A request on the SDK's own main thread -------------------------------------------- */

typedef struct answer {
  pthread_mutex_t mutex;
  pthread_cond_t changed;
  int calls;
  int releases;
  void* user_data;
  char* flow;
  bool on_caller_thread;
  pthread_t caller;
} answer;

static void answered(orvane_context* context, void* user_data) {
  answer* box = user_data;
  pthread_mutex_lock(&box->mutex);
  ++box->calls;
  box->user_data = user_data;
  box->flow = orvane_context_flow_name(context);
  box->on_caller_thread = pthread_equal(pthread_self(), box->caller) != 0;
  pthread_cond_broadcast(&box->changed);
  pthread_mutex_unlock(&box->mutex);
}

static void released(void* user_data) {
  answer* box = user_data;
  pthread_mutex_lock(&box->mutex);
  ++box->releases;
  pthread_cond_broadcast(&box->changed);
  pthread_mutex_unlock(&box->mutex);
}

static void test_a_request_answers_on_the_sdk_main_thread_with_the_user_data(void) {
  static answer box = {
      PTHREAD_MUTEX_INITIALIZER, PTHREAD_COND_INITIALIZER, 0, 0, NULL, NULL, false, 0};
  struct timespec deadline;
  box.caller = pthread_self();
  /* Without a wait (no model, no delay): decided at once, answered through the main queue. */
  orvane_optimize("default_queue_flow", 0, NULL, 0, answered, &box, released);
  clock_gettime(CLOCK_REALTIME, &deadline);
  deadline.tv_sec += 15;
  pthread_mutex_lock(&box.mutex);
  while (box.releases == 0) {
    if (pthread_cond_timedwait(&box.changed, &box.mutex, &deadline) != 0) break;
  }
  CHECK_NUMBER(box.calls, 1);
  CHECK(box.user_data == &box);
  CHECK_TEXT(box.flow, "default_queue_flow");
  CHECK(!box.on_caller_thread);
  /* The user data is released once the callback has run, not before. */
  CHECK_NUMBER(box.releases, 1);
  pthread_mutex_unlock(&box.mutex);
  orvane_string_free(box.flow);
}

int main(void) {
  use_temporary_environment("null-safety");
  if (!orvane_use_log_sink(sink, NULL)) return 2;
  run_test("NULL arguments are logged no-ops with neutral results",
           test_null_arguments_are_logged_no_ops);
  run_test("the version is static and matches the build",
           test_version_is_static_and_matches_the_build);
  run_test("set-up choices close when the SDK starts",
           test_set_up_choices_close_when_the_sdk_starts);
  run_test("services the host does not drive refuse its values",
           test_services_the_host_does_not_drive_refuse_its_values);
  run_test("SDK lines reach the sink with their level",
           test_sdk_lines_reach_the_sink_with_their_level);
  run_test("the log level is checked and errors always pass", test_the_log_level_filters_sdk_lines);
  run_test("consent is checked and kept, also by an erase", test_consent_is_checked_and_kept);
  run_test("a request answers on the SDK's main thread with the user data",
           test_a_request_answers_on_the_sdk_main_thread_with_the_user_data);
  run_test("after shutdown, calls do nothing", test_after_shutdown_calls_do_nothing);
  return finish_tests();
}
