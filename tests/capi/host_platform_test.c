/* A host that drives the platform: its own main loop, motion pushed at 100 Hz, lifecycle
 * notifications and notification settings. Requests wait for the host's motion, and every
 * callback runs only when the host's loop runs its job. */
#define _GNU_SOURCE

#include <pthread.h>
#include <stdlib.h>
#include <string.h>

#include "harness.h"

/* ---- Motion ------------------------------------------------------------------------------- */

static pthread_mutex_t motion_mutex = PTHREAD_MUTEX_INITIALIZER;
static int motion_changes = 0;
static bool motion_running = false;

static void motion_state(bool running, void* user_data) {
  (void)user_data;
  pthread_mutex_lock(&motion_mutex);
  ++motion_changes;
  motion_running = running;
  pthread_mutex_unlock(&motion_mutex);
}

static int motion_change_count(void) {
  int count;
  pthread_mutex_lock(&motion_mutex);
  count = motion_changes;
  pthread_mutex_unlock(&motion_mutex);
  return count;
}

static bool sensors_running(void) {
  bool running;
  pthread_mutex_lock(&motion_mutex);
  running = motion_running;
  pthread_mutex_unlock(&motion_mutex);
  return running;
}

/* Pushes `count` updates at 100 Hz, stamped as a running sensor stamps them: every 10 ms on the
 * boot clock, continuing from the previous call, however late the delivery (a loaded machine
 * must not stretch the window). Updates are never pushed ahead of their time; after a long
 * pause the sensor starts afresh. The host loop runs between them only when `run_loop` is set.
 * Returns how many the SDK took. */
static int push_motion(int count, bool run_loop) {
  static double next_stamp = 0;
  int i, taken = 0;
  if (next_stamp < seconds_since_boot() - 1.5) next_stamp = seconds_since_boot();
  for (i = 0; i < count; ++i, next_stamp += 0.01) {
    orvane_device_motion motion;
    const double early = next_stamp - seconds_since_boot();
    if (early > 0) sleep_seconds(early);
    memset(&motion, 0, sizeof motion);
    motion.user_acceleration.x = 0.02 * (i % 7);
    motion.user_acceleration.y = -0.01 * (i % 5);
    motion.rotation_rate.z = 0.1;
    motion.gravity.z = -1;
    motion.pitch = 0.3;
    motion.timestamp = next_stamp;
    if (orvane_push_device_motion(&motion)) ++taken;
    if (run_loop) host_loop_run();
  }
  return taken;
}

/* ---- Answers -------------------------------------------------------------------------------- */

typedef struct answer {
  int calls;
  int releases;
  int releases_at_call; /* releases seen while the callback ran */
  void* user_data;
  bool on_main_thread;
  orvane_context* kept;
} answer;

static pthread_t main_thread;

/* Runs on the host's loop, so the box needs no lock. Keeps the context beyond the call. */
static void answered(orvane_context* context, void* user_data) {
  answer* box = user_data;
  ++box->calls;
  box->user_data = user_data;
  box->releases_at_call = box->releases;
  box->on_main_thread = pthread_equal(pthread_self(), main_thread) != 0;
  box->kept = orvane_context_retain(context);
}

/* May run on any thread: only counted here, read after the work is done. */
static void released(void* user_data) {
  answer* box = user_data;
  __atomic_add_fetch(&box->releases, 1, __ATOMIC_SEQ_CST);
}

static bool was_called(void* box) { return ((answer*)box)->calls > 0; }

static int releases_of(answer* box) { return __atomic_load_n(&box->releases, __ATOMIC_SEQ_CST); }

/* Some owners let go on a queue of their own: waits until `box` was released `count` times. */
static bool released_within(answer* box, int count, double timeout) {
  const double deadline = seconds_since_boot() + timeout;
  while (releases_of(box) < count) {
    if (seconds_since_boot() > deadline) return false;
    host_loop_run();
    sleep_seconds(0.005);
  }
  return true;
}

/* The request of the paywall flow; its context is kept beyond the callback. */
static answer paywall;

/* ---- Tests ---------------------------------------------------------------------------------- */

/* The host hears of starts and stops on an SDK thread, a moment after they happen. */
static bool sensors_become(bool running) {
  const double deadline = seconds_since_boot() + 5;
  while (sensors_running() != running) {
    if (seconds_since_boot() > deadline) return false;
    sleep_seconds(0.005);
  }
  return true;
}

