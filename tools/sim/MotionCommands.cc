#include "MotionCommands.h"

#include <cmath>
#include <iostream>
#include <memory>
#include <optional>

#include "logging/AnyEncodable.h"
#include "motion/MotionTrace.h"
#include "motion/features/AccelFeatureExtraction.h"
#include "util/DateProvider.h"

namespace orvane::sim {
namespace {

struct FeatureOptions {
  std::string tracePath;
  int64_t duration = 0;
  std::optional<double> now;
};

// A signal's value as JSON. Floats are the shortest text that reads back to the same float32
// (a JSON library would widen them to double first); non-finite ones follow the SDK's JSON.
void appendValue(std::string& out, const SignalValue& value) {
  if (const bool* b = std::get_if<bool>(&value)) {
    out += *b ? "true" : "false";
  } else if (const int64_t* i = std::get_if<int64_t>(&value)) {
    out += std::to_string(*i);
  } else if (const float* f = std::get_if<float>(&value)) {
    if (std::isfinite(*f)) {
      out += shortestFloatText(*f);
    } else {
      appendJsonNumber(out, *f);
    }
  } else if (const Decimal* d = std::get_if<Decimal>(&value)) {
    out += d->toString();
  } else {
    appendJsonString(out, std::get<std::string>(value));
  }
}

}  // namespace

void addMotionCommands(CLI::App& app, int& exitCode) {
  static FeatureOptions options;
  auto* features = app.add_subcommand(
      "features", "print the motion signals of a trace's window as one JSON object");
  features->add_option("--trace", options.tracePath, "a motion-trace JSON file")->required();
  features->add_option("--duration", options.duration, "window length in seconds")->required();
  features->add_option("--now", options.now,
                       "the window's end, seconds since 1970 (default: the last sample + 0.001)");
  features->callback([&exitCode] {
    auto trace = readMotionTraceFile(options.tracePath);
    if (!trace.ok()) {
      std::cerr << "features: " << trace.error().description << "\n";
      exitCode = 1;
      return;
    }
    const double now = options.now.value_or(
        trace->samples.empty() ? 0 : trace->samples.back().timestamp.secondsSince1970 + 0.001);
    const AccelFeatureExtraction extraction(std::make_shared<StubDateProvider>(Date{now}));
    const SignalList signals = extraction.extract(trace->samples, options.duration).allSignals();
    std::string out = "{";
    for (const Signal& signal : signals) {
      if (out.size() > 1) out += ",";
      out += "\"" + signal.id().description() + "\":";
      appendValue(out, signal.value());
    }
    out += "}";
    std::cout << out << "\n";
  });
}

}  // namespace orvane::sim
