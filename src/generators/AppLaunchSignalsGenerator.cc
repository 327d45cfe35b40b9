#include "generators/AppLaunchSignalsGenerator.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>
#include <numeric>
#include <string_view>

namespace orvane {
namespace {

// Days since 1970-01-01 of a Gregorian date (proleptic), for counting calendar days.
int64_t daysFromCivil(int64_t y, int64_t m, int64_t d) {
  y -= m <= 2 ? 1 : 0;
  const int64_t era = (y >= 0 ? y : y - 399) / 400;
  const int64_t yoe = y - era * 400;
  const int64_t doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + doe - 719468;
}

std::optional<int64_t> calendarDay(const Calendar& calendar, double secondsSince1970) {
  const auto c = calendar.components(secondsSince1970);
  if (!c) return std::nullopt;
  return daysFromCivil(c->year, c->month, c->day);
}

// Median of an ascending list; 0 when empty. Even counts average in single precision.
float median(const std::vector<double>& sorted) {
  const size_t n = sorted.size();
  if (n == 0) return 0.0f;
  if (n % 2 == 1) return static_cast<float>(sorted[n / 2]);
  return (static_cast<float>(sorted[n / 2 - 1]) + static_cast<float>(sorted[n / 2])) * 0.5f;
}

SignalFloat floatSignal(SignalEnum id, double value) {
  return SignalFloat(id, static_cast<float>(value));
}

}  // namespace

AppLaunchSignalsGenerator::AppLaunchSignalsGenerator(
    std::shared_ptr<DateProvider> dateProvider,
    std::shared_ptr<UserDefaultsProvider> userDefaultsProvider, std::shared_ptr<Calendar> calendar)
    : dateProvider_(std::move(dateProvider)),
      defaults_(std::move(userDefaultsProvider)),
      calendar_(std::move(calendar)) {
  lastAppWillResignDate_ = defaults_->date(kLastAppWillResignKey);
}

std::string AppLaunchSignalsGenerator::dayKey(Date date) const {
  const auto c = calendar_->components(date.secondsSince1970);
  if (!c) return "0000-00-00";
  char buffer[48];
  std::snprintf(buffer, sizeof buffer, "%04d-%02d-%02d", c->year, c->month, c->day);
  return buffer;
}

std::string AppLaunchSignalsGenerator::currentDateFormatted() const {
  return dayKey(dateProvider_->currentDate());
}

void AppLaunchSignalsGenerator::forgetHistory() {
  std::lock_guard<std::mutex> guard(mutex_);
  launches_ = History{};
  triggers_ = History{};
  seconds_ = History{};
  lastOrvaneTriggerRecorded_.reset();
  lastAppWillResignDate_.reset();
}

AppLaunchSignalsGenerator::History& AppLaunchSignalsGenerator::history(const char* key) const {
  const std::string_view name(key);
  History& h = name == kAppLaunchesKey      ? launches_
               : name == kOrvaneTriggersKey ? triggers_
                                            : seconds_;
  if (h.loaded) return h;
  // A suite that opens late still holds the history of earlier launches: it is read once the
  // suite is there, never replaced by what this process saw before (appendToToday waits too).
  if (!defaults_->isAvailable()) return h;
  const bool isDates = name != kAppSecondsKey;
  h.loaded = true;
  // A stored value of another type, or a day whose list is not a list, counts as empty.
  const auto stored = defaults_->dictionary(key);
  if (!stored) return h;
  for (const auto& [day, entries] : *stored) {
    const PlistArray* list = entries.asArray();
    if (list == nullptr) continue;
    std::vector<double>& values = h.days[day];
    for (const PlistValue& entry : *list) {
      if (isDates) {
        if (auto date = entry.asDate()) values.push_back(date->secondsSince1970);
      } else if (auto seconds = entry.numericDouble()) {
        values.push_back(*seconds);
      }
    }
  }
  return h;
}

void AppLaunchSignalsGenerator::appendToToday(const char* key, double value) {
  if (!defaults_->isAvailable()) return;
  History& h = history(key);
  h.days[currentDateFormatted()].push_back(value);
  const bool isDates = std::string_view(key) != kAppSecondsKey;
  PlistDictionary stored;
  for (const auto& [day, values] : h.days) {
    PlistArray list;
    list.reserve(values.size());
    for (double v : values) {
      list.push_back(isDates ? PlistValue(Date{v}) : PlistValue(static_cast<int64_t>(v)));
    }
    stored.emplace(day, std::move(list));
  }
  defaults_->set(key, std::move(stored));
}

int64_t AppLaunchSignalsGenerator::incrementAndGetNumberOfAppLaunches() {
  std::lock_guard<std::mutex> guard(mutex_);
  appendToToday(kAppLaunchesKey, dateProvider_->currentDate().secondsSince1970);
  int64_t total = 0;
  for (const auto& [day, launches] : history(kAppLaunchesKey).days) {
    total += static_cast<int64_t>(launches.size());
  }
  return total;
}

void AppLaunchSignalsGenerator::storeNewSessionDuration(int64_t seconds) {
  std::lock_guard<std::mutex> guard(mutex_);
  appendToToday(kAppSecondsKey, static_cast<double>(seconds));
}

void AppLaunchSignalsGenerator::didUserTriggerOrvane() {
  std::lock_guard<std::mutex> guard(mutex_);
  const Date now = dateProvider_->currentDate();
  if (lastOrvaneTriggerRecorded_ &&
      now.secondsSince1970 - lastOrvaneTriggerRecorded_->secondsSince1970 < 3.0) {
    return;
  }
  appendToToday(kOrvaneTriggersKey, now.secondsSince1970);
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

SignalList AppLaunchSignalsGenerator::appLaunchSignals() const {
  std::lock_guard<std::mutex> guard(mutex_);
  const double now = dateProvider_->currentDate().secondsSince1970;
  const std::string today = dayKey(Date{now});

  const auto& launchDays = history(kAppLaunchesKey).days;
  size_t totalLaunches = 0;
  double earliest = std::numeric_limits<double>::infinity();
  for (const auto& [day, dates] : launchDays) {
    totalLaunches += dates.size();
    for (double d : dates) earliest = std::min(earliest, d);
  }
  const double activeDays = static_cast<double>(launchDays.size());
  const auto todaysLaunches = launchDays.find(today);
  const size_t launchesToday =
      todaysLaunches == launchDays.end() ? 0 : todaysLaunches->second.size();

  // Calendar days from the first launch's day to today, counting both.
  double daysSinceFirst = 1;
  if (std::isfinite(earliest)) {
    const auto first = calendarDay(*calendar_, earliest);
    const auto current = calendarDay(*calendar_, now);
    if (first && current) daysSinceFirst = static_cast<double>(*current - *first + 1);
  }

  const auto& triggerDays = history(kOrvaneTriggersKey).days;
  size_t totalTriggers = 0;
  double latestTrigger = -std::numeric_limits<double>::infinity();
  for (const auto& [day, dates] : triggerDays) {
    totalTriggers += dates.size();
    for (double d : dates) latestTrigger = std::max(latestTrigger, d);
  }
  const auto todaysTriggers = triggerDays.find(today);
  const size_t triggersToday =
      todaysTriggers == triggerDays.end() ? 0 : todaysTriggers->second.size();
  const double hoursSinceTrigger =
      std::isfinite(latestTrigger) ? (now - latestTrigger) / 3600.0 : 0;
  const double sinceResign =
      lastAppWillResignDate_ ? now - lastAppWillResignDate_->secondsSince1970 : -1.0;

  const double launches = static_cast<double>(totalLaunches);
  const double triggers = static_cast<double>(totalTriggers);
  return {floatSignal(SignalEnum::id(80), launches),
          floatSignal(SignalEnum::id(81), activeDays),
          floatSignal(SignalEnum::id(82), static_cast<double>(launchesToday)),
          floatSignal(SignalEnum::id(83), launches / daysSinceFirst),
          floatSignal(SignalEnum::id(90), activeDays / daysSinceFirst),
          floatSignal(SignalEnum::id(85), triggers),
          floatSignal(SignalEnum::id(86), triggers / daysSinceFirst),
          floatSignal(SignalEnum::id(87), activeDays > 0 ? triggers / activeDays : 0),
          floatSignal(SignalEnum::id(88), hoursSinceTrigger),
          floatSignal(SignalEnum::id(89), static_cast<double>(triggersToday)),
          floatSignal(SignalEnum::id(91), sinceResign)};
}

SignalList AppLaunchSignalsGenerator::appSecondsSignals(Date currentSessionStart) const {
  std::lock_guard<std::mutex> guard(mutex_);
  const double now = dateProvider_->currentDate().secondsSince1970;
  const auto& days = history(kAppSecondsKey).days;

  std::vector<double> all;
  for (const auto& [day, lengths] : days) all.insert(all.end(), lengths.begin(), lengths.end());
  std::sort(all.begin(), all.end());
  const auto todayEntry = days.find(dayKey(Date{now}));
  std::vector<double> today = todayEntry == days.end() ? std::vector<double>{} : todayEntry->second;
  std::sort(today.begin(), today.end());

  const double total = std::accumulate(all.begin(), all.end(), 0.0);
  const double todayTotal = std::accumulate(today.begin(), today.end(), 0.0);
  const double perDay = days.empty() ? std::numeric_limits<double>::quiet_NaN()
                                     : total / static_cast<double>(days.size());
  const double perSessionToday = todayTotal / static_cast<double>(today.empty() ? 1 : today.size());
  const double medianAll = median(all);
  const double medianToday = median(today);
  const double current = now - currentSessionStart.secondsSince1970;

  SignalList signals = {floatSignal(SignalEnum::id(410), total),
                        floatSignal(SignalEnum::id(411), todayTotal),
                        floatSignal(SignalEnum::id(412), perDay),
                        floatSignal(SignalEnum::id(413), perSessionToday),
                        floatSignal(SignalEnum::id(414), medianAll),
                        floatSignal(SignalEnum::id(415), medianToday)};
  // Each comparison only against a usual length that exists.
  struct Comparison {
    double usual;
    SignalEnum difference;
    SignalEnum ratio;
  };
  const Comparison comparisons[] = {
      {medianAll, SignalEnum::id(416), SignalEnum::id(420)},
      {medianToday, SignalEnum::id(417), SignalEnum::id(421)},
      {perDay, SignalEnum::id(418), SignalEnum::id(422)},
      {perSessionToday, SignalEnum::id(419), SignalEnum::id(423)},
  };
  for (const Comparison& c : comparisons) {
    if (!(c.usual > 0)) continue;
    signals.push_back(floatSignal(c.difference, current - c.usual));
    signals.push_back(floatSignal(c.ratio, current / c.usual));
  }
  return signals;
}

}  // namespace orvane
