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

  // The boot clock keeps counting while the machine sleeps, which is what "since boot" means
  // to the motion timestamps; kernels without it fall back to the monotonic clock.
  double uptime() const override {
    const double boot = readClock(CLOCK_BOOTTIME);
    if (boot >= 0) return boot;
    return readClock(CLOCK_MONOTONIC);
  }
};

}  // namespace

std::shared_ptr<Clock> makeSystemClock() { return std::make_shared<SystemClock>(); }

}  // namespace orvane