static void test_the_host_hears_when_to_run_its_sensors(void) {
  /* The SDK samples while the app is in the foreground with instant contexts enabled. */
  CHECK(sensors_become(true));
  CHECK_NUMBER(motion_change_count(), 1);
}

static void test_fetch_waits_for_the_hosts_motion_and_answers_on_its_loop(void) {
  answer* box = &paywall;
  orvane_custom_signal placement;
  char* flow;
  bool found = false;
  captured_log creation;

  placement.id = "placement";
  placement.type = ORVANE_CUSTOM_SIGNAL_STRING;
  placement.value.string_value = "onboarding";
  orvane_fetch_context("paywall", 1, &placement, 1, answered, box, released);

  /* Half a second of motion is not enough for a one-second request. */
  CHECK_NUMBER(push_motion(50, true), 50);
  CHECK_NUMBER(box->calls, 0);

  /* Enough now; the answer waits in the host's loop until the host runs it. */
  CHECK_NUMBER(push_motion(70, false), 70);
  sleep_seconds(0.3);
  CHECK_NUMBER(box->calls, 0);
  CHECK(host_loop_pending() > 0);
  CHECK(host_loop_run_until(was_called, box, 5));

  CHECK_NUMBER(box->calls, 1);
  CHECK(box->user_data == box);
  CHECK(box->on_main_thread);
  CHECK_NUMBER(box->releases_at_call, 0);
  CHECK(released_within(box, 1, 5));
  if (!CHECK(box->kept != NULL)) return;

  /* The context outlives the callback that lent it: the SDK's handle is gone by now. */
  flow = orvane_context_flow_name(box->kept);
  CHECK_TEXT(flow, "paywall");
  orvane_string_free(flow);

  /* Its creation record carries the request's custom signal. */
  creation = captured_latest("paywall", -101, &found);
  CHECK(found);
  CHECK(json_member_is(creation.values_json, "f_placement", "\"onboarding\""));
  CHECK(json_member_is(creation.values_json, "ctx_192", "true")); /* valid motion data */
  captured_free(&creation);
}

static void test_a_kept_context_logs_its_outcome_to_the_sender(void) {
  const size_t before = captured_count();
  orvane_context* context = paywall.kept;
  captured_log outcome;
  char* uuid;
  bool found = false;
  if (!CHECK(context != NULL)) return;

  /* On the host's main thread the log sender is called before the call returns. */
  orvane_context_log(context, ORVANE_OUTCOME_POSITIVE_CONVERTED);
  CHECK_NUMBER(captured_count(), before + 1);
  outcome = captured_latest("paywall", ORVANE_OUTCOME_POSITIVE_CONVERTED, &found);
  CHECK(found);
  CHECK_NUMBER(outcome.event_type, 2);
  uuid = orvane_context_uuid(context);
  CHECK_TEXT(outcome.context_uuid, uuid);
  CHECK(orvane_context_already_logged(context));
  orvane_string_free(uuid);
  captured_free(&outcome);
  orvane_context_release(context);
  paywall.kept = NULL;
}

static void test_released_contexts_are_freed_once(void) {
  /* Two owners of one handle (the kept one plus a retain): the handle survives the first
   * release and reads the same flow; under AddressSanitizer a wrong count fails here. */
  orvane_context* context = orvane_instant_context("refcount", 1, NULL, 0);
  orvane_context* second;
  char* flow;
  if (!CHECK(context != NULL)) return;
  second = orvane_context_retain(context);
  CHECK(second == context);
  orvane_context_release(context);
  flow = orvane_context_flow_name(second);
  CHECK_TEXT(flow, "refcount");
  orvane_string_free(flow);
  orvane_context_release(second);
}

static void test_cancelled_requests_never_call_back_and_release_their_data(void) {
  static answer cancelled, kept;
  /* A one-second window counts samples of the last two seconds: let the earlier motion age
   * out, or the requests would be answered before they could be cancelled. */
  sleep_seconds(2.1);
  orvane_fetch_context("cancelled_flow", 1, NULL, 0, answered, &cancelled, released);
  orvane_fetch_context("kept_flow", 1, NULL, 0, answered, &kept, released);
  orvane_cancel_context_callback("cancelled_flow");
  CHECK(released_within(&cancelled, 1, 5));

  CHECK_NUMBER(push_motion(120, true), 120);
  CHECK(host_loop_run_until(was_called, &kept, 5));
  host_loop_run();
  /* The same motion answered the request that stayed. */
  CHECK_NUMBER(kept.calls, 1);
  CHECK_NUMBER(cancelled.calls, 0);
  orvane_context_release(kept.kept);
}

