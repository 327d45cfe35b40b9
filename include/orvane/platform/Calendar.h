// File: Calendar.h
// The user's calendar and time zone: how an instant reads on the user's wall clock.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "orvane/Export.h"

namespace orvane {

// Gregorian wall-clock fields of one instant. weekday runs 1..7 with 1 = Sunday.
struct ORVANE_API CalendarComponents {
  int year = 0;
  int month = 0;  // 1..12
  int day = 0;    // 1..31
  int hour = 0;   // 0..23
  int minute = 0;
  int second = 0;
  int weekday = 0;

  bool operator==(const CalendarComponents&) const = default;
};

class ORVANE_API Calendar {
 public:
  virtual ~Calendar() = default;
  // None when the instant cannot be represented (far outside the calendar's range).
  virtual std::optional<CalendarComponents> components(double secondsSince1970) const = 0;
  // The zone's name ("Europe/Berlin"), or an offset form ("GMT+0100") when it has none.
  virtual std::string timeZoneIdentifier() const = 0;
  // Offset of the zone's wall clock from UTC at that instant.
  virtual int64_t secondsFromGMT(double secondsSince1970) const = 0;
  // The zone's abbreviation at that instant ("CET", "CEST"); none when it cannot be told.
  virtual std::optional<std::string> timeZoneAbbreviation(double secondsSince1970) const = 0;
  // Takes up a change of zone made since the last call. The manager calls it once at the start
  // of each context's signals (and at each activation), so that the readings of one context
  // agree on the zone; a calendar whose zone cannot change does nothing.
  virtual void refreshZone() {}
};

// The machine's local time zone as the C library reads it (TZ, else /etc/localtime), named
// by TZ, the /etc/localtime link, or /etc/timezone for a plain copy; a change is taken up at
// the next refreshZone().
ORVANE_API std::shared_ptr<Calendar> makeSystemCalendar();
// A zone with a constant offset and no daylight saving; for tests and hosts that know better.
// Its abbreviation is "GMT", "GMT+2" or "GMT-3:30" unless one is given.
ORVANE_API std::shared_ptr<Calendar> makeFixedOffsetCalendar(
    std::string identifier, int64_t offsetSeconds,
    std::optional<std::string> abbreviation = std::nullopt);

}  // namespace orvane
