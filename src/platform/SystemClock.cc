// The machine's clocks: the calendar clock for dates, the boot clock for uptime.
#include <time.h>

#include <chrono>

#include "orvane/platform/Clock.h"

namespace orvane {
namespace {

double readClock(clockid_t id) {
  timespec ts{};
  if (clock_gettime(id, &ts) != 0) return -1;
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

class SystemClock : public Clock {
 public:
  double now() const override {
    using Seconds = std::chrono::duration<double>;
    return std::chrono::duration_cast<Seconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
  }

  // "Since boot" as the platform's motion timestamps count it. Linux and Android count the
  // time asleep (CLOCK_BOOTTIME, elapsedRealtime); kernels without the boot clock fall back to
  // the monotonic one. Apple's systemUptime stops while asleep, as CLOCK_UPTIME_RAW does.
  double uptime() const override {
#if defined(CLOCK_BOOTTIME)
    const double boot = readClock(CLOCK_BOOTTIME);
    if (boot >= 0) return boot;
#elif defined(__APPLE__)
    const double awake = readClock(CLOCK_UPTIME_RAW);
    if (awake >= 0) return awake;
#endif
    return readClock(CLOCK_MONOTONIC);
  }
};

}  // namespace

std::shared_ptr<Clock> makeSystemClock() { return std::make_shared<SystemClock>(); }

}  // namespace orvane