/* The creation record of `flow` says how the context was made (signal 25). */
static bool created_by(const char* flow, const char* method) {
  bool found = false, matches;
  captured_log log = captured_latest(flow, -101, &found);
  matches = found && json_member_is(log.values_json, "ctx_25", method) &&
            json_member_is(log.values_json, "ctx_192", "true");
  captured_free(&log);
  return matches;
}

static bool both_called(void* boxes) {
  answer** pair = boxes;
  return pair[0]->calls > 0 && pair[1]->calls > 0;
}

static void test_optimize_and_calibrate_wait_for_the_hosts_motion(void) {
  static answer optimized, calibrated, at_once;
  answer* waiting[2];
  waiting[0] = &optimized;
  waiting[1] = &calibrated;
  /* Let the earlier motion age out of a one-second window. */
  sleep_seconds(2.1);
  orvane_optimize("optimized", 1, NULL, 0, answered, &optimized, released);
  orvane_calibrate("calibrated", 1, NULL, 0, answered, &calibrated, released);
  /* No delay: decided at once, with whatever motion there is. */
  orvane_calibrate("calibrated_now", 0, NULL, 0, answered, &at_once, released);
  CHECK(host_loop_run_until(was_called, &at_once, 5));
  CHECK_NUMBER(optimized.calls + calibrated.calls, 0);

  CHECK_NUMBER(push_motion(120, true), 120);
  CHECK(host_loop_run_until(both_called, waiting, 5));
  CHECK(optimized.on_main_thread && calibrated.on_main_thread);
  CHECK(created_by("optimized", "4"));
  CHECK(created_by("calibrated", "3"));
  CHECK(released_within(&optimized, 1, 5) && released_within(&calibrated, 1, 5));
  orvane_context_release(optimized.kept);
  orvane_context_release(calibrated.kept);
  orvane_context_release(at_once.kept);
}

static void test_observers_release_their_data_when_replaced_or_removed(void) {
  static answer first, second;
  orvane_register_context_observer("observed", answered, &first, released);
  orvane_register_context_observer("observed", answered, &second, released);
  CHECK(released_within(&first, 1, 5));
  orvane_unregister_context_observer("observed");
  CHECK(released_within(&second, 1, 5));
  CHECK_NUMBER(releases_of(&first), 1);
  CHECK_NUMBER(first.calls + second.calls, 0);
}

static void* instant_elsewhere(void* unused) {
  (void)unused;
  orvane_context_release(orvane_instant_context("elsewhere", 1, NULL, 0));
  return NULL;
}

static void test_main_thread_is_the_hosts(void) {
  pthread_t thread;
  size_t before = captured_count();
  captured_log log;
  bool found = false;
  orvane_context* here;

  /* Created on the host's main thread: the creation record goes out before the call returns,
   * and says it was made on the main thread. */
  here = orvane_instant_context("here", 1, NULL, 0);
  CHECK_NUMBER(captured_count(), before + 1);
  log = captured_latest("here", -101, &found);
  CHECK(found && json_member_is(log.values_json, "ctx_370", "true"));
  captured_free(&log);
  orvane_context_release(here);

  /* Created on another thread: its record waits for the host's loop. */
  before = captured_count();
  pthread_create(&thread, NULL, instant_elsewhere, NULL);
  pthread_join(thread, NULL);
  CHECK_NUMBER(captured_count(), before);
  CHECK(host_loop_pending() > 0);
  host_loop_run();
  log = captured_latest("elsewhere", -101, &found);
  CHECK(found && json_member_is(log.values_json, "ctx_370", "false"));
  captured_free(&log);
}

/* The value of `key` in the creation record of a new instant context. */
static bool next_context_has(const char* flow, const char* key, const char* expected) {
  bool found = false, matches;
  captured_log log;
  orvane_context_release(orvane_instant_context(flow, 1, NULL, 0));
  log = captured_latest(flow, -101, &found);
  matches = found && json_member_is(log.values_json, key, expected);
  captured_free(&log);
  return matches;
}

