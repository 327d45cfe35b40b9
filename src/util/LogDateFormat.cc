#include "util/LogDateFormat.h"

#include <time.h>

#include <cmath>
#include <cstdio>

namespace orvane {

std::string formatLogDate(Date date) {
  const double seconds = date.secondsSince1970;
  if (!std::isfinite(seconds) || std::fabs(seconds) > 1e14) return "";
  // Milliseconds are truncated, as a date formatter does.
  const double floored = std::floor(seconds);
  auto millis = static_cast<int>((seconds - floored) * 1000.0);
  if (millis > 999) millis = 999;
  const auto whole = static_cast<time_t>(floored);
  struct tm fields {};
  if (gmtime_r(&whole, &fields) == nullptr) return "";
  char text[64];
  std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03d+0000", fields.tm_year + 1900,
                fields.tm_mon + 1, fields.tm_mday, fields.tm_hour, fields.tm_min, fields.tm_sec,
                millis);
  return text;
}

}  // namespace orvane
