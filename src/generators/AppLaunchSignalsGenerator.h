// File: AppLaunchSignalsGenerator.h
// Keeps the per-day history of launches, triggers and session lengths in the defaults
// suite and turns it into usage signals. Day keys are local dates "yyyy-MM-dd" on the user's
// calendar.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "orvane/PlistValue.h"
#include "orvane/Signal.h"
#include "orvane/platform/Calendar.h"
#include "util/DateProvider.h"
#include "util/UserDefaultsProvider.h"

namespace orvane {

class AppLaunchSignalsGenerator {
 public:
  static constexpr const char* kAppLaunchesKey = "app_launches";
  static constexpr const char* kAppSecondsKey = "app_seconds";
  static constexpr const char* kLastAppWillResignKey = "last_app_will_resign_date";
  static constexpr const char* kOrvaneTriggersKey = "orvane_triggers";

  AppLaunchSignalsGenerator(std::shared_ptr<DateProvider> dateProvider,
                            std::shared_ptr<UserDefaultsProvider> userDefaultsProvider,
                            std::shared_ptr<Calendar> calendar);

  // Today's day key on the user's calendar.
  std::string currentDateFormatted() const;
  // Records a launch now and returns the number of launches recorded over all days.
  int64_t incrementAndGetNumberOfAppLaunches();
  void storeNewSessionDuration(int64_t seconds);
  // Records a trigger unless the previous one in this process was less than 3 s ago.
  void didUserTriggerOrvane();
  void updateLastAppWillResignDate();
  std::optional<Date> lastAppWillResignDate() const;
  // Forgets the histories read so far; they are read again from the suite when next needed.
  void forgetHistory();

  // Launch and trigger counts and rates: 80-83, 90, 85-89, 91.
  SignalList appLaunchSignals() const;
  // Session lengths, and the current session against them: 410-423.
  SignalList appSecondsSignals(Date currentSessionStart) const;

 private:
  // One stored history: day key -> the day's entries (dates as seconds since 1970, or session
  // seconds). Loaded once from the suite and written back whole on every change, so requests
  // never decode the store.
  struct History {
    std::map<std::string, std::vector<double>> days;
    bool loaded = false;
  };

  History& history(const char* key) const;
  void appendToToday(const char* key, double value);
  std::string dayKey(Date date) const;

  std::shared_ptr<DateProvider> dateProvider_;
  std::shared_ptr<UserDefaultsProvider> defaults_;
  std::shared_ptr<Calendar> calendar_;
  mutable std::mutex mutex_;  // guards everything below
  mutable History launches_;
  mutable History triggers_;
  mutable History seconds_;
  std::optional<Date> lastOrvaneTriggerRecorded_;
  std::optional<Date> lastAppWillResignDate_;
};

}  // namespace orvane
