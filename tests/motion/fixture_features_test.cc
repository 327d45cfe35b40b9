// The features of recorded and generated traces against values computed independently with
// numpy and scipy (tools/fixtures/make_motion_fixtures.py). Every signal a case emits must be
// expected, of the expected kind, and equal after narrowing to float32.

#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <set>

#include <nlohmann/json.hpp>

#include "motion/MotionTrace.h"
#include "motion/features/FourierTransform.h"
#include "motion/features/MotionSeries.h"
#include "motion/motion_test_support.h"

namespace orvane {
namespace {

using accel_features::computeFFT;

const nlohmann::json& expectedCases() {
  static const nlohmann::json cases = [] {
    std::ifstream in(testing::motionFixturesDir() + "/features.expected.json");
    auto document = nlohmann::json::parse(in, nullptr, false);
    // A missing file leaves no cases, which the last test reports.
    if (document.is_discarded() || !document.contains("cases")) return nlohmann::json::array();
    return document["cases"];
  }();
  return cases;
}

struct TraceWindow {
  AccelFeature feature;
  std::vector<double> accelMagnitude, gyroMagnitude;
};

TraceWindow extractCase(const nlohmann::json& c) {
  auto trace =
      readMotionTraceFile(testing::motionFixturesDir() + "/" + c["trace"].get<std::string>());
  EXPECT_TRUE(trace.ok()) << (trace.ok() ? "" : trace.error().description);
  if (!trace.ok()) return {};
  AccelFeatureExtraction extraction(
      std::make_shared<StubDateProvider>(Date{c["now"].get<double>()}));
  TraceWindow out{extraction.extract(trace->samples, c["duration"].get<int64_t>()), {}, {}};
  const auto n = static_cast<size_t>(out.feature.numberOfItems);
  for (size_t i = trace->samples.size() - n; i < trace->samples.size(); ++i) {
    out.accelMagnitude.push_back(accel_features::magnitude(trace->samples[i].acceleration));
    out.gyroMagnitude.push_back(accel_features::magnitude(trace->samples[i].rotationRate));
  }
  return out;
}

double absoluteSum(const std::vector<double>& x) {
  double sum = 0;
  for (double v : x) sum += std::fabs(v);
  return sum;
}

// Indices of the cases whose window is valid (those have spectra).
std::vector<size_t> validCases() {
  std::vector<size_t> out;
  for (size_t i = 0; i < expectedCases().size(); ++i) {
    if (expectedCases()[i].contains("accelSpectrum")) out.push_back(i);
  }
  return out;
}

class motionFixture : public ::testing::TestWithParam<size_t> {
 protected:
  const nlohmann::json& expected() const { return expectedCases()[GetParam()]; }
};
using motionFixtureSpectrum = motionFixture;

TEST_P(motionFixture, SignalsMatchTheIndependentComputation) {
  const auto& c = expected();
  const TraceWindow window = extractCase(c);
  const SignalList signals = window.feature.allSignals();

  std::set<uint16_t> emitted;
  for (const Signal& signal : signals) {
    const uint16_t id = signal.id().rawValue();
    EXPECT_TRUE(emitted.insert(id).second) << "signal " << id << " emitted twice";
    const auto it = c["signals"].find(std::to_string(id));
    if (it == c["signals"].end()) {
      ADD_FAILURE() << "unexpected signal " << id;
      continue;
    }
    switch (signal.kind()) {
      case SignalKind::kBool:
        ASSERT_TRUE(it->is_boolean()) << id;
        EXPECT_EQ(std::get<bool>(signal.value()), it->get<bool>()) << id;
        break;
      case SignalKind::kInt:
        ASSERT_TRUE(it->is_number_integer()) << id;
        EXPECT_EQ(std::get<int64_t>(signal.value()), it->get<int64_t>()) << id;
        break;
      case SignalKind::kFloat: {
        const float actual = std::get<float>(signal.value());
        if (it->is_string()) {
          EXPECT_TRUE(std::isnan(actual)) << id << " is " << actual;
        } else {
          ASSERT_TRUE(it->is_number_float()) << id;
          EXPECT_EQ(actual, static_cast<float>(it->get<double>())) << "signal " << id;
        }
        break;
      }
      default:
        ADD_FAILURE() << "signal " << id << " has kind " << static_cast<int>(signal.kind());
    }
  }
  EXPECT_EQ(emitted.size(), c["signals"].size()) << "some expected signals are missing";
}

// numpy's FFT and ours round differently; both errors are bounded by about
// log₂(n)·ε·Σ|x| ≈ 3e-15·Σ|x| at n = 2000, so 1e-12·Σ|x| leaves room without hiding a wrong bin.
TEST_P(motionFixtureSpectrum, SpectraMatchNumpy) {
  const auto& c = expected();
  const TraceWindow window = extractCase(c);
  for (const auto& [series, key] : {std::pair{&window.accelMagnitude, "accelSpectrum"},
                                    {&window.gyroMagnitude, "gyroSpectrum"}}) {
    const auto numpy = c[key].get<std::vector<double>>();
    const auto ours = computeFFT(*series);
    ASSERT_EQ(ours.size(), numpy.size());
    const double tolerance = 1e-12 * absoluteSum(*series);
    for (size_t k = 0; k < ours.size(); ++k) EXPECT_NEAR(ours[k], numpy[k], tolerance) << key << k;
  }
}

std::string caseName(const ::testing::TestParamInfo<size_t>& info) {
  const auto& c = expectedCases()[info.param];
  std::string name = c["trace"].get<std::string>();
  name = name.substr(0, name.find('.')) + "_" + std::to_string(c["duration"].get<int>()) + "s";
  return name;
}

INSTANTIATE_TEST_SUITE_P(motion, motionFixture, ::testing::Range<size_t>(0, expectedCases().size()),
                         caseName);
INSTANTIATE_TEST_SUITE_P(motion, motionFixtureSpectrum, ::testing::ValuesIn(validCases()),
                         caseName);

// Without the file every parameterised case above would silently vanish.
TEST(motionFixtureCoverage, ExpectedValuesAreThere) { ASSERT_GE(expectedCases().size(), 10u); }

}  // namespace
}  // namespace orvane
