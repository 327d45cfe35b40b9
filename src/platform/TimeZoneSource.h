// File: TimeZoneSource.h
// Which zone the machine is in, named as the C library picks it, and a cheap stamp that
// changes when the zone may have changed. The system calendar re-reads the zone only when
// the stamp moves, so every reading between two refreshes agrees on one zone.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "orvane/platform/Calendar.h"

namespace orvane {

struct TimeZoneFiles {
  std::string localtime = "/etc/localtime";
  std::string timezone = "/etc/timezone";  // Debian's name for a copied /etc/localtime
  std::string zoneinfo = "/usr/share/zoneinfo";
};

class TimeZoneSource {
 public:
  // The value of TZ, none when unset.
  using Variable = std::function<std::optional<std::string>()>;

  explicit TimeZoneSource(TimeZoneFiles files = {}, Variable tz = {});

  // TZ and the status of the files: equal stamps mean the zone has not changed.
  std::string stamp() const;
  // "Europe/Berlin"; none when the zone has no name the machine can vouch for. TZ wins (an
  // empty one is UTC, a leading colon is dropped); else the target of the /etc/localtime
  // link; else, for a plain copy, /etc/timezone when the zone it names has the same data
  // (a stale name would mislead more than an offset).
  std::optional<std::string> identifier() const;

 private:
  TimeZoneFiles files_;
  Variable tz_;
};

// The system calendar on a zone source of the caller's; makeSystemCalendar() uses the
// machine's files and TZ.
std::shared_ptr<Calendar> makeSystemCalendar(TimeZoneSource source);

}  // namespace orvane
