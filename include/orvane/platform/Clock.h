// File: Clock.h
// Wall-clock and uptime readings. Nothing in the SDK reads the time except through here.
#pragma once

#include <memory>

#include "orvane/Export.h"

namespace orvane {

class ORVANE_API Clock {
 public:
  virtual ~Clock() = default;
  // Seconds since 1970-01-01T00:00:00Z.
  virtual double now() const = 0;
  // Seconds since boot, monotonic; motion sample timestamps use this time base.
  virtual double uptime() const = 0;
};

// The machine's clocks.
ORVANE_API std::shared_ptr<Clock> makeSystemClock();

}  // namespace orvane
