// A motion trace file, read the way its two consumers read it: the feature tool takes the
// samples as they are (file order and times), and replay loops the samples' vectors, stamped
// with the time they arrive. Both feed the motion features of a one- and a two-second window,
// and every sample is written as a raw-sample record; any value the reader lets through must
// survive all of it.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <variant>
#include <vector>

#include "FuzzSupport.h"
#include "logging/AnyEncodable.h"
#include "motion/MotionTrace.h"
#include "motion/features/AccelFeatureExtraction.h"

namespace {

using namespace orvane;

// `mustBeValid`: the samples are a full window at 100 Hz, so every feature is computed.
void useSamples(const std::vector<AccelerometerSensorValue>& samples, Date now, bool mustBeValid) {
  const AccelFeatureExtraction extraction(std::make_shared<StubDateProvider>(now));
  for (int64_t duration : {1, 2}) {
    const SignalList signals = extraction.extract(samples, duration).allSignals();
    // 106 (samples), then 192 (valid) lead every list.
    FUZZ_CHECK(signals.size() >= 2 && signals[1].id() == SignalEnum::id(192));
    if (mustBeValid) FUZZ_CHECK(std::get<bool>(signals[1].value()));
  }
}

// The record written straight must be the one the general encoder writes.
void writeRecords(const std::vector<AccelerometerSensorValue>& samples) {
  for (const AccelerometerSensorValue& sample : samples) {
    std::string direct;
    sample.appendRawRecordJson(direct);
    auto encoded = AnyEncodable(PlistValue(sample.toJSON())).toJson();
    FUZZ_CHECK(encoded.ok() && *encoded == direct);
  }
}

// Two seconds of the trace looped at 100 Hz, stamped 10 ms apart up to `now`.
std::vector<AccelerometerSensorValue> replayed(const MotionTrace& trace, Date now) {
  std::vector<AccelerometerSensorValue> samples;
  if (trace.samples.empty()) return samples;
  for (size_t i = 0; i < 200; ++i) {
    AccelerometerSensorValue value = trace.samples[i % trace.samples.size()];
    value.timestamp = Date{now.secondsSince1970 - 0.001 - 0.01 * static_cast<double>(199 - i)};
    samples.push_back(value);
  }
  return samples;
}

fuzz::Seeds seeds() {
  auto sample = [](double t, double a, double r, double g) {
    char text[320];
    std::snprintf(text, sizeof text,
                  R"({"t":%.2f,"acceleration":[%g,%g,%g],"rotationRate":[%g,0,%g],)"
                  R"("gravity":[0,%g,%g],"attitude":[0.1,0.9,-0.5]})",
                  t, a, -a / 2, a / 3, r, -r, -g, g - 1);
    return std::string(text);
  };
  // Walking-like motion: a 2 Hz sway, two seconds at 100 Hz.
  std::string walking = R"({"rateHz":100,"description":"seed: sway","samples":[)";
  for (int i = 0; i < 200; ++i) {
    const double phase = 2 * 3.141592653589793 * 2 * i / 100.0;
    walking += (i ? "," : "") +
               sample(1763800000.0 + i / 100.0, 0.3 * std::sin(phase), 0.8 * std::cos(phase), 0.6);
  }
  walking += "]}";
  return {
      {"walking_2s.json", walking},
      {"three_samples.json", R"({"rateHz":50,"samples":[)" + sample(1, 0, 0, 0) + "," +
                                 sample(1.02, 0.01, 0.2, 0.1) + "," + sample(1.04, -1, 3, 1) +
                                 "]}"},
      {"empty.json", R"({"rateHz":100,"description":"","samples":[]})"},
  };
}

}  // namespace

ORVANE_FUZZ_SEEDS(seeds)

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  auto trace = parseMotionTrace(fuzz::asText(data, size));
  if (!trace.ok()) {
    FUZZ_CHECK(trace.error().domain == kDecodingErrorDomain && !trace.error().description.empty());
    return 0;
  }
  FUZZ_CHECK(trace->rateHz > 0);
  const Date afterLast{
      trace->samples.empty() ? 0.0 : trace->samples.back().timestamp.secondsSince1970 + 0.001};
  writeRecords(trace->samples);
  useSamples(trace->samples, afterLast, false);
  if (!trace->samples.empty()) useSamples(replayed(*trace, Date{1.7e9}), Date{1.7e9}, true);
  return 0;
}
