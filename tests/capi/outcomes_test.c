/* What reaches the log sender: outcomes, custom signals of each type, outcome metadata,
 * global signals, revenue, golden signals, and the facts a host states about its device,
 * network and launch. The host's loop is the main queue and this thread its main thread, so
 * every record arrives before the call that makes it returns. */
#define _GNU_SOURCE

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "harness.h"

static orvane_custom_signal signal_bool(const char* id, bool value) {
  orvane_custom_signal s;
  s.id = id;
  s.type = ORVANE_CUSTOM_SIGNAL_BOOL;
  s.value.bool_value = value;
  return s;
}

static orvane_custom_signal signal_text(const char* id, orvane_custom_signal_type type,
                                        const char* text) {
  orvane_custom_signal s;
  s.id = id;
  s.type = type;
  s.value.string_value = text;
  return s;
}

/* The latest record of `flow` with `outcome`; its raw JSON, caller-freed (NULL if none). */
static char* latest_raw(const char* flow, int32_t outcome) {
  bool found = false;
  captured_log log = captured_latest(flow, outcome, &found);
  char* raw = log.values_json;
  log.values_json = NULL;
  captured_free(&log);
  return found ? raw : NULL;
}

/* The creation record of a new instant context of `flow`. */
static char* fresh_record(const char* flow) {
  orvane_context_release(orvane_instant_context(flow, 1, NULL, 0));
  return latest_raw(flow, -101);
}

/* How many members of the object start with `prefix` (keys are quoted in the text). */
static int members_with_prefix(const char* json, const char* prefix) {
  char quoted[64];
  int count = 0;
  const char* p = json;
  snprintf(quoted, sizeof quoted, "\"%s", prefix);
  while (p && (p = strstr(p, quoted)) != NULL) {
    ++count;
    p += strlen(quoted);
  }
  return count;
}

static void test_outcomes_reach_the_sender_as_logged(void) {
  orvane_context* context = orvane_instant_context("outcome_flow", 1, NULL, 0);
  size_t before;
  captured_log first, second;
  char* uuid;
  if (!CHECK(context != NULL)) return;
  uuid = orvane_context_uuid(context);
  before = captured_count();

  orvane_context_log(context, ORVANE_OUTCOME_POSITIVE_CONVERTED);
  CHECK_NUMBER(captured_count(), before + 1);
  /* Only while nothing was logged; the creation record does not count, the outcome does. */
  orvane_context_log_if_not_logged_yet(context, ORVANE_OUTCOME_NEGATIVE);
  CHECK_NUMBER(captured_count(), before + 1);
  /* Not an outcome at all. */
  orvane_context_log(context, (orvane_event_outcome)7);
  CHECK_NUMBER(captured_count(), before + 1);
  orvane_context_log(context, ORVANE_OUTCOME_NEGATIVE_DISMISSED);
  CHECK_NUMBER(captured_count(), before + 2);

  first = captured_at(before);
  second = captured_at(before + 1);
  CHECK_NUMBER(first.outcome, 3);
  CHECK_NUMBER(first.event_type, 2);
  CHECK_TEXT(first.flow, "outcome_flow");
  CHECK_TEXT(first.context_uuid, uuid);
  CHECK_NUMBER(second.outcome, -3);
  CHECK(first.id != NULL && second.id != NULL && strcmp(first.id, second.id) != 0);
  captured_free(&first);
  captured_free(&second);

  orvane_string_free(uuid);
  orvane_context_release(context);
}

/* The sender's other forms of the same record, read while the log is lent to it. */
static char* lent_json = NULL;
static char* lent_base64 = NULL;
static char* lent_custom = NULL;
static char* lent_global = NULL;
static void keep_forms(orvane_log* log, void* user_data) {
  (void)user_data;
  capture_log(log, NULL);
  free(lent_json);
  free(lent_base64);
  free(lent_custom);
  free(lent_global);
  lent_json = orvane_log_json(log);
  lent_base64 = orvane_log_base64(log);
  lent_custom = orvane_log_custom_signals_json(log);
  lent_global = orvane_log_global_signals_json(log);
}

static int sender_releases = 0;
static void count_release(void* user_data) {
  (void)user_data;
  ++sender_releases;
}