static void test_lifecycle_runs_on_the_hosts_loop_and_refreshes_settings(void) {
  orvane_notification_settings settings;
  memset(&settings, 0, sizeof settings);
  settings.authorization_status = 2;
  settings.alert_style = 1;
  settings.provides_app_notification_settings = true;
  settings.direct_messages_setting = -1;
  settings.scheduled_delivery_setting = -1;
  settings.time_sensitive_setting = 2;

  orvane_application_did_become_active();
  host_loop_run();
  orvane_application_will_resign_active();
  host_loop_run();
  CHECK(sensors_become(false));

  orvane_set_notification_settings(&settings);
  orvane_application_did_become_active();
  /* Read when the app becomes active, which happens when the host runs the notification. */
  CHECK(!next_context_has("settings", "ctx_700", "2"));
  host_loop_run();
  CHECK(sensors_become(true));
  CHECK(next_context_has("settings", "ctx_700", "2"));
  CHECK(next_context_has("settings", "ctx_711", "1"));
  CHECK(next_context_has("settings", "ctx_710", "2"));
  CHECK(!next_context_has("settings", "ctx_714", "0"));
}

static void test_background_refresh_and_protected_data_reach_the_record(void) {
  /* Away from the defaults (available, readable), then back. */
  orvane_application_set_background_refresh_status(0);
  orvane_application_set_protected_data_available(false);
  CHECK(next_context_has("state", "ctx_408", "0"));
  CHECK(next_context_has("state", "ctx_409", "false"));
  orvane_application_set_background_refresh_status(2);
  orvane_application_set_protected_data_available(true);
  CHECK(next_context_has("state", "ctx_408", "2"));
  CHECK(next_context_has("state", "ctx_409", "true"));

  CHECK(next_context_has("state", "ctx_407", "0")); /* active */
  orvane_application_did_enter_background();
  CHECK(next_context_has("state", "ctx_407", "2"));
  host_loop_run();
  CHECK(sensors_become(false));
  orvane_application_did_become_active();
  host_loop_run();
  CHECK(sensors_become(true));
  CHECK(next_context_has("state", "ctx_407", "0"));
}

static void test_an_observer_fires_once_the_hosts_motion_allows(void) {
  static answer box;
  const double deadline = seconds_since_boot() + 60;
  char* flow;
  char* list;
  /* Evaluated once per polling interval (30 s without a service) on 3 s of motion. */
  orvane_register_context_observer("observer_fires", answered, &box, released);
  while (box.calls == 0 && seconds_since_boot() < deadline) push_motion(50, true);
  if (!CHECK_NUMBER(box.calls, 1)) return;
  CHECK(box.on_main_thread);
  CHECK(released_within(&box, 1, 5));
  flow = orvane_context_flow_name(box.kept);
  CHECK_TEXT(flow, "observer_fires");
  CHECK(orvane_context_should_upsell(box.kept));
  list = orvane_context_signals_json(box.kept);
  CHECK(contains(list, "{\"id\":25,\"type\":\"int\",\"value\":15}")); /* periodic */
  orvane_string_free(list);
  orvane_string_free(flow);
  orvane_context_release(box.kept);
}

int main(void) {
  const orvane_configuration* defaults = NULL;
  main_thread = pthread_self();
  use_temporary_environment("host-platform");
  if (!orvane_use_host_motion(true, true, motion_state, NULL)) return 2;
  if (!host_loop_install()) return 2;
  if (!orvane_setup_with_log_sender("capi-host-platform-license-key", defaults, capture_log, NULL,
                                    NULL)) {
    return 2;
  }
  run_test("the host hears when to run its sensors", test_the_host_hears_when_to_run_its_sensors);
  run_test("fetch waits for the host's motion and answers on its loop",
           test_fetch_waits_for_the_hosts_motion_and_answers_on_its_loop);
  run_test("a kept context logs its outcome to the sender",
           test_a_kept_context_logs_its_outcome_to_the_sender);
  run_test("released contexts are freed once", test_released_contexts_are_freed_once);
  run_test("cancelled requests never call back and release their data",
           test_cancelled_requests_never_call_back_and_release_their_data);
  run_test("observers release their data when replaced or removed",
           test_observers_release_their_data_when_replaced_or_removed);
  run_test("the main thread is the host's", test_main_thread_is_the_hosts);
  run_test("lifecycle runs on the host's loop and refreshes settings",
           test_lifecycle_runs_on_the_hosts_loop_and_refreshes_settings);
  run_test("optimize and calibrate wait for the host's motion",
           test_optimize_and_calibrate_wait_for_the_hosts_motion);
  run_test("background, refresh and protected data reach the record",
           test_background_refresh_and_protected_data_reach_the_record);
  run_test("an observer fires once the host's motion allows",
           test_an_observer_fires_once_the_hosts_motion_allows);
  return finish_tests();
}
