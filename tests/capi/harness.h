/* A small harness for the C interface's tests: checks grouped into named tests, a host main
 * loop for orvane_use_main_dispatcher, a log sender that keeps what it receives, and a JSON
 * reader just big enough to look values up. Each test program owns one shared manager. */
#ifndef ORVANE_TESTS_CAPI_HARNESS_H
#define ORVANE_TESTS_CAPI_HARNESS_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#include "orvane/orvane.h"

/* ---- Tests and checks ------------------------------------------------------------------ */

void run_test(const char* name, void (*test)(void));
/* Prints "N passed, M failed" (tests, not checks) and returns the exit status. */
int finish_tests(void);

bool check_that(bool ok, const char* expression, const char* file, int line);
bool check_text(const char* actual, const char* expected, const char* expression, const char* file,
                int line);
bool check_number(long long actual, long long expected, const char* expression, const char* file,
                  int line);
/* Records a failure with a message of its own (printf format). */
void fail_check(const char* file, int line, const char* format, ...);
#define FAIL(...) fail_check(__FILE__, __LINE__, __VA_ARGS__)
#define CHECK(condition) check_that((condition), #condition, __FILE__, __LINE__)
#define CHECK_TEXT(actual, expected) check_text((actual), (expected), #actual, __FILE__, __LINE__)
#define CHECK_NUMBER(actual, expected) \
  check_number((long long)(actual), (long long)(expected), #actual, __FILE__, __LINE__)

/* ---- Environment ------------------------------------------------------------------------ */

/* A fresh data folder for this process, and a service address nothing listens on, so that
 * nothing leaves the machine. Call it before the first SDK call. */
void use_temporary_environment(const char* tag);
double seconds_since_boot(void);
void sleep_seconds(double seconds);
/* Whether `text` contains `part` (false for NULL). */
bool contains(const char* text, const char* part);

/* ---- The host's main loop --------------------------------------------------------------- */

/* Chooses the loop below as the SDK's main queue and names the calling thread its main
 * thread. */
bool host_loop_install(void);
size_t host_loop_pending(void);
/* Runs jobs, including those queued while running, until none is left; returns how many. */
size_t host_loop_run(void);
/* Runs the loop until `done(argument)` or `timeout` seconds have passed. */
bool host_loop_run_until(bool (*done)(void*), void* argument, double timeout);

/* ---- Logs the log sender received -------------------------------------------------------- */

typedef struct captured_log {
  int32_t outcome;
  int32_t event_type;
  char* id;
  char* flow;
  char* context_uuid;
  char* values_json; /* see harness_log_values_json */
} captured_log;

/* The log's signal values as one JSON object, read through the orvane_log_*_json calls:
 * "ctx_<id>" built-in signals, "f_<id>" custom signals, "g_<id>" global ones, "o_<id>"
 * outcome metadata, the first entry of each key; caller frees. */
char* harness_log_values_json(const orvane_log* log);
/* A log sender (user data unused) that keeps a copy of each log's values. */
void capture_log(orvane_log* log, void* user_data);
size_t captured_count(void);
/* The i-th log received; a copy the caller frees with captured_free. */
captured_log captured_at(size_t index);
/* The latest log of `flow` with `outcome`, if any (found says which). */
captured_log captured_latest(const char* flow, int32_t outcome, bool* found);
void captured_free(captured_log* log);
/* Waits (without running a host loop) until at least `count` logs arrived. */
bool captured_wait_for(size_t count, double timeout);

/* ---- JSON -------------------------------------------------------------------------------- */

bool json_is_valid(const char* text);
/* Copies the text of the top-level member `key` of the object `json` into `out`; false when
 * the text is not an object or has no such member. */
bool json_member(const char* json, const char* key, char* out, size_t size);
/* Copies the text of element `index` of the array `json` into `out`; false past its end or
 * when the text is not an array. */
bool json_element(const char* json, size_t index, char* out, size_t size);
/* Whether the member exists and its text is exactly `expected` ("true", "\"gold\"", "0.25"). */
bool json_member_is(const char* json, const char* key, const char* expected);

#endif
