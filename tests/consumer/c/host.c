/* The smallest C host: set the SDK up with a log sender, ask for a decision, record the
 * outcome, and see the record arrive. Built against an installed package through pkg-config
 * (scripts/check-install.sh). Exits non-zero when any step fails. */
#define _POSIX_C_SOURCE 200809L
#include <stdatomic.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

#include "orvane/Version.h"
#include "orvane/orvane.h"

static atomic_int logs_received;

static void on_log(orvane_log* log, void* user_data) {
  (void)user_data;
  char* base64 = orvane_log_base64(log);
  if (base64 != NULL && base64[0] != '\0') atomic_fetch_add(&logs_received, 1);
  orvane_string_free(base64);
}

int main(void) {
  orvane_configuration configuration;
  orvane_configuration_init(&configuration);
  if (!orvane_setup_with_log_sender("0123456789abcdef0123456789abcdef", &configuration, on_log,
                                    NULL, NULL)) {
    fprintf(stderr, "setup refused\n");
    return 1;
  }
  orvane_context* context = orvane_instant_context("consumer_check", 1, NULL, 0);
  if (context == NULL) {
    fprintf(stderr, "no context\n");
    return 1;
  }
  orvane_context_log(context, ORVANE_OUTCOME_POSITIVE);
  const struct timespec tick = {0, 10 * 1000 * 1000};
  for (int i = 0; i < 200 && atomic_load(&logs_received) == 0; ++i) nanosleep(&tick, NULL);

  const char* version = orvane_sdk_version();
  const int logs = atomic_load(&logs_received);
  printf("sdk %s (headers %s), decision %s, logs %d\n", version, ORVANE_VERSION_STRING,
         orvane_context_should_upsell(context) ? "yes" : "no", logs);
  orvane_context_release(context);
  return strcmp(version, ORVANE_VERSION_STRING) == 0 && logs >= 1 ? 0 : 1;
}
