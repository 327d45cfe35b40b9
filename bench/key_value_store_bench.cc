// The SQLite suite's costs: what a caller pays for set() on the request path, how long
// synchronize() takes to make a value durable, and what opening a suite costs with the check
// for damage it runs every time.
//
// The suites live under $ORVANE_BENCH_DIR when set, else the system temporary directory;
// point it at the file system you care about, since fsync cost is the whole story here.
#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <stdlib.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "orvane/platform/linux/LinuxPlatform.h"
#include "platform/linux/SqliteKeyValueStore.h"

namespace orvane {
namespace {

namespace fs = std::filesystem;

class BenchDirectory {
 public:
  BenchDirectory() {
    const char* base = std::getenv("ORVANE_BENCH_DIR");
    std::string pattern =
        ((base ? fs::path(base) : fs::temp_directory_path()) / "orvane-kv-bench-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
  }
  ~BenchDirectory() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
  }
  std::string path() const { return path_.string(); }

 private:
  fs::path path_;
};

constexpr size_t kOneMegabyte = 1 << 20;

PlistValue megabyteOfBytes() {
  Bytes payload(kOneMegabyte);
  for (size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<uint8_t>(i * 131 + 7);
  return PlistDictionary{{"payload", std::move(payload)}, {"version", int64_t{1}}};
}

// Many small strings: the shape of a queued-up log, and the encoder's slow path.
PlistValue megabyteOfStrings() {
  PlistArray strings;
  size_t total = 0;
  for (int i = 0; total < kOneMegabyte; ++i) {
    std::string s = "event-" + std::to_string(i) + "-" + std::string(50, 'x');
    total += s.size();
    strings.emplace_back(std::move(s));
  }
  return strings;
}

// One suite for the whole run, so every measured write lands in a warmed-up file rather than
// paying for creating it.
KeyValueStore* benchStore() {
  static BenchDirectory directory;
  static std::shared_ptr<KeyValueStore> store =
      makeSqliteKeyValueStoreProvider(directory.path(), nullptr)->openSuite("bench");
  return store.get();
}

void runWriteAndSynchronize(benchmark::State& state, const PlistValue& value) {
  KeyValueStore* store = benchStore();
  if (!store) {
    state.SkipWithError("cannot open the suite");
    return;
  }
  for (auto _ : state) {
    store->set("large", value);
    if (!store->synchronize()) {
      state.SkipWithError("synchronize failed");
      break;
    }
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kOneMegabyte));
}

void BM_SetAndSynchronize1MBBytes(benchmark::State& state) {
  static const PlistValue value = megabyteOfBytes();
  runWriteAndSynchronize(state, value);
}

void BM_SetAndSynchronize1MBStrings(benchmark::State& state) {
  static const PlistValue value = megabyteOfStrings();
  runWriteAndSynchronize(state, value);
}

void BM_SetSmallValue(benchmark::State& state) {
  KeyValueStore* store = benchStore();
  if (!store) {
    state.SkipWithError("cannot open the suite");
    return;
  }
  std::vector<std::string> keys;
  for (int i = 0; i < 64; ++i) keys.push_back("counter." + std::to_string(i));
  int64_t i = 0;
  for (auto _ : state) {
    store->set(keys[static_cast<size_t>(i) % keys.size()], i);
    ++i;
  }
  // Untimed: drain the queue so the next repetition starts from the same place.
  store->synchronize();
}

// What the upload queue does after each change.
void BM_SetAndSynchronizeSmallValue(benchmark::State& state) {
  static const PlistValue value = PlistDictionary{{"id", "3f1c"}, {"attempts", int64_t{2}}};
  KeyValueStore* store = benchStore();
  if (!store) {
    state.SkipWithError("cannot open the suite");
    return;
  }
  for (auto _ : state) {
    store->set("small", value);
    if (!store->synchronize()) {
      state.SkipWithError("synchronize failed");
      break;
    }
  }
}

// A suite holding an upload queue of 100 records of 5 KB, written once for the run.
const std::string& queueSuiteDirectory() {
  static BenchDirectory directory;
  static const bool written = [] {
    auto store = makeSqliteKeyValueStoreProvider(directory.path(), nullptr)->openSuite("queue");
    if (!store) return false;
    PlistArray queue;
    for (int64_t id = 0; id < 100; ++id) {
      queue.push_back(PlistDictionary{{"id", id}, {"payload", Bytes(5000, uint8_t(id))}});
    }
    store->set("orvane_log", std::move(queue));
    return store->synchronize();
  }();
  static const std::string path = written ? directory.path() : std::string();
  return path;
}

// What a launch pays: open, check the structure, decode every record, close.
void BM_OpenQueueSuite(benchmark::State& state) {
  const std::string& directory = queueSuiteDirectory();
  if (directory.empty()) {
    state.SkipWithError("cannot write the suite");
    return;
  }
  for (auto _ : state) {
    auto store = makeSqliteKeyValueStoreProvider(directory, nullptr)->openSuite("queue");
    if (!store) {
      state.SkipWithError("cannot open the suite");
      break;
    }
    benchmark::DoNotOptimize(store);
  }
}

// The structure check alone (PRAGMA quick_check) on the same file, through a fresh connection
// each time as at open: the part of opening that looks for damage.
void BM_StructureCheckOfQueueSuite(benchmark::State& state) {
  const std::string& directory = queueSuiteDirectory();
  if (directory.empty()) {
    state.SkipWithError("cannot write the suite");
    return;
  }
  const std::string file = directory + "/queue.sqlite";
  for (auto _ : state) {
    state.PauseTiming();
    sqlite3* db = nullptr;
    sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READONLY, nullptr);
    state.ResumeTiming();
    if (sqlite3_exec(db, "PRAGMA quick_check(1)", nullptr, nullptr, nullptr) != SQLITE_OK) {
      state.SkipWithError("structure check failed");
    }
    state.PauseTiming();
    sqlite3_close(db);
    state.ResumeTiming();
  }
}

double percentile90(const std::vector<double>& samples) {
  std::vector<double> sorted = samples;
  std::sort(sorted.begin(), sorted.end());
  return sorted[(sorted.size() * 9) / 10];
}

// One write per repetition, so the median and p90 are of single writes rather than of
// averages. Wall time, because the writer thread does the work the caller waits for.
BENCHMARK(BM_SetAndSynchronize1MBBytes)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(1)
    ->Repetitions(100)
    ->ComputeStatistics("p90", percentile90)
    ->ReportAggregatesOnly(true);
BENCHMARK(BM_SetAndSynchronize1MBStrings)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(1)
    ->Repetitions(100)
    ->ComputeStatistics("p90", percentile90)
    ->ReportAggregatesOnly(true);
BENCHMARK(BM_SetAndSynchronizeSmallValue)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(1)
    ->Repetitions(100)
    ->ComputeStatistics("p90", percentile90)
    ->ReportAggregatesOnly(true);
BENCHMARK(BM_SetSmallValue)->UseRealTime()->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(BM_OpenQueueSuite)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_StructureCheckOfQueueSuite)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace orvane