static void test_a_replaced_sender_releases_its_data_and_the_log_has_its_encoded_forms(void) {
  char pieces[32];
  orvane_custom_signal list[2];
  list[0] = signal_text("price", ORVANE_CUSTOM_SIGNAL_DECIMAL, "4.990");
  list[1] = signal_bool("price", false); /* a repeated id is kept, in order */
  orvane_set_log_sender(keep_forms, NULL, count_release);
  CHECK_NUMBER(sender_releases, 0);
  orvane_context_release(orvane_instant_context("encoded_flow", 1, list, 2));
  CHECK(json_is_valid(lent_json));
  CHECK(json_member(lent_json, "ctx_400", pieces, sizeof pieces) && atoi(pieces) > 0);
  CHECK(lent_base64 != NULL && strlen(lent_base64) > 16);
  CHECK_TEXT(lent_custom,
             "[{\"id\":\"price\",\"type\":\"decimal\",\"value\":\"4.99\"},"
             "{\"id\":\"price\",\"type\":\"bool\",\"value\":false}]");
  CHECK_TEXT(lent_global, "[]");
  /* Back to the plain capture: the previous sender's data is released. */
  orvane_set_log_sender(capture_log, NULL, NULL);
  CHECK_NUMBER(sender_releases, 1);
  free(lent_json);
  free(lent_base64);
  free(lent_custom);
  free(lent_global);
  lent_json = lent_base64 = lent_custom = lent_global = NULL;
}

/* A built-in signal's entry in a signal list, as written: {"id":20,"type":"string",...}. */
static bool has_signal(const char* list, int id, const char* type, const char* value) {
  char entry[512], expected[512];
  size_t i;
  snprintf(expected, sizeof expected, "{\"id\":%d,\"type\":\"%s\",\"value\":%s}", id, type, value);
  for (i = 0; json_element(list, i, entry, sizeof entry); ++i) {
    if (strcmp(entry, expected) == 0) return true;
  }
  return false;
}

static void test_a_context_reads_back_what_it_recorded(void) {
  orvane_context* context = orvane_instant_context("readback_flow", 1, NULL, 0);
  orvane_custom_signal metadata[3];
  bool has_value = false;
  char* uuid = orvane_context_uuid(context);
  char quoted_uuid[128];
  char* list = orvane_context_signals_json(context);
  double seconds;
  if (!CHECK(context != NULL && uuid != NULL)) return;
  snprintf(quoted_uuid, sizeof quoted_uuid, "\"%s\"", uuid);
  CHECK(has_signal(list, 20, "string", "\"readback_flow\""));
  CHECK(has_signal(list, 29, "string", quoted_uuid));
  /* No model: the control rule says yes, and the record says so too. */
  CHECK_NUMBER(orvane_context_model_result(context, &has_value), 1);
  CHECK(has_value);
  CHECK(has_signal(list, 11, "int", "1"));
  CHECK(has_signal(list, 12, "bool", "true"));
  has_value = false;
  seconds = orvane_context_seconds_between_created_and_should_upsell_checked(context, &has_value);
  CHECK(has_value && seconds >= 0 && seconds < 5);
  CHECK(orvane_context_model_result(context, NULL) == 1); /* the out-parameter is optional */
  orvane_string_free(list);

  list = orvane_context_outcome_metadata_json(context);
  CHECK_TEXT(list, "[]");
  orvane_string_free(list);
  metadata[0] = signal_text("screen", ORVANE_CUSTOM_SIGNAL_STRING, "first");
  metadata[1] = signal_text("discount", ORVANE_CUSTOM_SIGNAL_DECIMAL, "0.50");
  metadata[2] = signal_text("screen", ORVANE_CUSTOM_SIGNAL_STRING, "second");
  /* A later entry of the same id replaces the earlier one and goes to the end. */
  orvane_context_append_outcome_metadata(context, metadata, 2);
  orvane_context_append_outcome_metadata(context, metadata + 2, 1);
  list = orvane_context_outcome_metadata_json(context);
  CHECK_TEXT(list,
             "[{\"id\":\"discount\",\"type\":\"decimal\",\"value\":\"0.5\"},"
             "{\"id\":\"screen\",\"type\":\"string\",\"value\":\"second\"}]");
  orvane_string_free(list);
  orvane_string_free(uuid);
  orvane_context_release(context);
}

