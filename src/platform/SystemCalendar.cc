// Wall-clock fields through the C library's time zone database.
#include <time.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <mutex>

#include "orvane/platform/Calendar.h"
#include "platform/TimeZoneSource.h"

namespace orvane {
namespace {

std::optional<time_t> toTimeT(double secondsSince1970) {
  if (!std::isfinite(secondsSince1970)) return std::nullopt;
  const double floored = std::floor(secondsSince1970);
  // Years far beyond any real date overflow struct tm's int year.
  if (std::fabs(floored) > 1e14) return std::nullopt;
  return static_cast<time_t>(floored);
}

CalendarComponents fromTm(const struct tm& fields) {
  return {fields.tm_year + 1900, fields.tm_mon + 1, fields.tm_mday,    fields.tm_hour,
          fields.tm_min,         fields.tm_sec,     fields.tm_wday + 1};
}

std::string offsetName(int64_t offsetSeconds) {
  const int64_t minutes = std::llabs(offsetSeconds) / 60;
  char text[48];
  std::snprintf(text, sizeof text, "GMT%c%02lld%02lld", offsetSeconds < 0 ? '-' : '+',
                static_cast<long long>(minutes / 60), static_cast<long long>(minutes % 60));
  return text;
}

// "GMT", "GMT+2", "GMT-3:30": hours without padding, minutes only when there are some.
std::string gmtAbbreviation(int64_t offsetSeconds) {
  if (offsetSeconds == 0) return "GMT";
  const int64_t minutes = std::llabs(offsetSeconds) / 60;
  std::string text = offsetSeconds < 0 ? "GMT-" : "GMT+";
  text += std::to_string(minutes / 60);
  if (minutes % 60 != 0) {
    text += minutes % 60 < 10 ? ":0" : ":";
    text += std::to_string(minutes % 60);
  }
  return text;
}

// Conversions run on the C library's zone, which it reads again only in tzset(): the zone
// is taken up in refreshZone(), together with its name, so that readings between two
// refreshes agree (a name read live would move ahead of the hour and weekday).
class SystemCalendar : public Calendar {
 public:
  explicit SystemCalendar(TimeZoneSource source) : source_(std::move(source)) { refreshZone(); }

  void refreshZone() override {
    std::string stamp = source_.stamp();
    std::lock_guard<std::mutex> guard(mutex_);
    if (stamp == stamp_) return;
    tzset();
    identifier_ = source_.identifier();
    stamp_ = std::move(stamp);
  }

  std::optional<CalendarComponents> components(double secondsSince1970) const override {
    auto t = toTimeT(secondsSince1970);
    struct tm fields {};
    if (!t || localtime_r(&*t, &fields) == nullptr) return std::nullopt;
    return fromTm(fields);
  }

  std::string timeZoneIdentifier() const override {
    {
      std::lock_guard<std::mutex> guard(mutex_);
      if (identifier_) return *identifier_;
    }
    return offsetName(secondsFromGMT(static_cast<double>(time(nullptr))));
  }

  int64_t secondsFromGMT(double secondsSince1970) const override {
    auto t = toTimeT(secondsSince1970);
    struct tm fields {};
    if (!t || localtime_r(&*t, &fields) == nullptr) return 0;
    return fields.tm_gmtoff;
  }

  std::optional<std::string> timeZoneAbbreviation(double secondsSince1970) const override {
    auto t = toTimeT(secondsSince1970);
    struct tm fields {};
    if (!t || localtime_r(&*t, &fields) == nullptr || fields.tm_zone == nullptr ||
        *fields.tm_zone == '\0') {
      return std::nullopt;
    }
    return std::string(fields.tm_zone);
  }

 private:
  TimeZoneSource source_;
  mutable std::mutex mutex_;
  std::string stamp_;
  std::optional<std::string> identifier_;
};

class FixedOffsetCalendar : public Calendar {
 public:
  FixedOffsetCalendar(std::string identifier, int64_t offsetSeconds,
                      std::optional<std::string> abbreviation)
      : identifier_(std::move(identifier)),
        offsetSeconds_(offsetSeconds),
        abbreviation_(abbreviation ? std::move(*abbreviation) : gmtAbbreviation(offsetSeconds)) {}

  std::optional<CalendarComponents> components(double secondsSince1970) const override {
    auto t = toTimeT(secondsSince1970 + static_cast<double>(offsetSeconds_));
    struct tm fields {};
    if (!t || gmtime_r(&*t, &fields) == nullptr) return std::nullopt;
    return fromTm(fields);
  }
  std::string timeZoneIdentifier() const override {
    return identifier_.empty() ? offsetName(offsetSeconds_) : identifier_;
  }
  int64_t secondsFromGMT(double) const override { return offsetSeconds_; }
  std::optional<std::string> timeZoneAbbreviation(double) const override { return abbreviation_; }

 private:
  std::string identifier_;
  int64_t offsetSeconds_;
  std::string abbreviation_;
};

}  // namespace

std::shared_ptr<Calendar> makeSystemCalendar() { return makeSystemCalendar(TimeZoneSource()); }

std::shared_ptr<Calendar> makeSystemCalendar(TimeZoneSource source) {
  return std::make_shared<SystemCalendar>(std::move(source));
}

std::shared_ptr<Calendar> makeFixedOffsetCalendar(std::string identifier, int64_t offsetSeconds,
                                                  std::optional<std::string> abbreviation) {
  return std::make_shared<FixedOffsetCalendar>(std::move(identifier), offsetSeconds,
                                               std::move(abbreviation));
}

}  // namespace orvane
