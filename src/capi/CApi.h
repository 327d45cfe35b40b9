// File: CApi.h
// What the files behind orvane.h share: the handles, the shared manager with the host's
// set-up choices applied, logging before and after it exists, the catch-all around every entry
// point, and the conversions of C values.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstring>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "orvane/Context.h"
#include "orvane/ContextManager.h"
#include "orvane/CustomSignal.h"
#include "orvane/Log.h"
#include "orvane/PlistValue.h"
#include "orvane/orvane.h"

struct orvane_context {
  std::atomic<int64_t> references{1};
  std::shared_ptr<orvane::Context> value;
};

struct orvane_log {
  std::atomic<int64_t> references{1};
  std::shared_ptr<orvane::Log> value;
};

namespace orvane::capi {

// The shared manager, created on first use with the set-up choices the host made.
ContextManager& sharedManager();

// A line for the host: through the manager's log once it exists, else through the chosen log
// sink, else on stderr. Never throws.
void logLine(LogLevel level, std::string_view line) noexcept;

// False (and a logged line) when `pointer` is NULL: "<function>: <what> is NULL; ignored".
bool present(const void* pointer, const char* function, const char* what) noexcept;

// "Internal error in <function>[: <what>]", logged.
void reportInternalError(const char* function, const char* what) noexcept;

// Runs `fn`; an escaping exception is logged and `fallback` returned instead.
template <typename R, typename Fn>
R guarded(const char* function, R fallback, Fn&& fn) noexcept {
  try {
    return fn();
  } catch (const std::exception& e) {
    reportInternalError(function, e.what());
  } catch (...) {
    reportInternalError(function, nullptr);
  }
  return fallback;
}

template <typename Fn>
void guardedVoid(const char* function, Fn&& fn) noexcept {
  guarded(function, 0, [&] {
    fn();
    return 0;
  });
}

// The integer a C caller stored in one of orvane.h's enumerations. C allows any int there,
// and reading a value outside the enumerators' range through the enumeration type is
// undefined in C++, so the bytes are read as an int.
template <typename Enum>
int cValue(const Enum& value) {
  static_assert(sizeof(Enum) == sizeof(int));
  int raw = 0;
  std::memcpy(&raw, &value, sizeof raw);
  return raw;
}

// A copy the caller frees with orvane_string_free (malloc); NULL when memory runs out.
char* copyString(std::string_view text) noexcept;

// The host's user data, released once when the last callback copy holding it goes away.
class UserData {
 public:
  UserData(void* pointer, orvane_release_fn release) : pointer_(pointer), release_(release) {}
  ~UserData() {
    if (release_) release_(pointer_);
  }
  UserData(const UserData&) = delete;
  UserData& operator=(const UserData&) = delete;
  void* get() const { return pointer_; }

 private:
  void* const pointer_;
  const orvane_release_fn release_;
};

// New handles, with one reference for the receiver.
orvane_context* wrap(std::shared_ptr<Context> context);
orvane_log* wrap(std::shared_ptr<Log> log);

// A C callback as the C++ API takes it: the context is lent to `callback` for the call.
ContextManager::ContextCallback contextCallback(orvane_context_fn callback,
                                                const std::shared_ptr<UserData>& userData);
// The host's log sender; none for a NULL function.
LogSender logSender(orvane_log_sender_fn sender, const std::shared_ptr<UserData>& userData);

// The valid entries of a C list (the others are logged and left out).
CustomSignalList customSignals(const orvane_custom_signal* signals, size_t count,
                               const char* function);
std::optional<EventOutcome> outcome(int raw, const char* function);
std::optional<Decimal> decimal(const char* text, const char* function, const char* what);

// JSON forms (CApiJson.cc). Decimals are written as their canonical text, floats as their
// shortest round-trip decimal, non-finite numbers as "Infinity", "-Infinity" or "NaN", dates
// as seconds since 1970, bytes as base64.
std::string toJson(const PlistValue& value);
// A signal list as a JSON array of {"id", "type", "value"} objects in the list's order; an id
// may repeat. Built-in ids are numbers, custom ids text; the type is "bool", "int", "float",
// "decimal" or "string".
std::string toJson(const SignalList& signals);
std::string toJson(const CustomSignalList& signals);
// None (with `error` set) when `text` is not a JSON object.
std::optional<LaunchOptions> launchOptionsFromJson(std::string_view text, std::string& error);
// Merges a facts object into `facts`; false with `error` set on a value of the wrong type
// (`facts` is then left unchanged). Keys it does not know are added to `unknownKeys`.
bool mergeDeviceFacts(std::string_view text, DeviceFacts& facts, std::string& error,
                      std::string& unknownKeys);

}  // namespace orvane::capi
