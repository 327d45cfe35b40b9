#define _GNU_SOURCE /* mkdtemp, setenv, CLOCK_BOOTTIME */

#include "harness.h"

#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

/* ---- Tests and checks ------------------------------------------------------------------ */

static int tests_passed = 0;
static int tests_failed = 0;
static bool current_failed = false;
static const char* current_test = "";

void run_test(const char* name, void (*test)(void)) {
  current_test = name;
  current_failed = false;
  test();
  if (current_failed) {
    ++tests_failed;
    printf("FAILED %s\n", name);
  } else {
    ++tests_passed;
    printf("ok     %s\n", name);
  }
  fflush(stdout);
}

int finish_tests(void) {
  printf("%d passed, %d failed\n", tests_passed, tests_failed);
  fflush(stdout);
  return tests_failed == 0 && tests_passed > 0 ? 0 : 1;
}

bool check_that(bool ok, const char* expression, const char* file, int line) {
  if (!ok) {
    current_failed = true;
    printf("  %s:%d: in %s: %s\n", file, line, current_test, expression);
  }
  return ok;
}

void fail_check(const char* file, int line, const char* format, ...) {
  va_list arguments;
  current_failed = true;
  printf("  %s:%d: in %s: ", file, line, current_test);
  va_start(arguments, format);
  vprintf(format, arguments);
  va_end(arguments);
  printf("\n");
}

bool check_text(const char* actual, const char* expected, const char* expression, const char* file,
                int line) {
  const bool ok = actual != NULL && expected != NULL && strcmp(actual, expected) == 0;
  if (!ok) {
    current_failed = true;
    printf("  %s:%d: in %s: %s is \"%s\", expected \"%s\"\n", file, line, current_test, expression,
           actual ? actual : "(null)", expected ? expected : "(null)");
  }
  return ok;
}

bool check_number(long long actual, long long expected, const char* expression, const char* file,
                  int line) {
  if (actual != expected) {
    current_failed = true;
    printf("  %s:%d: in %s: %s is %lld, expected %lld\n", file, line, current_test, expression,
           actual, expected);
  }
  return actual == expected;
}

/* ---- Environment ------------------------------------------------------------------------ */

void use_temporary_environment(const char* tag) {
  char folder[256];
  const char* base = getenv("TMPDIR");
  snprintf(folder, sizeof folder, "%s/orvane-capi-%s-XXXXXX", base && *base ? base : "/tmp", tag);
  if (mkdtemp(folder) == NULL) {
    perror("mkdtemp");
    exit(2);
  }
  setenv("ORVANE_DATA_DIR", folder, 1);
  /* The discard port: connections are refused at once. */
  setenv("ORVANE_SERVICE_URL", "http://127.0.0.1:9", 1);
}

double seconds_since_boot(void) {
  struct timespec now;
  clock_gettime(CLOCK_BOOTTIME, &now);
  return (double)now.tv_sec + (double)now.tv_nsec * 1e-9;
}

void sleep_seconds(double seconds) {
  struct timespec span;
  span.tv_sec = (time_t)seconds;
  span.tv_nsec = (long)((seconds - (double)span.tv_sec) * 1e9);
  nanosleep(&span, NULL);
}

bool contains(const char* text, const char* part) {
  return text != NULL && part != NULL && strstr(text, part) != NULL;
}

/* ---- The host's main loop --------------------------------------------------------------- */

typedef struct job_node {
  orvane_main_job* job;
  struct job_node* next;
} job_node;

static pthread_mutex_t loop_mutex = PTHREAD_MUTEX_INITIALIZER;
static job_node* loop_head = NULL;
static job_node* loop_tail = NULL;
static size_t loop_count = 0;

static void dispatch(orvane_main_job* job, void* user_data) {
  job_node* node = malloc(sizeof *node);
  (void)user_data;
  node->job = job;
  node->next = NULL;
  pthread_mutex_lock(&loop_mutex);
  if (loop_tail) {
    loop_tail->next = node;
  } else {
    loop_head = node;
  }
  loop_tail = node;
  ++loop_count;
  pthread_mutex_unlock(&loop_mutex);
}

