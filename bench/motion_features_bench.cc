// Motion features of a whole window (extraction plus the signal list, what a context request
// pays), and the magnitude spectrum alone: the FFT against the direct transform it replaced.
// Windows of 3 s (300 samples) and 20 s (2000, the longest the sensor keeps).

#include <benchmark/benchmark.h>

#include <cmath>
#include <memory>
#include <random>
#include <vector>

#include "motion/AdditionalAccelFeatureExtraction.h"
#include "motion/features/AccelFeatureExtraction.h"
#include "motion/features/FourierTransform.h"
#include "motion/features/MotionSeries.h"
#include "testutil/DirectFourierTransform.h"

namespace orvane {
namespace {

constexpr double kStart = 1763800000.0;

// Hand-held walking: steps near 1.9 Hz, handling noise, slowly turning gravity.
std::vector<AccelerometerSensorValue> walkingWindow(size_t n) {
  std::mt19937_64 random(42);
  std::normal_distribution<double> noise(0, 0.02);
  std::vector<AccelerometerSensorValue> samples;
  for (size_t i = 0; i < n; ++i) {
    const double t = static_cast<double>(i) / 100;
    const double step = std::sin(2 * 3.14159265358979 * 1.9 * t);
    const double pitch = 0.9 + 0.1 * std::sin(0.5 * t);
    samples.emplace_back(MotionVector{0.05 * step + noise(random), 0.1 * step + noise(random),
                                      0.2 * step * step + noise(random)},
                         MotionVector{0.4 * step + noise(random), noise(random), noise(random)},
                         AttitudeData{0.01 * t, pitch, 0.5},
                         MotionVector{0, -std::sin(pitch), -std::cos(pitch)},
                         Date{kStart + static_cast<double>(i) / 100});
  }
  return samples;
}

std::vector<double> accelerationMagnitudes(const std::vector<AccelerometerSensorValue>& samples) {
  std::vector<double> out;
  for (const auto& s : samples) out.push_back(accel_features::magnitude(s.acceleration));
  return out;
}

void BM_ExtractAndSignals(benchmark::State& state) {
  const auto n = static_cast<size_t>(state.range(0));
  const auto samples = walkingWindow(n);
  const AccelFeatureExtraction extraction(
      std::make_shared<StubDateProvider>(Date{samples.back().timestamp.secondsSince1970 + 0.005}));
  const auto duration = static_cast<int64_t>(n / 100);
  if (!extraction.extract(samples, duration).validEntry) {
    state.SkipWithError("the window is not valid");
    return;
  }
  for (auto _ : state) {
    SignalList signals = extraction.extract(samples, duration).allSignals();
    benchmark::DoNotOptimize(signals.data());
  }
}
BENCHMARK(BM_ExtractAndSignals)->Arg(300)->Arg(2000)->Unit(benchmark::kMicrosecond);

// The raw-motion record some requests carry: every sample of the window as JSON, compressed.
void BM_RawMotionRecord(benchmark::State& state) {
  const auto samples = walkingWindow(static_cast<size_t>(state.range(0)));
  const AdditionalAccelFeatureExtraction extraction(
      nullptr,
      std::make_shared<StubDateProvider>(Date{samples.back().timestamp.secondsSince1970 + 0.005}));
  const auto duration = static_cast<int64_t>(samples.size() / 100);
  if (extraction.extract(samples, duration).empty()) {
    state.SkipWithError("no record");
    return;
  }
  size_t bytes = 0;
  for (auto _ : state) {
    SignalList signals = extraction.extract(samples, duration);
    bytes = std::get<std::string>(signals.front().value()).size();
    benchmark::DoNotOptimize(signals.data());
  }
  state.counters["base64_bytes"] = static_cast<double>(bytes);
}
BENCHMARK(BM_RawMotionRecord)->Arg(300)->Arg(2000)->Unit(benchmark::kMicrosecond);

void BM_RawSampleComponent(benchmark::State& state) {
  const auto samples = walkingWindow(300);
  for (auto _ : state) {
    float sum = 0;
    for (const auto& s : samples) {
      sum += rawSampleComponent(s.acceleration.x) + rawSampleComponent(s.rotationRate.y) +
             rawSampleComponent(s.attitude.pitch) + rawSampleComponent(s.gravity.z);
    }
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(state.iterations() * 1200);
}
BENCHMARK(BM_RawSampleComponent)->Unit(benchmark::kMicrosecond);

void BM_SpectrumFFT(benchmark::State& state) {
  const auto x = accelerationMagnitudes(walkingWindow(static_cast<size_t>(state.range(0))));
  for (auto _ : state) {
    auto spectrum = accel_features::computeFFT(x);
    benchmark::DoNotOptimize(spectrum.data());
  }
}
BENCHMARK(BM_SpectrumFFT)->Arg(300)->Arg(2000)->Unit(benchmark::kMicrosecond);

void BM_SpectrumDirect(benchmark::State& state) {
  const auto x = accelerationMagnitudes(walkingWindow(static_cast<size_t>(state.range(0))));
  for (auto _ : state) {
    auto spectrum = testing::directSpectrum(x);
    benchmark::DoNotOptimize(spectrum.data());
  }
}
BENCHMARK(BM_SpectrumDirect)->Arg(300)->Arg(2000)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace orvane
