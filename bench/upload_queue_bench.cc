// The durable upload queue on the Linux platform (SQLite defaults suite): adding one record to
// a queue that already holds 99, store and synchronisation included, and building the body of
// a 100-record upload from the stored queue. Targets: adding under 5 ms (median), the body
// under 10 ms.
#include <benchmark/benchmark.h>

#include <filesystem>
#include <future>
#include <memory>

#include "api/Engine.h"
#include "logging/LogDictionaries.h"
#include "logging/LogEncoder.h"
#include "logging/OrvaneLogSender.h"
#include "orvane/Log.h"
#include "orvane/platform/Platform.h"
#include "util/UserDefaultsProvider.h"

namespace {

using namespace orvane;

// A log about the size of a real one: ~420 signals of every kind.
Log realisticLog(Engine& manager, int serial) {
  SignalList signals;
  for (const SignalEnum id : SignalEnum::allCases()) {
    if (signals.size() == 420) break;
    const uint16_t raw = id.rawValue();
    if (raw % 7 == 0) {
      signals.push_back(SignalString(id, "value-" + std::to_string(raw + serial)));
    } else if (raw % 5 == 0) {
      signals.push_back(SignalInt(id, raw * 1000 + serial));
    } else {
      signals.push_back(SignalFloat(id, static_cast<float>(raw) / 7.0f + serial));
    }
  }
  signals.push_back(SignalString(SignalEnum::id(8), "log-" + std::to_string(serial)));
  const CustomSignalList custom{CustomSignalString("plan", "pro")};
  auto encoded = manager.logEncoder().encodeLog(signals, custom, {});
  return Log(signals, custom, {}, {}, encoded ? *encoded : Bytes{});
}

void waitForQueue(OrvaneLogSender& sender) {
  std::promise<void> done;
  sender.onQueue([&done] { done.set_value(); });
  done.get_future().wait();
}

struct QueueFixture {
  QueueFixture() {
    const std::string dir = std::filesystem::temp_directory_path() / "orvane-bench-upload";
    std::filesystem::remove_all(dir);
    setenv("ORVANE_DATA_DIR", dir.c_str(), 1);
    manager = std::make_unique<Engine>(Platform::defaultPlatform());
    for (int i = 0; i < 100; ++i) logs.push_back(realisticLog(*manager, i));
  }
  void fillQueue(size_t records) {
    PlistArray stored;
    for (size_t i = 0; i < records; ++i) stored.push_back(rawDictionaryWithStaticColumns(logs[i]));
    manager->userDefaultsProvider()->set(OrvaneLogSender::kMainQueueKey, std::move(stored));
    // The refill lands on disk before the clock runs again.
    manager->userDefaultsProvider()->synchronize();
  }
  std::unique_ptr<Engine> manager;
  std::vector<Log> logs;
};

void BM_AddRecordToQueueOf99(benchmark::State& state) {
  QueueFixture f;
  OrvaneLogSender& sender = f.manager->orvaneLogSender();
  for (auto _ : state) {
    state.PauseTiming();
    f.fillQueue(99);
    state.ResumeTiming();
    sender.addToQueue(f.logs[99]);
    waitForQueue(sender);
  }
}
BENCHMARK(BM_AddRecordToQueueOf99)
    ->Unit(benchmark::kMillisecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

void BM_UploadBodyOf100Records(benchmark::State& state) {
  QueueFixture f;
  f.fillQueue(100);
  const auto& defaults = f.manager->userDefaultsProvider();
  OrvaneLogSender::UploadBodyFields fields{"com.example.app", "key", "5.13.0", 7, "uuid"};
  size_t bytes = 0;
  for (auto _ : state) {
    const StoredQueueView batch =
        viewStoredQueue(defaults->sharedObject(OrvaneLogSender::kMainQueueKey));
    auto body = OrvaneLogSender::encodeUploadBody(batch.records, fields);
    bytes = body ? body->size() : 0;
    benchmark::DoNotOptimize(body);
  }
  state.counters["body_bytes"] = static_cast<double>(bytes);
}
BENCHMARK(BM_UploadBodyOf100Records)
    ->Unit(benchmark::kMillisecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

}  // namespace