static void test_custom_signals_keep_their_type_and_value(void) {
  orvane_custom_signal list[9];
  orvane_context* context;
  char* raw;
  list[0] = signal_bool("flag", true);
  list[1].id = "count";
  list[1].type = ORVANE_CUSTOM_SIGNAL_INT;
  list[1].value.int_value = -4200000000LL;
  list[2].id = "ratio";
  list[2].type = ORVANE_CUSTOM_SIGNAL_FLOAT;
  list[2].value.float_value = 0.1f;
  list[3] = signal_text("price", ORVANE_CUSTOM_SIGNAL_DECIMAL, "19.990");
  list[4] = signal_text("tier", ORVANE_CUSTOM_SIGNAL_STRING, "gold \"plus\"");
  /* Left out, each with a line: no id, a decimal that is not one, an unknown type, no text. */
  list[5] = signal_bool(NULL, true);
  list[6] = signal_text("bad_price", ORVANE_CUSTOM_SIGNAL_DECIMAL, "4,99");
  list[7] = signal_text("odd", (orvane_custom_signal_type)9, "x");
  list[8] = signal_text("empty", ORVANE_CUSTOM_SIGNAL_STRING, NULL);

  context = orvane_instant_context("custom_flow", 1, list, 9);
  raw = latest_raw("custom_flow", -101);
  CHECK(json_member_is(raw, "f_flag", "true"));
  CHECK(json_member_is(raw, "f_count", "-4200000000"));
  CHECK(json_member_is(raw, "f_ratio", "0.1"));
  CHECK(json_member_is(raw, "f_price", "\"19.99\""));
  CHECK(json_member_is(raw, "f_tier", "\"gold \\\"plus\\\"\""));
  CHECK_NUMBER(members_with_prefix(raw, "f_"), 5);
  free(raw);

  /* Outcome metadata: a repeated id replaces the earlier entry. */
  list[0] = signal_text("screen", ORVANE_CUSTOM_SIGNAL_STRING, "first");
  list[1] = signal_text("screen", ORVANE_CUSTOM_SIGNAL_STRING, "second");
  list[2] = signal_text("discount", ORVANE_CUSTOM_SIGNAL_DECIMAL, "0.5");
  orvane_context_append_outcome_metadata(context, list, 1);
  orvane_context_append_outcome_metadata(context, list + 1, 2);
  orvane_context_log(context, ORVANE_OUTCOME_POSITIVE);
  raw = latest_raw("custom_flow", 1);
  CHECK(json_member_is(raw, "o_screen", "\"second\""));
  CHECK(json_member_is(raw, "o_discount", "\"0.5\""));
  CHECK_NUMBER(members_with_prefix(raw, "o_"), 2);
  free(raw);
  orvane_context_release(context);
}

static void test_global_signals_join_later_logs_until_removed(void) {
  char* raw;
  orvane_set_global_custom_signal_bool("g_bool", false);
  orvane_set_global_custom_signal_int("g_int", 7);
  orvane_set_global_custom_signal_int("g_int", 8); /* replaces */
  orvane_set_global_custom_signal_float("g_float", 2.5f);
  orvane_set_global_custom_signal_double("g_double", 0.1);
  orvane_set_global_custom_signal_decimal("g_decimal", "-1.250");
  orvane_set_global_custom_signal_decimal("g_bad", "1.2.3");
  orvane_set_global_custom_signal_string("g_text", "hello");
  raw = fresh_record("globals");
  CHECK(json_member_is(raw, "g_g_bool", "false"));
  CHECK(json_member_is(raw, "g_g_int", "8"));
  CHECK(json_member_is(raw, "g_g_float", "2.5"));
  CHECK(json_member_is(raw, "g_g_double", "0.1")); /* stored as a float */
  CHECK(json_member_is(raw, "g_g_decimal", "\"-1.25\""));
  CHECK(json_member_is(raw, "g_g_text", "\"hello\""));
  CHECK_NUMBER(members_with_prefix(raw, "g_"), 6);
  free(raw);

  orvane_set_global_custom_signal_string("g_text", NULL);
  orvane_remove_global_custom_signal("g_int");
  raw = fresh_record("globals");
  CHECK_NUMBER(members_with_prefix(raw, "g_"), 4);
  CHECK(!contains(raw, "g_g_text"));
  CHECK(!contains(raw, "g_g_int"));
  free(raw);
  orvane_remove_global_custom_signal("g_bool");
  orvane_remove_global_custom_signal("g_float");
  orvane_remove_global_custom_signal("g_double");
  orvane_remove_global_custom_signal("g_decimal");
}