bool host_loop_install(void) {
  const bool installed = orvane_use_main_dispatcher(dispatch, NULL);
  orvane_main_thread_set_current();
  return installed;
}

size_t host_loop_pending(void) {
  size_t count;
  pthread_mutex_lock(&loop_mutex);
  count = loop_count;
  pthread_mutex_unlock(&loop_mutex);
  return count;
}

size_t host_loop_run(void) {
  size_t ran = 0;
  for (;;) {
    job_node* node;
    pthread_mutex_lock(&loop_mutex);
    node = loop_head;
    if (node) {
      loop_head = node->next;
      if (!loop_head) loop_tail = NULL;
      --loop_count;
    }
    pthread_mutex_unlock(&loop_mutex);
    if (!node) return ran;
    orvane_main_job_run(node->job);
    free(node);
    ++ran;
  }
}

bool host_loop_run_until(bool (*done)(void*), void* argument, double timeout) {
  const double deadline = seconds_since_boot() + timeout;
  for (;;) {
    host_loop_run();
    if (done(argument)) return true;
    if (seconds_since_boot() > deadline) return false;
    sleep_seconds(0.005);
  }
}

/* ---- Logs the log sender received -------------------------------------------------------- */

#define MAX_LOGS 512
static pthread_mutex_t logs_mutex = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t logs_changed = PTHREAD_COND_INITIALIZER;
static captured_log logs[MAX_LOGS];
static size_t log_count = 0;

static char* duplicate(const char* text) {
  char* copy;
  if (!text) return NULL;
  copy = malloc(strlen(text) + 1);
  strcpy(copy, text);
  return copy;
}

static const char* find_member(const char* json, const char* key, size_t* length);
static const char* find_element(const char* json, size_t index, size_t* length);

/* Text that grows; a failed allocation is a harness failure. */
typedef struct text_buffer {
  char* data;
  size_t length;
} text_buffer;

static void append_text(text_buffer* buffer, const char* text, size_t length) {
  char* grown = realloc(buffer->data, buffer->length + length + 1);
  if (!grown) {
    fprintf(stderr, "harness: out of memory\n");
    abort();
  }
  memcpy(grown + buffer->length, text, length);
  buffer->length += length;
  grown[buffer->length] = '\0';
  buffer->data = grown;
}

/* Adds "<prefix><id>": <value> to the object `flat` (kept closed, so that it stays valid)
 * for each entry of the signal list `list` whose key is not there yet. Takes `list`. */
static void add_signals(text_buffer* flat, const char* prefix, char* list) {
  char id[256];
  char key[300];
  size_t i, entry_length = 0;
  const char* element;
  for (i = 0; list && (element = find_element(list, i, &entry_length)) != NULL; ++i) {
    text_buffer entry = {NULL, 0};
    size_t value_length = 0, unused;
    const char* value;
    append_text(&entry, element, entry_length);
    value = find_member(entry.data, "value", &value_length);
    if (!value || !json_member(entry.data, "id", id, sizeof id)) {
      free(entry.data);
      continue;
    }
    /* Text ids are quoted; the tests' ids have no escapes. */
    if (id[0] == '"') {
      id[strlen(id) - 1] = '\0';
      memmove(id, id + 1, strlen(id));
    }
    snprintf(key, sizeof key, "%s%s", prefix, id);
    if (find_member(flat->data, key, &unused)) {
      free(entry.data);
      continue;
    }
    flat->length -= 1; /* reopen: drop the closing brace */
    if (flat->length > 1) append_text(flat, ",", 1);
    append_text(flat, "\"", 1);
    append_text(flat, key, strlen(key));
    append_text(flat, "\":", 2);
    append_text(flat, value, value_length);
    append_text(flat, "}", 1);
    free(entry.data);
  }
  orvane_string_free(list);
}

char* harness_log_values_json(const orvane_log* log) {
  text_buffer flat = {NULL, 0};
  if (!log) return NULL;
  append_text(&flat, "{}", 2);
  add_signals(&flat, "ctx_", orvane_log_signals_json(log));
  add_signals(&flat, "f_", orvane_log_custom_signals_json(log));
  add_signals(&flat, "g_", orvane_log_global_signals_json(log));
  add_signals(&flat, "o_", orvane_log_outcome_metadata_json(log));
  return flat.data;
}

