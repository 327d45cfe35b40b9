#include "generators/TimeSignalsGenerator.h"

namespace orvane {

SignalList TimeSignalsGenerator::timeSignals(const Calendar& calendar, Date now) {
  SignalList signals;
  const auto fields = calendar.components(now.secondsSince1970);
  if (!fields) return signals;
  const int minutes = fields->hour * 60 + fields->minute;
  signals.push_back(SignalFloat(SignalEnum::id(70), static_cast<float>(minutes) / 1440.0f));
  signals.push_back(SignalInt(SignalEnum::id(71), fields->weekday));
  // The numbers, not the locale's weekend: a calendar numbering its days otherwise still
  // answers for days 1 and 7.
  signals.push_back(SignalBool(SignalEnum::id(72), fields->weekday == 1 || fields->weekday == 7));
  return signals;
}

}  // namespace orvane