static void test_revenue_forms_log_the_purchase_with_the_outcome(void) {
  const orvane_revenue_event ad = {ORVANE_REVENUE_AD_CLICK, "0.015", "eur"};
  const orvane_revenue_event bad_currency = {ORVANE_REVENUE_TIP, "1", "xyz"};
  const orvane_revenue_event bad_source = {(orvane_revenue_source)42, "1", "usd"};
  const orvane_storekit1_product_discount trial = {
      "0", {ORVANE_PERIOD_WEEK, 1}, ORVANE_PAYMENT_FREE_TRIAL};
  const orvane_storekit1_product sk1 = {"9.99", "USD", true, true, {ORVANE_PERIOD_MONTH, 1},
                                        &trial};
  const orvane_storekit1_product sk1_bad = {"9,99", "USD", false, false, {ORVANE_PERIOD_MONTH, 1},
                                            NULL};
  const orvane_storekit1_transaction purchased = {ORVANE_TRANSACTION_PURCHASED, true, 1.7e9};
  const orvane_storekit2_subscription_info yearly = {{ORVANE_PERIOD_YEAR, 1}, NULL};
  const orvane_storekit2_product sk2 = {"49.99", "CHF", NULL, false, &yearly};
  orvane_context* context;
  size_t before;
  char* raw;

  context = orvane_instant_context("revenue_event", 1, NULL, 0);
  before = captured_count();
  orvane_context_log_revenue_event(context, &bad_currency, ORVANE_OUTCOME_POSITIVE_CONVERTED);
  orvane_context_log_revenue_event(context, &bad_source, ORVANE_OUTCOME_POSITIVE_CONVERTED);
  orvane_context_log_revenue_event(context, &ad, (orvane_event_outcome)9);
  CHECK_NUMBER(captured_count(), before);
  orvane_context_log_revenue_event(context, &ad, ORVANE_OUTCOME_POSITIVE_AD_TAPPED);
  CHECK_NUMBER(captured_count(), before + 1);
  raw = latest_raw("revenue_event", 4);
  CHECK(json_member_is(raw, "o_ctx_revenue", "\"0.015\""));
  CHECK(json_member_is(raw, "o_ctx_currency", "\"EUR\""));
  CHECK(json_member_is(raw, "o_ctx_revenue_source", "\"ad_click\""));
  free(raw);
  /* Logged already: the twin does nothing. */
  orvane_context_log_revenue_event_if_not_logged_yet(context, &ad, ORVANE_OUTCOME_POSITIVE);
  orvane_context_log_storekit1_product_revenue_if_not_logged_yet(context, &sk1,
                                                                 ORVANE_OUTCOME_POSITIVE);
  orvane_context_log_storekit2_revenue_if_not_logged_yet(context, &sk2, ORVANE_OUTCOME_POSITIVE);
  orvane_context_log_storekit1_transaction_revenue_if_not_logged_yet(context, &purchased, NULL,
                                                                     ORVANE_OUTCOME_POSITIVE);
  CHECK_NUMBER(captured_count(), before + 1);
  orvane_context_release(context);

  context = orvane_instant_context("revenue_sk1", 1, NULL, 0);
  before = captured_count();
  orvane_context_log_storekit1_product_revenue(context, &sk1_bad, ORVANE_OUTCOME_POSITIVE);
  CHECK_NUMBER(captured_count(), before);
  orvane_context_log_storekit1_product_revenue_if_not_logged_yet(context, &sk1,
                                                                 ORVANE_OUTCOME_POSITIVE);
  raw = latest_raw("revenue_sk1", 1);
  CHECK(json_member_is(raw, "o_ctx_revenue", "\"9.99\""));
  CHECK(json_member_is(raw, "o_ctx_recurrence", "\"recurring\""));
  CHECK(json_member_is(raw, "o_ctx_is_family_shareable", "true"));
  free(raw);
  orvane_context_release(context);

  context = orvane_instant_context("revenue_sk1_transaction", 1, NULL, 0);
  orvane_context_log_storekit1_transaction_revenue(context, &purchased, &sk1,
                                                   ORVANE_OUTCOME_POSITIVE_CONVERTED);
  raw = latest_raw("revenue_sk1_transaction", 3);
  CHECK(json_member_is(raw, "o_ctx_revenue", "\"9.99\""));
  free(raw);
  orvane_context_release(context);

  context = orvane_instant_context("revenue_sk2", 1, NULL, 0);
  orvane_context_log_storekit2_revenue(context, &sk2, ORVANE_OUTCOME_POSITIVE_CONVERTED);
  raw = latest_raw("revenue_sk2", 3);
  CHECK(json_member_is(raw, "o_ctx_revenue", "\"49.99\""));
  CHECK(json_member_is(raw, "o_ctx_recurrence", "\"recurring\""));
  free(raw);
  orvane_context_release(context);
}

