// File: AppLaunchSignalsGenerator.h
// Keeps the per-day history of launches, triggers and session lengths in the defaults
// suite. Day keys are local dates "yyyy-MM-dd".
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "orvane/PlistValue.h"
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
                            std::shared_ptr<UserDefaultsProvider> userDefaultsProvider);

  // Today's day key in the local time zone.
  std::string currentDateFormatted() const;
  // Records a launch now and returns the number of launches recorded over all days.
  int64_t incrementAndGetNumberOfAppLaunches();
  void storeNewSessionDuration(int64_t seconds);
  // Records a trigger unless the previous one in this process was less than 3 s ago.
  void didUserTriggerOrvane();
  void updateLastAppWillResignDate();
  std::optional<Date> lastAppWillResignDate() const;

 private:
  // Appends `value` to today's list in the dictionary under `key`, creating what is missing.
  // Returns the dictionary as written.
  PlistDictionary appendToToday(const char* key, PlistValue value);

  std::shared_ptr<DateProvider> dateProvider_;
  std::shared_ptr<UserDefaultsProvider> defaults_;
  mutable std::mutex mutex_;  // serialises read-modify-write of the history dictionaries
  std::optional<Date> lastOrvaneTriggerRecorded_;
  std::optional<Date> lastAppWillResignDate_;
};

// The local calendar day of `date`, as "yyyy-MM-dd".
std::string localDayKey(Date date);

}  // namespace orvane
