// File: TimeSignalsGenerator.h
// The local time of the moment: share of the day passed, weekday, weekend.
#pragma once

#include "orvane/PlistValue.h"
#include "orvane/Signal.h"
#include "orvane/platform/Calendar.h"

namespace orvane {

class TimeSignalsGenerator {
 public:
  // 70 (hour × 60 + minute) / 1440 in single precision, 71 the weekday (1 = Sunday),
  // 72 weekend (weekday 1 or 7), all on the calendar's wall clock. Empty when the calendar
  // cannot place `now`.
  static SignalList timeSignals(const Calendar& calendar, Date now);
};

}  // namespace orvane