static bool tracked_record_arrived(void* flow) {
  bool found = false;
  captured_log log = captured_latest(flow, -100, &found);
  captured_free(&log);
  return found;
}

static void test_tracked_events_log_a_record_of_their_kind(void) {
  typedef void (*track_fn)(const char*, const orvane_custom_signal*, size_t);
  static const struct {
    track_fn track;
    const char* name;
    int event_type;
    const char* method; /* how the context was made */
  } kinds[] = {
      {orvane_track_event, "tracked_event", 12, "7"},
      {orvane_track_page_view, "tracked_page", 10, "8"},
      {orvane_track_user_action, "tracked_action", 11, "9"},
  };
  const orvane_custom_signal source = signal_text("source", ORVANE_CUSTOM_SIGNAL_STRING, "menu");
  size_t i;
  for (i = 0; i < sizeof kinds / sizeof kinds[0]; ++i) {
    bool found = false;
    captured_log log;
    kinds[i].track(kinds[i].name, &source, 1);
    if (!host_loop_run_until(tracked_record_arrived, (void*)kinds[i].name, 10)) {
      FAIL("%s logged no tracked record", kinds[i].name);
      continue;
    }
    log = captured_latest(kinds[i].name, -100, &found);
    CHECK_NUMBER(log.event_type, kinds[i].event_type);
    CHECK(json_member_is(log.values_json, "ctx_25", kinds[i].method));
    CHECK(json_member_is(log.values_json, "f_source", "\"menu\""));
    captured_free(&log);
  }
}

static void test_recent_context_is_the_flows_latest_handed_out_again(void) {
  orvane_context* context = orvane_instant_context("recent_flow", 1, NULL, 0);
  orvane_context* recent;
  char *uuid, *recent_uuid, *list;
  CHECK(orvane_recent_context("never_requested") == NULL);
  list = orvane_context_signals_json(context);
  CHECK(!has_signal(list, 27, "bool", "true"));
  orvane_string_free(list);

  recent = orvane_recent_context("recent_flow");
  if (!CHECK(recent != NULL)) {
    orvane_context_release(context);
    return;
  }
  uuid = orvane_context_uuid(context);
  recent_uuid = orvane_context_uuid(recent);
  CHECK_TEXT(recent_uuid, uuid);
  list = orvane_context_signals_json(recent);
  CHECK(has_signal(list, 27, "bool", "true"));
  orvane_string_free(list);
  orvane_string_free(uuid);
  orvane_string_free(recent_uuid);
  orvane_context_release(recent);
  orvane_context_release(context);
}

/* Whether a new record says decisions are enabled (signal 503). */
static bool decisions_recorded_as(const char* expected) {
  char* raw = fresh_record("switches");
  const bool matches = json_member_is(raw, "ctx_503", expected);
  free(raw);
  return matches;
}

static void test_decisions_and_control_mode_switches_reach_the_record(void) {
  CHECK(decisions_recorded_as("true"));
  orvane_set_decisions_enabled(false);
  CHECK(decisions_recorded_as("false"));
  orvane_set_decisions_enabled(true);
  CHECK(decisions_recorded_as("true"));
  orvane_set_control_mode(true);
  CHECK(decisions_recorded_as("false"));
  orvane_set_control_mode(false);
  CHECK(decisions_recorded_as("true"));
}