void capture_log(orvane_log* log, void* user_data) {
  captured_log entry;
  (void)user_data;
  entry.outcome = orvane_log_outcome(log);
  entry.event_type = orvane_log_event_type(log);
  entry.id = orvane_log_id(log);
  entry.flow = orvane_log_flow_name(log);
  entry.context_uuid = orvane_log_context_uuid(log);
  entry.values_json = harness_log_values_json(log);
  pthread_mutex_lock(&logs_mutex);
  if (log_count < MAX_LOGS) {
    logs[log_count++] = entry;
  } else {
    captured_free(&entry);
  }
  pthread_cond_broadcast(&logs_changed);
  pthread_mutex_unlock(&logs_mutex);
}

size_t captured_count(void) {
  size_t count;
  pthread_mutex_lock(&logs_mutex);
  count = log_count;
  pthread_mutex_unlock(&logs_mutex);
  return count;
}

static captured_log copy_log(const captured_log* log) {
  captured_log copy = *log;
  copy.id = duplicate(log->id);
  copy.flow = duplicate(log->flow);
  copy.context_uuid = duplicate(log->context_uuid);
  copy.values_json = duplicate(log->values_json);
  return copy;
}

captured_log captured_at(size_t index) {
  captured_log copy;
  memset(&copy, 0, sizeof copy);
  pthread_mutex_lock(&logs_mutex);
  if (index < log_count) copy = copy_log(&logs[index]);
  pthread_mutex_unlock(&logs_mutex);
  return copy;
}

captured_log captured_latest(const char* flow, int32_t outcome, bool* found) {
  captured_log copy;
  size_t i;
  memset(&copy, 0, sizeof copy);
  *found = false;
  pthread_mutex_lock(&logs_mutex);
  for (i = log_count; i > 0; --i) {
    const captured_log* log = &logs[i - 1];
    if (log->outcome == outcome && log->flow && strcmp(log->flow, flow) == 0) {
      copy = copy_log(log);
      *found = true;
      break;
    }
  }
  pthread_mutex_unlock(&logs_mutex);
  return copy;
}

void captured_free(captured_log* log) {
  /* The SDK's strings and the harness's copies both come from malloc. */
  free(log->id);
  free(log->flow);
  free(log->context_uuid);
  free(log->values_json);
  memset(log, 0, sizeof *log);
}

bool captured_wait_for(size_t count, double timeout) {
  struct timespec deadline;
  bool reached;
  clock_gettime(CLOCK_REALTIME, &deadline);
  deadline.tv_sec += (time_t)timeout;
  pthread_mutex_lock(&logs_mutex);
  while (log_count < count) {
    if (pthread_cond_timedwait(&logs_changed, &logs_mutex, &deadline) != 0) break;
  }
  reached = log_count >= count;
  pthread_mutex_unlock(&logs_mutex);
  return reached;
}

/* ---- JSON -------------------------------------------------------------------------------- */

static void skip_space(const char** p) {
  while (**p == ' ' || **p == '\t' || **p == '\n' || **p == '\r') ++*p;
}

static bool parse_value(const char** p, int depth);

static bool parse_string(const char** p) {
  if (**p != '"') return false;
  ++*p;
  while (**p != '"') {
    const unsigned char c = (unsigned char)**p;
    if (c == '\0' || c < 0x20) return false;
    if (c == '\\') {
      ++*p;
      if (**p == 'u') {
        int i;
        for (i = 1; i <= 4; ++i) {
          const char h = (*p)[i];
          if (!((h >= '0' && h <= '9') || (h >= 'a' && h <= 'f') || (h >= 'A' && h <= 'F'))) {
            return false;
          }
        }
        *p += 4;
      } else if (!strchr("\"\\/bfnrt", **p) || **p == '\0') {
        return false;
      }
    }
    ++*p;
  }
  ++*p;
  return true;
}

static bool parse_digits(const char** p) {
  const char* start = *p;
  while (**p >= '0' && **p <= '9') ++*p;
  return *p > start;
}

