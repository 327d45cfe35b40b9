// The manager's side of the C interface: setup, requests, observers, tracked events, golden
// signals, global custom signals and the model switches.
#include <cstring>

#include "capi/CApi.h"

namespace orvane::capi {

orvane_context* wrap(std::shared_ptr<Context> context) {
  if (!context) return nullptr;
  auto* handle = new orvane_context();
  handle->value = std::move(context);
  return handle;
}

orvane_log* wrap(std::shared_ptr<Log> log) {
  if (!log) return nullptr;
  auto* handle = new orvane_log();
  handle->value = std::move(log);
  return handle;
}

ContextManager::ContextCallback contextCallback(orvane_context_fn callback,
                                                const std::shared_ptr<UserData>& userData) {
  if (callback == nullptr) return nullptr;
  return [callback, userData](const std::shared_ptr<Context>& context) {
    // The host gets a handle of its own to retain; the SDK's reference ends with the call.
    orvane_context* handle = wrap(context);
    callback(handle, userData->get());
    orvane_context_release(handle);
  };
}

LogSender logSender(orvane_log_sender_fn sender, const std::shared_ptr<UserData>& userData) {
  if (sender == nullptr) return nullptr;
  return [sender, userData](const std::shared_ptr<Log>& log) {
    orvane_log* handle = wrap(log);
    if (handle == nullptr) return;
    sender(handle, userData->get());
    orvane_log_release(handle);
  };
}

std::optional<Decimal> decimal(const char* text, const char* function, const char* what) {
  if (!present(text, function, what)) return std::nullopt;
  auto parsed = Decimal::parse(text);
  if (!parsed) {
    logLine(LogLevel::kError, std::string("[Orvane] ") + function + ": " + what + " \"" + text +
                                  "\" is not a decimal number; ignored.");
  }
  return parsed;
}

CustomSignalList customSignals(const orvane_custom_signal* signals, size_t count,
                               const char* function) {
  CustomSignalList list;
  if (count == 0) return list;
  if (!present(signals, function, "custom signal list")) return list;
  list.reserve(count);
  for (size_t i = 0; i < count; ++i) {
    const orvane_custom_signal& entry = signals[i];
    if (!present(entry.id, function, "custom signal id")) continue;
    const std::string id = entry.id;
    const int type = cValue(entry.type);
    switch (type) {
      case ORVANE_CUSTOM_SIGNAL_BOOL:
        list.push_back(CustomSignalBool(id, entry.value.bool_value));
        break;
      case ORVANE_CUSTOM_SIGNAL_INT:
        list.push_back(CustomSignalInt(id, entry.value.int_value));
        break;
      case ORVANE_CUSTOM_SIGNAL_FLOAT:
        list.push_back(CustomSignalFloat(id, entry.value.float_value));
        break;
      case ORVANE_CUSTOM_SIGNAL_DECIMAL:
        if (auto value = decimal(entry.value.decimal_text, function, "custom signal decimal")) {
          list.push_back(CustomSignalDecimal(id, *value));
        }
        break;
      case ORVANE_CUSTOM_SIGNAL_STRING:
        if (present(entry.value.string_value, function, "custom signal string")) {
          list.push_back(CustomSignalString(id, entry.value.string_value));
        }
        break;
      default:
        logLine(LogLevel::kError, std::string("[Orvane] ") + function + ": custom signal \"" + id +
                                      "\" has unknown type " + std::to_string(type) + "; ignored.");
        break;
    }
  }
  return list;
}

std::optional<EventOutcome> outcome(int raw, const char* function) {
  auto value = eventOutcomeFromRawValue(raw);
  if (!value) {
    logLine(LogLevel::kError, std::string("[Orvane] ") + function + ": outcome " +
                                  std::to_string(raw) + " is not one of -3...4; ignored.");
  }
  return value;
}

namespace {

Configuration configurationFrom(const orvane_configuration* c) {
  Configuration configuration;
  if (c == nullptr) return configuration;
  configuration.enableTouchBehaviourMonitoring = c->enable_touch_behaviour_monitoring;
  configuration.enableSessionDurationMonitoring = c->enable_session_duration_monitoring;
  configuration.enableScreenshotMonitoring = c->enable_screenshot_monitoring;
  configuration.enableAutomaticAppStartAndEndTracking =
      c->enable_automatic_app_start_and_end_tracking;
  configuration.enableAutomaticAppLaunchBehaviourLogging =
      c->enable_automatic_app_launch_behaviour_logging;
  configuration.enableErrorReporting = c->enable_error_reporting;
  configuration.enableInstantContext = c->enable_instant_context;
  configuration.requireConsent = c->require_consent;
  if (c->default_ab_test_name != nullptr && c->default_ab_cohort_name != nullptr) {
    configuration.defaultABTestInformation =
        ABTestInformation{c->default_ab_test_name, c->default_ab_cohort_name};
  }
  return configuration;
}

// A request that takes a callback: NULL flow names are refused before the manager is made.
template <typename Request>
void requestWithCallback(const char* function, const char* flowName,
                         const orvane_custom_signal* signals, size_t count,
                         orvane_context_fn callback, void* userData, orvane_release_fn release,
                         Request&& request) {
  // Made first, so that the host's data is released however the call ends.
  auto data = std::make_shared<UserData>(userData, release);
  if (!present(flowName, function, "flow name")) return;
  guardedVoid(function, [&] {
    request(std::string(flowName), customSignals(signals, count, function),
            contextCallback(callback, data));
  });
}

template <typename Track>
void trackWith(const char* function, const char* name, const orvane_custom_signal* signals,
               size_t count, Track&& track) {
  if (!present(name, function, "name")) return;
  guardedVoid(function, [&] {
    sharedManager();
    track(std::string(name), customSignals(signals, count, function));
  });
}

template <typename Set>
void setGlobal(const char* function, const char* id, Set&& set) {
  if (!present(id, function, "id")) return;
  guardedVoid(function, [&] {
    sharedManager();
    set(std::string(id));
  });
}

}  // namespace

// Defined in the namespace for its names; C linkage makes them the functions orvane.h
// declares. GCC does not carry the header's visibility over to a definition in another
// namespace, so each definition repeats ORVANE_API.
extern "C" {

// ---- Setup --------------------------------------------------------------------------------

ORVANE_API void orvane_configuration_init(orvane_configuration* configuration) {
  if (!present(configuration, "orvane_configuration_init", "configuration")) return;
  const Configuration defaults;
  std::memset(configuration, 0, sizeof *configuration);
  configuration->enable_touch_behaviour_monitoring = defaults.enableTouchBehaviourMonitoring;
  configuration->enable_session_duration_monitoring = defaults.enableSessionDurationMonitoring;
  configuration->enable_screenshot_monitoring = defaults.enableScreenshotMonitoring;
  configuration->enable_automatic_app_start_and_end_tracking =
      defaults.enableAutomaticAppStartAndEndTracking;
  configuration->enable_automatic_app_launch_behaviour_logging =
      defaults.enableAutomaticAppLaunchBehaviourLogging;
  configuration->enable_error_reporting = defaults.enableErrorReporting;
  configuration->enable_instant_context = defaults.enableInstantContext;
  configuration->require_consent = defaults.requireConsent;
}

ORVANE_API bool orvane_setup(const char* license_key, const orvane_configuration* configuration) {
  if (!present(license_key, "orvane_setup", "license key")) return false;
  return guarded("orvane_setup", false, [&] {
    sharedManager();
    return ContextManager::setup(license_key, configurationFrom(configuration));
  });
}

ORVANE_API bool orvane_setup_with_log_sender(const char* license_key,
                                             const orvane_configuration* configuration,
                                             orvane_log_sender_fn log_sender, void* user_data,
                                             orvane_release_fn release_user_data) {
  auto data = std::make_shared<UserData>(user_data, release_user_data);
  if (!present(license_key, "orvane_setup_with_log_sender", "license key")) return false;
  return guarded("orvane_setup_with_log_sender", false, [&] {
    sharedManager();
    return ContextManager::setup(license_key, logSender(log_sender, data),
                                 configurationFrom(configuration));
  });
}

ORVANE_API bool orvane_application_did_finish_launching(const char* launch_options_json,
                                                        const char* license_key,
                                                        const orvane_configuration* configuration) {
  constexpr const char* kFunction = "orvane_application_did_finish_launching";
  if (!present(license_key, kFunction, "license key")) return false;
  return guarded(kFunction, false, [&] {
    std::optional<LaunchOptions> options;
    if (launch_options_json != nullptr) {
      std::string error;
      options = launchOptionsFromJson(launch_options_json, error);
      if (!options) {
        logLine(LogLevel::kError,
                std::string("[Orvane] ") + kFunction + ": launch options: " + error + "; ignored.");
        return false;
      }
    }
    sharedManager();
    return ContextManager::applicationDidFinishLaunchingWithOptions(
        options, license_key, configurationFrom(configuration));
  });
}

ORVANE_API void orvane_set_log_sender(orvane_log_sender_fn log_sender, void* user_data,
                                      orvane_release_fn release_user_data) {
  auto data = std::make_shared<UserData>(user_data, release_user_data);
  guardedVoid("orvane_set_log_sender", [&] {
    sharedManager();
    LogSender sender = logSender(log_sender, data);
    if (!sender) {
      sender = [](const std::shared_ptr<Log>& log) {
        if (log) log->send();
      };
    }
    ContextManager::setLogSender(std::move(sender));
  });
}

ORVANE_API void orvane_set_service_base_url(const char* base_url) {
  if (!present(base_url, "orvane_set_service_base_url", "base URL")) return;
  guardedVoid("orvane_set_service_base_url", [&] {
    sharedManager();
    ContextManager::setServiceBaseURL(base_url);
  });
}

ORVANE_API void orvane_set_decisions_enabled(bool enabled) {
  guardedVoid("orvane_set_decisions_enabled", [&] {
    sharedManager();
    ContextManager::setDecisionsEnabled(enabled);
  });
}

ORVANE_API void orvane_set_control_mode(bool enabled) {
  guardedVoid("orvane_set_control_mode", [&] {
    sharedManager();
    ContextManager::setControlMode(enabled);
  });
}

ORVANE_API char* orvane_current_applied_custom_model_version(void) {
  return guarded("orvane_current_applied_custom_model_version", static_cast<char*>(nullptr), [] {
    sharedManager();
    return copyString(ContextManager::currentAppliedCustomModelVersion());
  });
}

ORVANE_API char* orvane_diagnostics_json(void) {
  return guarded("orvane_diagnostics_json", static_cast<char*>(nullptr), [] {
    const Diagnostics d = ContextManager::diagnostics();
    auto texts = [](const std::vector<std::string>& values) {
      PlistArray out;
      for (const auto& v : values) out.emplace_back(v);
      return PlistValue(std::move(out));
    };
    PlistDictionary json;
    json.emplace("installationID", d.installationID);
    json.emplace("appLaunches", d.appLaunches);
    json.emplace("appliedModelGeneration", d.appliedModelGeneration);
    json.emplace("appliedUpdateVersion", d.appliedUpdateVersion);
    json.emplace("queuedRecords", static_cast<int64_t>(d.queuedRecords));
    json.emplace("queuedLogIds", texts(d.queuedLogIds));
    json.emplace("unansweredContexts", static_cast<int64_t>(d.unansweredContexts));
    json.emplace("unansweredLogIds", texts(d.unansweredLogIds));
    json.emplace("uploadBackoffSeconds", d.uploadBackoffSeconds);
    json.emplace("recordsWaitingInMemory", static_cast<int64_t>(d.recordsWaitingInMemory));
    json.emplace("uploadInFlight", d.uploadInFlight);
    return copyString(toJson(PlistValue(std::move(json))));
  });
}

ORVANE_API bool orvane_flush(double timeout_seconds) {
  return guarded("orvane_flush", false, [&] { return ContextManager::flush(timeout_seconds); });
}

ORVANE_API void orvane_set_consent(orvane_consent_state state) {
  // Any int a C caller passes is a valid ConsentState value; the manager refuses the unknown.
  guardedVoid("orvane_set_consent", [&] {
    ContextManager::setConsent(static_cast<ConsentState>(static_cast<int>(state)));
  });
}

ORVANE_API orvane_consent_state orvane_consent(void) {
  return guarded("orvane_consent", ORVANE_CONSENT_UNKNOWN,
                 [] { return static_cast<orvane_consent_state>(ContextManager::consent()); });
}

ORVANE_API void orvane_reset_all_data(void) {
  guardedVoid("orvane_reset_all_data", [] { ContextManager::resetAllData(); });
}

ORVANE_API bool orvane_shutdown(double timeout_seconds) {
  return guarded("orvane_shutdown", false,
                 [&] { return ContextManager::shutdown(timeout_seconds); });
}

ORVANE_API void orvane_set_log_level(orvane_sdk_log_level level) {
  const int value = static_cast<int>(level);  // a C caller may pass any int
  if (value < ORVANE_SDK_LOG_ERROR || value > ORVANE_SDK_LOG_DEBUG) {
    logLine(LogLevel::kError, "[Orvane] orvane_set_log_level: " + std::to_string(value) +
                                  " is not a log level; the level is unchanged.");
    return;
  }
  ContextManager::setLogLevel(static_cast<SdkLogLevel>(value));
}

ORVANE_API bool orvane_get_custom_model(const char* flow_name,
                                        orvane_model_information* information) {
  constexpr const char* kFunction = "orvane_get_custom_model";
  if (!present(information, kFunction, "information")) return false;
  *information = orvane_model_information{};
  if (!present(flow_name, kFunction, "flow name")) return false;
  return guarded(kFunction, false, [&] {
    sharedManager();
    const auto model = ContextManager::getCustomModel(flow_name);
    if (!model) return false;
    char* version = copyString(model->modelVersion);
    if (version == nullptr) return false;
    information->is_control = model->isControl;
    information->model_version = version;
    information->supported_duration = model->supportedDuration;
    information->use_instant_context = model->useInstantContext;
    information->random_upsell_chance = model->randomUpsellChance;
    information->has_upsell_threshold = model->upsellThreshold.has_value();
    information->upsell_threshold = model->upsellThreshold.value_or(0.0);
    return true;
  });
}

// ---- Global custom signals ----------------------------------------------------------------

ORVANE_API void orvane_set_global_custom_signal_bool(const char* id, bool value) {
  setGlobal("orvane_set_global_custom_signal_bool", id,
            [&](const std::string& key) { ContextManager::setGlobalCustomSignal(key, value); });
}

ORVANE_API void orvane_set_global_custom_signal_int(const char* id, int64_t value) {
  setGlobal("orvane_set_global_custom_signal_int", id,
            [&](const std::string& key) { ContextManager::setGlobalCustomSignal(key, value); });
}

ORVANE_API void orvane_set_global_custom_signal_float(const char* id, float value) {
  setGlobal("orvane_set_global_custom_signal_float", id,
            [&](const std::string& key) { ContextManager::setGlobalCustomSignal(key, value); });
}

ORVANE_API void orvane_set_global_custom_signal_double(const char* id, double value) {
  setGlobal("orvane_set_global_custom_signal_double", id,
            [&](const std::string& key) { ContextManager::setGlobalCustomSignal(key, value); });
}

ORVANE_API void orvane_set_global_custom_signal_decimal(const char* id, const char* decimal_text) {
  constexpr const char* kFunction = "orvane_set_global_custom_signal_decimal";
  if (!present(id, kFunction, "id")) return;
  const auto value = guarded(kFunction, std::optional<Decimal>(),
                             [&] { return decimal(decimal_text, kFunction, "value"); });
  if (!value) return;
  setGlobal(kFunction, id,
            [&](const std::string& key) { ContextManager::setGlobalCustomSignal(key, *value); });
}

ORVANE_API void orvane_set_global_custom_signal_string(const char* id, const char* value) {
  setGlobal("orvane_set_global_custom_signal_string", id, [&](const std::string& key) {
    ContextManager::setGlobalCustomSignal(
        key, value != nullptr ? std::optional<std::string>(value) : std::nullopt);
  });
}

ORVANE_API void orvane_remove_global_custom_signal(const char* id) {
  setGlobal("orvane_remove_global_custom_signal", id, [](const std::string& key) {
    ContextManager::setGlobalCustomSignal(key, std::optional<std::string>());
  });
}

// ---- Requests -----------------------------------------------------------------------------

ORVANE_API void orvane_fetch_context(const char* flow_name, int64_t duration,
                                     const orvane_custom_signal* signals, size_t signal_count,
                                     orvane_context_fn callback, void* user_data,
                                     orvane_release_fn release_user_data) {
  requestWithCallback("orvane_fetch_context", flow_name, signals, signal_count, callback, user_data,
                      release_user_data,
                      [&](const std::string& flow, const CustomSignalList& list,
                          ContextManager::ContextCallback done) {
                        sharedManager();
                        ContextManager::fetchContext(flow, duration, list, std::move(done));
                      });
}

ORVANE_API orvane_context* orvane_instant_context(const char* flow_name, int64_t duration,
                                                  const orvane_custom_signal* signals,
                                                  size_t signal_count) {
  constexpr const char* kFunction = "orvane_instant_context";
  if (!present(flow_name, kFunction, "flow name")) return nullptr;
  return guarded(kFunction, static_cast<orvane_context*>(nullptr), [&] {
    sharedManager();
    return wrap(ContextManager::instantContext(flow_name, duration,
                                               customSignals(signals, signal_count, kFunction)));
  });
}

ORVANE_API void orvane_optimize(const char* flow_name, int64_t max_delay,
                                const orvane_custom_signal* signals, size_t signal_count,
                                orvane_context_fn callback, void* user_data,
                                orvane_release_fn release_user_data) {
  requestWithCallback("orvane_optimize", flow_name, signals, signal_count, callback, user_data,
                      release_user_data,
                      [&](const std::string& flow, const CustomSignalList& list,
                          ContextManager::ContextCallback done) {
                        sharedManager();
                        const std::optional<int64_t> delay =
                            max_delay < 0 ? std::nullopt : std::optional<int64_t>(max_delay);
                        ContextManager::optimize(flow, delay, list, std::move(done));
                      });
}

ORVANE_API void orvane_calibrate(const char* flow_name, int64_t max_delay,
                                 const orvane_custom_signal* signals, size_t signal_count,
                                 orvane_context_fn callback, void* user_data,
                                 orvane_release_fn release_user_data) {
  requestWithCallback("orvane_calibrate", flow_name, signals, signal_count, callback, user_data,
                      release_user_data,
                      [&](const std::string& flow, const CustomSignalList& list,
                          ContextManager::ContextCallback done) {
                        sharedManager();
                        ContextManager::calibrate(flow, max_delay, list, std::move(done));
                      });
}

ORVANE_API orvane_context* orvane_recent_context(const char* flow_name) {
  if (!present(flow_name, "orvane_recent_context", "flow name")) return nullptr;
  return guarded("orvane_recent_context", static_cast<orvane_context*>(nullptr), [&] {
    sharedManager();
    return wrap(ContextManager::recentContext(flow_name));
  });
}

ORVANE_API void orvane_cancel_context_callback(const char* flow_name) {
  if (!present(flow_name, "orvane_cancel_context_callback", "flow name")) return;
  guardedVoid("orvane_cancel_context_callback", [&] {
    sharedManager();
    ContextManager::cancelContextCallback(flow_name);
  });
}

// ---- Observers ----------------------------------------------------------------------------

ORVANE_API void orvane_register_context_observer(const char* flow_name, orvane_context_fn callback,
                                                 void* user_data,
                                                 orvane_release_fn release_user_data) {
  constexpr const char* kFunction = "orvane_register_context_observer";
  auto data = std::make_shared<UserData>(user_data, release_user_data);
  if (!present(flow_name, kFunction, "flow name")) return;
  if (!present(reinterpret_cast<const void*>(callback), kFunction, "callback")) return;
  guardedVoid(kFunction, [&] {
    sharedManager();
    ContextManager::registerContextObserver(flow_name, contextCallback(callback, data));
  });
}

ORVANE_API void orvane_unregister_context_observer(const char* flow_name) {
  if (!present(flow_name, "orvane_unregister_context_observer", "flow name")) return;
  guardedVoid("orvane_unregister_context_observer", [&] {
    sharedManager();
    ContextManager::unregisterContextObserver(flow_name);
  });
}

// ---- Tracked events and golden signals ----------------------------------------------------

ORVANE_API void orvane_track_event(const char* name, const orvane_custom_signal* signals,
                                   size_t signal_count) {
  trackWith("orvane_track_event", name, signals, signal_count,
            [](const std::string& event, const CustomSignalList& list) {
              ContextManager::trackEvent(event, list);
            });
}

ORVANE_API void orvane_track_page_view(const char* name, const orvane_custom_signal* signals,
                                       size_t signal_count) {
  trackWith("orvane_track_page_view", name, signals, signal_count,
            [](const std::string& page, const CustomSignalList& list) {
              ContextManager::trackPageView(page, list);
            });
}

ORVANE_API void orvane_track_user_action(const char* name, const orvane_custom_signal* signals,
                                         size_t signal_count) {
  trackWith("orvane_track_user_action", name, signals, signal_count,
            [](const std::string& action, const CustomSignalList& list) {
              ContextManager::trackUserAction(action, list);
            });
}

ORVANE_API char* orvane_golden_signals(const char* trigger, const char* bid_id) {
  return guarded("orvane_golden_signals", static_cast<char*>(nullptr), [&] {
    sharedManager();
    const auto optional = [](const char* text) {
      return text != nullptr ? std::optional<std::string>(text) : std::nullopt;
    };
    const PlistDictionary values =
        ContextManager::goldenSignals(optional(trigger), optional(bid_id));
    return copyString(toJson(PlistValue(values)));
  });
}

}  // extern "C"

}  // namespace orvane::capi
