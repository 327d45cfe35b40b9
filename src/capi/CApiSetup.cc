// The set-up choices of a host that drives the platform itself, the shared manager they are
// applied to, and the small pieces every C entry point uses (logging, strings, handles).
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <mutex>
#include <thread>

#include "capi/CApi.h"
#include "orvane/platform/Platform.h"
#include "platform/LevelFilteredLog.h"

struct orvane_main_job {
  std::unique_ptr<orvane::HostMainQueue::Job> job;
};

namespace orvane::capi {
namespace {

struct HostMotionChoice {
  bool accelerometer = true;
  bool gyroscope = true;
  orvane_motion_state_fn onStateChange = nullptr;
  void* userData = nullptr;
};

struct DispatcherChoice {
  orvane_main_dispatcher_fn dispatcher = nullptr;
  void* userData = nullptr;
};

struct SetupChoices {
  std::optional<HostMotionChoice> motion;
  LogLineSink sink;
  std::optional<DispatcherChoice> dispatcher;
  bool hostNetwork = false;
  std::optional<std::thread::id> mainThread;

  bool any() const { return motion || sink || dispatcher || hostNetwork; }
};

struct State {
  std::mutex mutex;
  SetupChoices choices;
  // Set when the first call that needs the manager begins: choices are closed from then on.
  bool closed = false;
  // The host's main queue, once installed.
  std::shared_ptr<HostMainQueue> mainQueue;
};

State& state() {
  // Never destroyed: SDK threads may still log while the process exits.
  static State* const instance = new State();
  return *instance;
}

std::atomic<bool> managerStarted{false};

// Lines before the manager exists, with no sink chosen.
void writeToStderr(LogLevel level, std::string_view line) {
  if (level == LogLevel::kDebug && processLogLevel() != SdkLogLevel::kDebug) return;
  std::fprintf(stderr, "%.*s\n", static_cast<int>(line.size()), line.data());
}

Platform platformWith(const SetupChoices& chosen, std::shared_ptr<HostMainQueue>& mainQueue) {
  Platform platform = Platform::defaultPlatform();
  if (chosen.sink) platform.log = makeCallbackLog(chosen.sink);
  if (chosen.motion) {
    const HostMotionChoice motion = *chosen.motion;
    std::function<void(bool)> onChange;
    if (motion.onStateChange) {
      onChange = [motion](bool running) { motion.onStateChange(running, motion.userData); };
    }
    platform.motion =
        std::make_shared<HostMotionService>(motion.accelerometer, motion.gyroscope, onChange);
  }
  if (chosen.dispatcher) {
    const DispatcherChoice dispatcher = *chosen.dispatcher;
    mainQueue = std::make_shared<HostMainQueue>(
        [dispatcher](std::unique_ptr<HostMainQueue::Job> job) {
          auto* handle = new orvane_main_job{std::move(job)};
          dispatcher.dispatcher(handle, dispatcher.userData);
        },
        platform.executors->makeSerialQueue("com.orvane.MainQueueTimers"));
    platform.executors = makeExecutorsWithMainQueue(platform.executors, mainQueue);
    // Lifecycle notifications are posted to the main queue, so the service follows it.
    platform.application =
        std::make_shared<HostApplicationService>(mainQueue, ApplicationState::kInactive);
  }
  if (chosen.hostNetwork) platform.network = std::make_shared<HostNetworkPathService>();
  return platform;
}

void installChoices() {
  SetupChoices chosen;
  {
    std::lock_guard<std::mutex> guard(state().mutex);
    state().closed = true;
    chosen = state().choices;
  }
  if (chosen.any()) {
    std::shared_ptr<HostMainQueue> mainQueue;
    Platform platform = platformWith(chosen, mainQueue);
    if (ContextManager::installDefaultPlatform(std::move(platform))) {
      std::lock_guard<std::mutex> guard(state().mutex);
      // The host may have named its main thread while the platform was being built.
      if (mainQueue && state().choices.mainThread) {
        mainQueue->setMainThread(*state().choices.mainThread);
      }
      state().mainQueue = std::move(mainQueue);
    } else {
      logLine(LogLevel::kError,
              "[Orvane] The SDK was started before the C interface made its set-up choices "
              "(host motion, log sink, main dispatcher, host network); they are ignored.");
    }
  }
  managerStarted.store(true);
}

// Records a set-up choice unless the manager has been started.
template <typename Fn>
bool choose(const char* function, Fn&& record) {
  {
    std::lock_guard<std::mutex> guard(state().mutex);
    if (!state().closed) {
      record(state().choices);
      return true;
    }
  }
  logLine(LogLevel::kError, std::string("[Orvane] ") + function +
                                ": the SDK has already started; set-up choices must come before "
                                "the first call that uses it. Ignored.");
  return false;
}

}  // namespace

ContextManager& sharedManager() {
  static std::once_flag once;
  std::call_once(once, installChoices);
  return ContextManager::shared();
}

void logLine(LogLevel level, std::string_view line) noexcept {
  try {
    if (managerStarted.load()) {
      const auto& log = ContextManager::shared().platform().log;
      if (log) log->write(level, line);
      return;
    }
    LogLineSink sink;
    {
      std::lock_guard<std::mutex> guard(state().mutex);
      sink = state().choices.sink;
    }
    if (sink) {
      sink(level, line);
    } else {
      writeToStderr(level, line);
    }
  } catch (...) {
    // Nowhere left to report it.
  }
}

void reportInternalError(const char* function, const char* what) noexcept {
  try {
    std::string line = std::string("[Orvane] Internal error in ") + function;
    if (what != nullptr) line += std::string(": ") + what;
    logLine(LogLevel::kError, line);
  } catch (...) {
  }
}

bool present(const void* pointer, const char* function, const char* what) noexcept {
  if (pointer != nullptr) return true;
  try {
    logLine(LogLevel::kError,
            std::string("[Orvane] ") + function + ": " + what + " is NULL; ignored.");
  } catch (...) {
  }
  return false;
}

char* copyString(std::string_view text) noexcept {
  auto* copy = static_cast<char*>(std::malloc(text.size() + 1));
  if (copy == nullptr) return nullptr;
  if (!text.empty()) std::memcpy(copy, text.data(), text.size());
  copy[text.size()] = '\0';
  return copy;
}

// Defined in the namespace for its names; C linkage makes them the functions orvane.h
// declares. GCC does not carry the header's visibility over to a definition in another
// namespace, so each definition repeats ORVANE_API.
extern "C" {

ORVANE_API const char* orvane_sdk_version(void) {
  // Computed once; the text then lives as long as the process.
  static const std::string* const version =
      guarded("orvane_sdk_version", static_cast<std::string*>(nullptr),
              [] { return new std::string(orvane::ContextManager::sdkVersion()); });
  return version != nullptr ? version->c_str() : "";
}

ORVANE_API void orvane_string_free(char* string) { std::free(string); }

ORVANE_API bool orvane_use_host_motion(bool accelerometer_available, bool gyroscope_available,
                                       orvane_motion_state_fn on_state_change, void* user_data) {
  return guarded("orvane_use_host_motion", false, [&] {
    return choose("orvane_use_host_motion", [&](SetupChoices& choices) {
      choices.motion = HostMotionChoice{accelerometer_available, gyroscope_available,
                                        on_state_change, user_data};
    });
  });
}

ORVANE_API bool orvane_use_log_sink(orvane_log_sink_fn sink, void* user_data) {
  return guarded("orvane_use_log_sink", false, [&] {
    if (!present(reinterpret_cast<const void*>(sink), "orvane_use_log_sink", "sink")) {
      return false;
    }
    return choose("orvane_use_log_sink", [&](SetupChoices& choices) {
      choices.sink = [sink, user_data](LogLevel level, std::string_view line) {
        const std::string text(line);  // the C side needs its terminator
        sink(static_cast<orvane_log_level>(level), text.c_str(), user_data);
      };
    });
  });
}

ORVANE_API bool orvane_use_main_dispatcher(orvane_main_dispatcher_fn dispatcher, void* user_data) {
  return guarded("orvane_use_main_dispatcher", false, [&] {
    if (!present(reinterpret_cast<const void*>(dispatcher), "orvane_use_main_dispatcher",
                 "dispatcher")) {
      return false;
    }
    return choose("orvane_use_main_dispatcher", [&](SetupChoices& choices) {
      choices.dispatcher = DispatcherChoice{dispatcher, user_data};
    });
  });
}

ORVANE_API bool orvane_use_host_network(void) {
  return guarded("orvane_use_host_network", false, [] {
    return choose("orvane_use_host_network",
                  [](SetupChoices& choices) { choices.hostNetwork = true; });
  });
}

ORVANE_API void orvane_main_job_run(orvane_main_job* job) {
  if (!present(job, "orvane_main_job_run", "job")) return;
  guardedVoid("orvane_main_job_run", [&] {
    // Freed even if running fails: the host has handed the job back for good.
    std::unique_ptr<orvane_main_job> owned(job);
    if (owned->job) owned->job->run();
  });
}

ORVANE_API void orvane_main_job_discard(orvane_main_job* job) {
  if (!present(job, "orvane_main_job_discard", "job")) return;
  guardedVoid("orvane_main_job_discard", [&] { delete job; });
}

ORVANE_API void orvane_main_thread_set_current(void) {
  guardedVoid("orvane_main_thread_set_current", [] {
    std::shared_ptr<orvane::HostMainQueue> queue;
    {
      std::lock_guard<std::mutex> guard(state().mutex);
      state().choices.mainThread = std::this_thread::get_id();
      queue = state().mainQueue;
    }
    if (queue) queue->setMainThread(std::this_thread::get_id());
  });
}

}  // extern "C"

}  // namespace orvane::capi
