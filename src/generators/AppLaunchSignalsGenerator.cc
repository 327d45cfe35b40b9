#include "generators/AppLaunchSignalsGenerator.h"

#include <cmath>
#include <cstdio>
#include <ctime>

namespace orvane {

std::string localDayKey(Date date) {
  const auto seconds = static_cast<time_t>(std::floor(date.secondsSince1970));
  std::tm local{};
  localtime_r(&seconds, &local);
  char buffer[48];
  std::snprintf(buffer, sizeof buffer, "%04d-%02d-%02d", local.tm_year + 1900, local.tm_mon + 1,
                local.tm_mday);
  return buffer;
}

AppLaunchSignalsGenerator::AppLaunchSignalsGenerator(
    std::shared_ptr<DateProvider> dateProvider,
    std::shared_ptr<UserDefaultsProvider> userDefaultsProvider)
    : dateProvider_(std::move(dateProvider)), defaults_(std::move(userDefaultsProvider)) {
  lastAppWillResignDate_ = defaults_->date(kLastAppWillResignKey);
}

std::string AppLaunchSignalsGenerator::currentDateFormatted() const {
  return localDayKey(dateProvider_->currentDate());
}

PlistDictionary AppLaunchSignalsGenerator::appendToToday(const char* key, PlistValue value) {
  if (!defaults_->isAvailable()) return {};
  // A stored value of another type counts as empty history.
  PlistDictionary history = defaults_->dictionary(key).value_or(PlistDictionary{});
  PlistValue& today = history[currentDateFormatted()];
  if (!today.asArray()) today = PlistArray{};
  PlistArray list = *today.asArray();
  list.push_back(std::move(value));
  today = std::move(list);
  defaults_->set(key, history);
  return history;
}

int64_t AppLaunchSignalsGenerator::incrementAndGetNumberOfAppLaunches() {
  std::lock_guard<std::mutex> guard(mutex_);
  const PlistDictionary history = appendToToday(kAppLaunchesKey, dateProvider_->currentDate());
  int64_t total = 0;
  for (const auto& [day, launches] : history) {
    if (const PlistArray* list = launches.asArray()) total += static_cast<int64_t>(list->size());
  }
  return total;
}

void AppLaunchSignalsGenerator::storeNewSessionDuration(int64_t seconds) {
  std::lock_guard<std::mutex> guard(mutex_);
  appendToToday(kAppSecondsKey, seconds);
}

void AppLaunchSignalsGenerator::didUserTriggerOrvane() {
  std::lock_guard<std::mutex> guard(mutex_);
  const Date now = dateProvider_->currentDate();
  if (lastOrvaneTriggerRecorded_ &&
      now.secondsSince1970 - lastOrvaneTriggerRecorded_->secondsSince1970 < 3.0) {
    return;
  }
  appendToToday(kOrvaneTriggersKey, now);
  lastOrvaneTriggerRecorded_ = now;
}

void AppLaunchSignalsGenerator::updateLastAppWillResignDate() {
  std::lock_guard<std::mutex> guard(mutex_);
  const Date now = dateProvider_->currentDate();
  defaults_->set(kLastAppWillResignKey, now);
  lastAppWillResignDate_ = now;
}

std::optional<Date> AppLaunchSignalsGenerator::lastAppWillResignDate() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return lastAppWillResignDate_;
}

}  // namespace orvane
