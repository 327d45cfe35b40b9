// The default signals of one request (everything but motion), on the Linux platform with its
// SQLite defaults suite, for an installation with a year of launch history. Target: under
// 100 µs (median).
#include <benchmark/benchmark.h>

#include <filesystem>
#include <memory>

#include "api/Engine.h"
#include "generators/AppLaunchSignalsGenerator.h"
#include "orvane/platform/Clock.h"

namespace {

// Wall time the bench moves by hand while it records the history.
class SteppedClock : public orvane::Clock {
 public:
  double now() const override { return now_; }
  double uptime() const override { return now_ - 1'750'000'000.0; }
  void advance(double seconds) { now_ += seconds; }

 private:
  double now_ = 1'750'000'000.0;
};

// A year of use: three launches, three sessions and two triggers a day.
void recordYearOfUse(orvane::Engine& manager, SteppedClock& clock) {
  orvane::AppLaunchSignalsGenerator& history = manager.appLaunchSignalsGenerator();
  for (int day = 0; day < 365; ++day) {
    for (int launch = 0; launch < 3; ++launch) {
      history.incrementAndGetNumberOfAppLaunches();
      history.didUserTriggerOrvane();
      history.storeNewSessionDuration(60 + 37 * launch + day % 11);
      clock.advance(4 * 3600);
    }
    clock.advance(12 * 3600);
  }
}

void BM_AllDefaultSignalsWithYearOfHistory(benchmark::State& state) {
  const std::string dir = std::filesystem::temp_directory_path() / "orvane-bench-default-signals";
  std::filesystem::remove_all(dir);
  setenv("ORVANE_DATA_DIR", dir.c_str(), 1);
  orvane::Platform platform = orvane::Platform::defaultPlatform();
  auto clock = std::make_shared<SteppedClock>();
  platform.clock = clock;
  orvane::Engine manager(platform);
  recordYearOfUse(manager, *clock);
  size_t count = 0;
  for (auto _ : state) {
    orvane::SignalList signals = manager.allDefaultSignals();
    count = signals.size();
    benchmark::DoNotOptimize(signals.data());
  }
  state.counters["signals"] = static_cast<double>(count);
}
BENCHMARK(BM_AllDefaultSignalsWithYearOfHistory)
    ->Unit(benchmark::kMicrosecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

}  // namespace
