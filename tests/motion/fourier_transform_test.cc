// The magnitude spectrum against the textbook sum, and its features on degenerate series.

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "motion/features/FourierTransform.h"
#include "motion/features/FrequencyFeatures.h"
#include "testutil/DirectFourierTransform.h"

namespace orvane::accel_features {
namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

TEST(motionSpectrum, MatchesTheDirectTransformAtEveryLengthShape) {
  std::mt19937_64 random(7);
  std::uniform_real_distribution<double> value(0, 2);
  // Powers of two, the window sizes, odd lengths, lengths with a factor of 2 but not 4, primes.
  for (size_t n : {2u, 3u, 5u, 6u, 8u, 64u, 97u, 100u, 150u, 300u, 499u, 1001u, 2000u}) {
    std::vector<double> x(n);
    for (double& v : x) v = value(random);
    const auto fast = computeFFT(x);
    const auto reference = testing::directSpectrum(x);
    ASSERT_EQ(fast.size(), n / 2) << n;
    for (size_t k = 0; k < fast.size(); ++k) {
      EXPECT_NEAR(fast[k], reference[k], 1e-10 * static_cast<double>(n)) << n << " bin " << k;
    }
  }
}

TEST(motionSpectrum, DegenerateSeriesAndTheirFeatures) {
  EXPECT_TRUE(computeFFT(std::vector<double>{}).empty());
  EXPECT_TRUE(computeFFT(std::vector<double>{1, kNaN, 2, 3}).empty());
  EXPECT_TRUE(computeFFT(std::vector<double>{1, std::numeric_limits<double>::infinity()}).empty());
  EXPECT_EQ(computeFFT(std::vector<double>{-2.5}), std::vector<double>{2.5});

  // |X_k| = 2e154·|cos(πk/12)|: the square overflows for the low bins only, which read 0.
  std::vector<double> x(12, 0.0);
  x[0] = x[1] = 1e154;
  const auto spectrum = computeFFT(x);
  EXPECT_EQ(spectrum, testing::directSpectrum(x));
  EXPECT_EQ(spectrum[0], 0);
  EXPECT_EQ(spectrum[3], 0);
  EXPECT_NEAR(spectrum[4], 1e154, 1e140);

  const std::vector<double> empty, silent(10, 0.0);
  for (const auto* spectrum : {&empty, &silent}) {
    EXPECT_EQ(calculateSpectralEntropy(*spectrum), -98.0);
    EXPECT_EQ(calculateSpectralCentroid(*spectrum), -98.0);
    EXPECT_EQ(calculateSpectralRolloff(*spectrum), -98.0);
  }
  EXPECT_EQ(findDominantFrequency(empty), -98.0);
  EXPECT_EQ(calculateBandEnergies(silent).mid, 0);
  // Two values give one bin: a dominant frequency of 0, but too few bins for bands.
  const auto oneBin = computeFFT(std::vector<double>{0.5, 0.25});
  EXPECT_EQ(findDominantFrequency(oneBin), 0);
  EXPECT_EQ(calculateBandEnergies(oneBin).low, -98.0);
  EXPECT_EQ(calculateBandEnergies(std::vector<double>(5, 1)).high, -98.0);

  // A series with a NaN: -98 everywhere except peak and energy, which are 0.
  AccelFeature f;
  extractFrequencyFeatures(computeFFT(std::vector<double>{1, kNaN, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1}),
                           f, MotionSensorType::kGyroscope);
  EXPECT_EQ(f.fftPeakAmplitudeGyroMagnitude, 0);
  EXPECT_EQ(f.fftTotalEnergyGyroMagnitude, 0);
  for (double v : {f.fftDominantFreqGyroMagnitude, f.fftEntropyGyroMagnitude,
                   f.fftSpectralCentroidGyroMagnitude, f.fftSpectralRolloffGyroMagnitude,
                   f.fftBandEnergyLowGyroMagnitude, f.fftBandEnergyMidGyroMagnitude,
                   f.fftBandEnergyHighGyroMagnitude}) {
    EXPECT_EQ(v, -98.0);
  }
  EXPECT_EQ(f.fftDominantFreqAccelMagnitude, 0) << "the other sensor's fields are untouched";
}

}  // namespace
}  // namespace orvane::accel_features