static void test_golden_signals_are_a_json_object_tied_to_a_logged_record(void) {
  char id[64];
  char* json = orvane_golden_signals("banner", "bid-7");
  char* raw;
  CHECK(json_is_valid(json));
  /* A 17-character identifier, quoted. */
  CHECK(json_member(json, "ctxId", id, sizeof id) && strlen(id) == 19 && id[0] == '"');
  raw = latest_raw("Orvane_41e6625b_golden_signals_banner", -104);
  CHECK(json_member_is(raw, "ctx_752", "\"bid-7\""));
  CHECK(json_member_is(raw, "ctx_751", id));
  free(raw);
  orvane_string_free(json);

  json = orvane_golden_signals(NULL, NULL);
  CHECK(json_is_valid(json) && json_member(json, "ctxId", id, sizeof id));
  orvane_string_free(json);
}

static void test_device_facts_reach_the_request_signals(void) {
  char* raw;
  CHECK(orvane_update_device_facts(
      "{\"battery\": {\"level\": 0.5, \"state\": 2}, \"thermalState\": 2, \"orientation\": 3,"
      " \"isLowPowerModeEnabled\": true, \"mainScreen\": {\"brightness\": 0.75},"
      " \"futureFact\": 1}"));
  raw = fresh_record("device");
  CHECK(json_member_is(raw, "ctx_50", "0.5"));
  CHECK(json_member_is(raw, "ctx_51", "2"));
  CHECK(json_member_is(raw, "ctx_52", "true"));
  CHECK(json_member_is(raw, "ctx_53", "0.75"));
  CHECK(json_member_is(raw, "ctx_54", "2"));
  CHECK(json_member_is(raw, "ctx_55", "true"));
  free(raw);

  /* A wrong type anywhere changes nothing, not even the keys before it. */
  CHECK(
      !orvane_update_device_facts("{\"isLowPowerModeEnabled\": false, \"thermalState\": \"hot\"}"));
  CHECK(!orvane_update_device_facts("{\"battery\": {\"level\": \"full\"}}"));
  CHECK(!orvane_update_device_facts("[1, 2]"));
  CHECK(!orvane_update_device_facts("{\"battery\": "));
  raw = fresh_record("device");
  CHECK(json_member_is(raw, "ctx_52", "true"));
  CHECK(json_member_is(raw, "ctx_50", "0.5"));
  free(raw);

  /* Null makes a fact unknown again; a nested key merges into what is known. */
  CHECK(
      orvane_update_device_facts("{\"isLowPowerModeEnabled\": null, \"battery\": {\"state\": 3}}"));
  raw = fresh_record("device");
  CHECK(raw != NULL && !contains(raw, "\"ctx_52\""));
  CHECK(json_member_is(raw, "ctx_50", "0.5"));
  CHECK(json_member_is(raw, "ctx_51", "3"));
  free(raw);
}

static bool network_reported(void* unused) {
  char* raw = fresh_record("network");
  bool reported;
  (void)unused;
  reported = json_member_is(raw, "ctx_63", "true") && json_member_is(raw, "ctx_424", "true") &&
             json_member_is(raw, "ctx_425", "false") && json_member_is(raw, "ctx_62", "false");
  free(raw);
  return reported;
}

static void test_network_paths_stated_by_the_host_reach_the_request_signals(void) {
  orvane_set_network_path(ORVANE_NETWORK_ANY, true, ORVANE_YES, ORVANE_NO);
  orvane_set_network_path(ORVANE_NETWORK_WIFI, false, ORVANE_UNKNOWN, ORVANE_UNKNOWN);
  /* The monitors hear of it on queues of their own. */
  CHECK(host_loop_run_until(network_reported, NULL, 5));
}

