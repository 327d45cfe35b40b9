// The encoded and flat forms of a realistic log: about 420 signals of mixed kinds, as a
// context with full motion features carries them.
#include <benchmark/benchmark.h>

#include "logging/AES.h"
#include "logging/LogDictionaries.h"
#include "logging/LogEncoder.h"
#include "orvane/Log.h"
#include "orvane/platform/Platform.h"
#include "orvane/platform/linux/LinuxPlatform.h"

namespace {

using namespace orvane;

SignalList realisticSignals() {
  SignalList out;
  uint32_t seed = 12345;
  auto next = [&] {
    seed = seed * 1103515245u + 12345u;
    return seed >> 8;
  };
  for (SignalEnum id : SignalEnum::allCases()) {
    if (out.size() >= 420) break;
    const uint16_t raw = id.rawValue();
    if ((raw >= 100 && raw <= 224) || raw >= 900) {
      out.push_back(SignalFloat(id, static_cast<float>(next() % 100000) / 997.0f));
    } else if (raw % 7 == 0) {
      out.push_back(SignalBool(id, next() % 2 == 0));
    } else if (raw % 11 == 0) {
      out.push_back(SignalString(id, "value-" + std::to_string(next() % 1000)));
    } else if (raw % 13 == 0) {
      out.push_back(SignalDecimal(id, Decimal(static_cast<int64_t>(next() % 10000))));
    } else {
      const int64_t widths[] = {100, 30000, 2000000000, int64_t{1} << 40};
      out.push_back(SignalInt(id, static_cast<int64_t>(next()) % widths[raw % 4]));
    }
  }
  while (out.size() < 420) out.push_back(SignalFloat(SignalEnum::id(991), 1.0f));
  return out;
}

struct Fixture {
  SignalList signals = realisticSignals();
  CustomSignalList custom{CustomSignalString("plan", "pro"), CustomSignalInt("level", 12),
                          CustomSignalFloat("score", 0.75f)};
  CustomSignalList global{CustomSignalBool("beta", true)};
  LogEncoder encoder{makeOpenSslCrypto(), makeSystemRandomSource(), makeStderrLog(),
                     [] { return deriveLogEncryptionKey("0123456789abcdef-app-key"); }};
};

void BM_EncodeLog(benchmark::State& state) {
  Fixture f;
  size_t size = 0;
  for (auto _ : state) {
    auto encoded = f.encoder.encodeLog(f.signals, f.custom, f.global);
    size = encoded->size();
    benchmark::DoNotOptimize(encoded);
  }
  state.counters["encoded_bytes"] = static_cast<double>(size);
}
BENCHMARK(BM_EncodeLog)->Unit(benchmark::kMicrosecond)->Repetitions(5)->ReportAggregatesOnly(true);

void BM_RawDictionaryWithStaticColumns(benchmark::State& state) {
  Fixture f;
  Log log(f.signals, f.custom, f.global, {}, *f.encoder.encodeLog(f.signals, f.custom, f.global));
  for (auto _ : state) benchmark::DoNotOptimize(rawDictionaryWithStaticColumns(log));
}
BENCHMARK(BM_RawDictionaryWithStaticColumns)
    ->Unit(benchmark::kMicrosecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

void BM_Dictionary(benchmark::State& state) {
  Fixture f;
  Log log(f.signals, f.custom, f.global, {}, *f.encoder.encodeLog(f.signals, f.custom, f.global));
  for (auto _ : state) benchmark::DoNotOptimize(log.dictionary());
}
BENCHMARK(BM_Dictionary)->Unit(benchmark::kMicrosecond)->Repetitions(5)->ReportAggregatesOnly(true);

}  // namespace