static bool parse_number(const char** p) {
  if (**p == '-') ++*p;
  if (**p == '0') {
    ++*p;
  } else if (!parse_digits(p)) {
    return false;
  }
  if (**p == '.') {
    ++*p;
    if (!parse_digits(p)) return false;
  }
  if (**p == 'e' || **p == 'E') {
    ++*p;
    if (**p == '+' || **p == '-') ++*p;
    if (!parse_digits(p)) return false;
  }
  return true;
}

static bool parse_literal(const char** p, const char* word) {
  const size_t length = strlen(word);
  if (strncmp(*p, word, length) != 0) return false;
  *p += length;
  return true;
}

static bool parse_container(const char** p, int depth, char close) {
  bool object = close == '}';
  ++*p;
  skip_space(p);
  if (**p == close) {
    ++*p;
    return true;
  }
  for (;;) {
    skip_space(p);
    if (object) {
      if (!parse_string(p)) return false;
      skip_space(p);
      if (**p != ':') return false;
      ++*p;
    }
    if (!parse_value(p, depth + 1)) return false;
    skip_space(p);
    if (**p == close) {
      ++*p;
      return true;
    }
    if (**p != ',') return false;
    ++*p;
  }
}

static bool parse_value(const char** p, int depth) {
  if (depth > 64) return false;
  skip_space(p);
  switch (**p) {
    case '{':
      return parse_container(p, depth, '}');
    case '[':
      return parse_container(p, depth, ']');
    case '"':
      return parse_string(p);
    case 't':
      return parse_literal(p, "true");
    case 'f':
      return parse_literal(p, "false");
    case 'n':
      return parse_literal(p, "null");
    default:
      return parse_number(p);
  }
}

bool json_is_valid(const char* text) {
  const char* p = text;
  if (!text || !parse_value(&p, 0)) return false;
  skip_space(&p);
  return *p == '\0';
}

/* The start of the value of member `key` of the object `json`, its length in `length`; NULL
 * when the text is not an object or has no such member. */
static const char* find_member(const char* json, const char* key, size_t* length) {
  const char* p = json;
  const size_t key_length = strlen(key);
  if (!json_is_valid(json)) return NULL;
  skip_space(&p);
  if (*p != '{') return NULL;
  ++p;
  for (;;) {
    const char* name;
    const char* value;
    bool match;
    skip_space(&p);
    if (*p != '"') return NULL;
    name = p + 1;
    parse_string(&p);
    /* Keys with escapes never match: the tests' keys have none. */
    match = (size_t)(p - 1 - name) == key_length && strncmp(name, key, key_length) == 0;
    skip_space(&p);
    ++p; /* ':' */
    skip_space(&p);
    value = p;
    parse_value(&p, 1);
    if (match) {
      *length = (size_t)(p - value);
      return value;
    }
    skip_space(&p);
    if (*p != ',') return NULL;
    ++p;
  }
}

/* The start of element `index` of the array `json`, as find_member. */
static const char* find_element(const char* json, size_t index, size_t* length) {
  const char* p = json;
  size_t i;
  if (!json_is_valid(json)) return NULL;
  skip_space(&p);
  if (*p != '[') return NULL;
  ++p;
  skip_space(&p);
  if (*p == ']') return NULL;
  for (i = 0;; ++i) {
    const char* value;
    skip_space(&p);
    value = p;
    parse_value(&p, 1);
    if (i == index) {
      *length = (size_t)(p - value);
      return value;
    }
    skip_space(&p);
    if (*p != ',') return NULL;
    ++p;
  }
}

static bool copy_out(const char* value, size_t length, char* out, size_t size) {
  if (!value || length + 1 > size) return false;
  memcpy(out, value, length);
  out[length] = '\0';
  return true;
}

bool json_member(const char* json, const char* key, char* out, size_t size) {
  size_t length = 0;
  const char* value = json ? find_member(json, key, &length) : NULL;
  return copy_out(value, length, out, size);
}

bool json_element(const char* json, size_t index, char* out, size_t size) {
  size_t length = 0;
  const char* value = json ? find_element(json, index, &length) : NULL;
  return copy_out(value, length, out, size);
}

bool json_member_is(const char* json, const char* key, const char* expected) {
  char value[4096];
  return json != NULL && json_member(json, key, value, sizeof value) &&
         strcmp(value, expected) == 0;
}
