// Manager creation until it is ready to serve requests, on the Linux platform with its
// SQLite defaults suite and thread queues.
#include <benchmark/benchmark.h>

#include <filesystem>
#include <memory>

#include "api/Engine.h"

namespace {

void BM_ManagerCreationToReady(benchmark::State& state) {
  const std::string dir = std::filesystem::temp_directory_path() / "orvane-bench-manager";
  std::filesystem::remove_all(dir);
  setenv("ORVANE_DATA_DIR", dir.c_str(), 1);
  orvane::Platform platform = orvane::Platform::defaultPlatform();
  for (auto _ : state) {
    auto manager = std::make_unique<orvane::Engine>(platform);
    benchmark::DoNotOptimize(manager->installationUUID());
    state.PauseTiming();  // tearing down is not part of start-up
    manager.reset();
    state.ResumeTiming();
  }
}
BENCHMARK(BM_ManagerCreationToReady)
    ->Unit(benchmark::kMillisecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

}  // namespace
