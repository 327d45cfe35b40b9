// The durable upload queue on the Linux platform (SQLite defaults suite): adding one record to
// a queue that already holds 99, store and synchronisation included, and building the body of
// a 100-record upload from the stored queue. Targets: adding at most 0.5 ms (median), with at
// most 3x the stored record's size written to disk for it (written_per_record over
// record_bytes, from /proc/self/io, so the log's checkpoints count too); the body under 10 ms.
#include <benchmark/benchmark.h>

#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <string>

#include "RealisticLog.h"
#include "api/Engine.h"
#include "logging/LogDictionaries.h"
#include "logging/OrvaneLogSender.h"
#include "orvane/Log.h"
#include "orvane/platform/Platform.h"
#include "platform/linux/PlistCodec.h"
#include "util/UserDefaultsProvider.h"

namespace {

using namespace orvane;

using bench::realisticLog;

// Bytes this process has caused to be written to storage so far.
double bytesWrittenSoFar() {
  std::ifstream io("/proc/self/io");
  std::string field;
  double value = 0;
  while (io >> field >> value) {
    if (field == "write_bytes:") return value;
  }
  return 0;
}

void waitForQueue(OrvaneLogSender& sender) {
  std::promise<void> done;
  sender.onQueue([&done] { done.set_value(); });
  done.get_future().wait();
}

struct QueueFixture {
  QueueFixture() {
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
  const std::filesystem::path dir = std::filesystem::temp_directory_path() / "orvane-bench-upload";
  std::unique_ptr<Engine> manager;
  std::vector<Log> logs;
};

void BM_AddRecordToQueueOf99(benchmark::State& state) {
  QueueFixture f;
  OrvaneLogSender& sender = f.manager->orvaneLogSender();
  f.fillQueue(99);
  // Each round adds the record and the refill removes it again, the whole life of a queued
  // record, so both count towards what it cost the disk.
  const double writtenBefore = bytesWrittenSoFar();
  for (auto _ : state) {
    state.PauseTiming();
    f.fillQueue(99);
    state.ResumeTiming();
    sender.addToQueue(f.logs[99]);
    waitForQueue(sender);
  }
  const double rounds = static_cast<double>(state.iterations());
  const double perRecord = (bytesWrittenSoFar() - writtenBefore) / rounds;
  const auto encoded = encodePlistArrayElement(rawDictionaryWithStaticColumns(f.logs[99]));
  const double recordBytes = encoded ? static_cast<double>(encoded->size()) : 0;
  std::error_code ignored;
  const auto walBytes =
      std::filesystem::file_size(f.dir / "defaults" / "com.orvane.ads.sqlite-wal", ignored);
  state.counters["record_bytes"] = recordBytes;
  state.counters["written_per_record"] = perRecord;
  state.counters["written_ratio"] = recordBytes > 0 ? perRecord / recordBytes : 0;
  state.counters["wal_bytes_at_end"] = walBytes == static_cast<uintmax_t>(-1) ? 0 : walBytes;
}
// Enough rounds for the write-ahead log to be checkpointed several times, which the bytes
// written per record must include.
BENCHMARK(BM_AddRecordToQueueOf99)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(300)
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
