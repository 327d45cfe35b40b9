// Requests end to end on the Linux platform (thread queues, SQLite suite, a device replaying
// motion at 100 Hz in real time) once the motion buffer is full (20 s of samples, as in any app
// that has been in the foreground that long), with the default remote configuration (so about
// one request in twenty also captures the raw-motion record):
// - instantContext: head, motion features, every default signal, the control rule, the
//   creation log encoded and handed over; the call's duration, on the caller's thread;
// - fetchContext whose window is already there: from the call until its callback runs on the
//   main queue.
// Each reports the median and 99th percentile over every iteration. Targets: instantContext
// median under 0.3 ms and 99th percentile under 1 ms; fetchContext median under 1 ms.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <future>
#include <memory>
#include <thread>
#include <vector>

#include "api/Engine.h"
#include "logging/OrvaneLogSender.h"
#include "orvane/Context.h"
#include "orvane/platform/ApplicationService.h"
#include "orvane/platform/MotionService.h"
#include "orvane/platform/Platform.h"
#include "util/UserDefaultsProvider.h"

namespace {

using namespace orvane;
using Clock = std::chrono::steady_clock;

// A hand moving gently: enough variation for every motion feature to be computed.
std::optional<DeviceMotion> gentleMotion(uint64_t i) {
  DeviceMotion motion;
  const double t = static_cast<double>(i) / 100.0;
  motion.userAcceleration = {0.05 * std::sin(6.0 * t), 0.03 * std::cos(4.0 * t), 0.01};
  motion.gravity = {0, -0.7, -0.7};
  return motion;
}

std::unique_ptr<Engine> readyManager() {
  const std::string dir = std::filesystem::temp_directory_path() / "orvane-bench-requests";
  std::filesystem::remove_all(dir);
  setenv("ORVANE_DATA_DIR", dir.c_str(), 1);
  Platform platform = Platform::defaultPlatform();
  platform.http = nullptr;  // nothing leaves the machine
  platform.motion = makeReplayMotionService(platform.clock, 100, gentleMotion);
  auto manager = std::make_unique<Engine>(platform, ContextManagerIsSupported::kSupported);
  manager->setupWith("KEY-0123456789abcdef", {}, std::nullopt, Configuration{});
  // The host reports its app active, as on launch: the sensor samples from then on.
  if (auto host = std::dynamic_pointer_cast<HostApplicationService>(platform.application)) {
    host->becomeActive();
  }
  // The sensor samples from now on; the buffer keeps the last 20 s.
  std::this_thread::sleep_for(std::chrono::milliseconds(20500));
  return manager;
}

Engine& sharedManager() {
  static std::unique_ptr<Engine> manager = readyManager();
  return *manager;
}

void reportPercentiles(benchmark::State& state, std::vector<double> micros) {
  if (micros.empty()) return;
  std::sort(micros.begin(), micros.end());
  state.counters["p50_us"] = micros[micros.size() / 2];
  state.counters["p99_us"] = micros[std::min(micros.size() - 1, micros.size() * 99 / 100)];
}

// Lets the creation log reach the store before the next request, as between real requests,
// so a backlog of writes does not compete with the requests measured.
void waitUntilLogsStored(Engine& manager) {
  manager.platform().executors->mainQueue()->sync([] {});
  std::promise<void> stored;
  manager.orvaneLogSender().onQueue([&stored] { stored.set_value(); });
  stored.get_future().wait();
  manager.userDefaultsProvider()->synchronize();
}

bool hasValidMotion(const SignalList& signals) {
  for (const Signal& s : signals) {
    if (s.id() == SignalEnum::id(192)) return s.value() == SignalValue(true);
  }
  return false;
}

double microsSince(Clock::time_point start) {
  return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

void BM_InstantContextWithBufferedMotion(benchmark::State& state) {
  Engine* manager = &sharedManager();
  std::vector<double> micros;
  bool hadMotion = true;
  for (auto _ : state) {
    const auto start = Clock::now();
    auto context =
        manager->requestInstantContext("bench_instant", 3, {}, MethodUsed::kInstantContext);
    micros.push_back(microsSince(start));
    state.SetIterationTime(micros.back() / 1e6);
    benchmark::DoNotOptimize(context);
    hadMotion = hadMotion && context && hasValidMotion(context->signals());
    waitUntilLogsStored(*manager);
  }
  if (!hadMotion) state.SkipWithError("a context was served without its motion signals");
  reportPercentiles(state, std::move(micros));
}
BENCHMARK(BM_InstantContextWithBufferedMotion)
    ->Unit(benchmark::kMicrosecond)
    ->Iterations(2000)
    ->UseManualTime();

void BM_FetchContextWindowPresent(benchmark::State& state) {
  Engine* manager = &sharedManager();
  std::vector<double> micros;
  for (auto _ : state) {
    std::promise<double> answered;
    const auto start = Clock::now();
    manager->requestFetchContext(
        "bench_fetch", 3, {},
        [&answered, start](std::shared_ptr<Context>) { answered.set_value(microsSince(start)); },
        MethodUsed::kFetchContext);
    micros.push_back(answered.get_future().get());
    state.SetIterationTime(micros.back() / 1e6);
    waitUntilLogsStored(*manager);
  }
  reportPercentiles(state, std::move(micros));
}
BENCHMARK(BM_FetchContextWindowPresent)
    ->Unit(benchmark::kMicrosecond)
    ->Iterations(2000)
    ->UseManualTime();

}  // namespace