static void test_launch_options_set_the_launch_reason(void) {
  char* raw;
  CHECK(orvane_application_did_finish_launching("{\"remoteNotification\": {\"aps\": {}}}",
                                                "capi-outcomes-license-key", NULL));
  raw = fresh_record("launch");
  CHECK(json_member_is(raw, "ctx_452", "2"));
  free(raw);
  CHECK(!orvane_application_did_finish_launching("[\"url\"]", "capi-outcomes-license-key", NULL));
  CHECK(orvane_application_did_finish_launching("{\"url\": \"app://open\"}",
                                                "capi-outcomes-license-key", NULL));
  raw = fresh_record("launch");
  CHECK(json_member_is(raw, "ctx_452", "1"));
  free(raw);
}

static void test_model_queries_answer_for_a_flow_without_a_model(void) {
  orvane_model_information information;
  orvane_context* context = orvane_instant_context("plain_flow", 1, NULL, 0);
  char* version = orvane_current_applied_custom_model_version();
  char* report = orvane_context_validate(context);
  information.model_version = (char*)"stale";
  CHECK(!orvane_get_custom_model("plain_flow", &information));
  CHECK(information.model_version == NULL);
  CHECK_TEXT(version, "calibration");
  CHECK(contains(report, "plain_flow"));
  /* Without a model every flow says yes. */
  CHECK(orvane_context_should_upsell(context));
  CHECK(orvane_context_created_at(context) > 1.6e9);
  orvane_string_free(version);
  orvane_string_free(report);
  orvane_context_release(context);
}

static void test_diagnostics_name_the_installation_and_an_empty_queue_flushes(void) {
  char* first = orvane_diagnostics_json();
  char* second = orvane_diagnostics_json();
  char id[64] = {0};
  char again[64] = {0};
  CHECK(json_is_valid(first));
  CHECK(json_member(first, "installationID", id, sizeof id) && strlen(id) > 30);
  CHECK(json_member(second, "installationID", again, sizeof again) && strcmp(id, again) == 0);
  /* Logs go to the host's sender here, so nothing waits and nothing needs the network. */
  CHECK(json_member_is(first, "queuedRecords", "0"));
  CHECK(json_member_is(first, "recordsWaitingInMemory", "0"));
  CHECK(json_member_is(first, "uploadInFlight", "false"));
  CHECK(orvane_flush(5));
  orvane_string_free(first);
  orvane_string_free(second);
}

int main(void) {
  orvane_configuration configuration;
  use_temporary_environment("outcomes");
  if (!host_loop_install() || !orvane_use_host_network()) return 2;
  orvane_configuration_init(&configuration);
  configuration.default_ab_test_name = "capi";
  configuration.default_ab_cohort_name = "a";
  if (!orvane_setup_with_log_sender("capi-outcomes-license-key", &configuration, capture_log, NULL,
                                    NULL)) {
    return 2;
  }
  run_test("outcomes reach the sender as logged", test_outcomes_reach_the_sender_as_logged);
  run_test("a replaced sender releases its data; the log has its encoded forms",
           test_a_replaced_sender_releases_its_data_and_the_log_has_its_encoded_forms);
  run_test("a context reads back what it recorded", test_a_context_reads_back_what_it_recorded);
  run_test("custom signals keep their type and value",
           test_custom_signals_keep_their_type_and_value);
  run_test("global signals join later logs until removed",
           test_global_signals_join_later_logs_until_removed);
  run_test("revenue forms log the purchase with the outcome",
           test_revenue_forms_log_the_purchase_with_the_outcome);
  run_test("tracked events log a record of their kind",
           test_tracked_events_log_a_record_of_their_kind);
  run_test("recent context is the flow's latest, handed out again",
           test_recent_context_is_the_flows_latest_handed_out_again);
  run_test("decisions and control-mode switches reach the record",
           test_decisions_and_control_mode_switches_reach_the_record);
  run_test("golden signals are a JSON object tied to a logged record",
           test_golden_signals_are_a_json_object_tied_to_a_logged_record);
  run_test("device facts reach the request signals", test_device_facts_reach_the_request_signals);
  run_test("network paths stated by the host reach the request signals",
           test_network_paths_stated_by_the_host_reach_the_request_signals);
  run_test("launch options set the launch reason", test_launch_options_set_the_launch_reason);
  run_test("model queries answer for a flow without a model",
           test_model_queries_answer_for_a_flow_without_a_model);
  run_test("diagnostics name the installation and an empty queue flushes",
           test_diagnostics_name_the_installation_and_an_empty_queue_flushes);
  return finish_tests();
}
