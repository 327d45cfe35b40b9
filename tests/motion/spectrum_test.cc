// The magnitude spectrum and the features read from it: the transform against the textbook
// sum at lengths of every factor shape, and the edge cases of each feature.

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <numbers>
#include <random>
#include <vector>

#include "motion/features/FrequencyFeatures.h"
#include "motion/features/Spectrum.h"
#include "testutil/DirectSpectrum.h"

namespace orvane::accel_features {
namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

std::vector<double> sine(size_t n, double hz, double amplitude = 1, double offset = 0) {
  std::vector<double> x(n);
  for (size_t i = 0; i < n; ++i) {
    x[i] = offset + amplitude * std::sin(2 * std::numbers::pi * hz * static_cast<double>(i) / 100);
  }
  return x;
}

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

TEST(motionSpectrum, DegenerateSeries) {
  EXPECT_TRUE(computeFFT(std::vector<double>{}).empty());
  EXPECT_TRUE(computeFFT(std::vector<double>{1, kNaN, 2, 3}).empty());
  EXPECT_TRUE(computeFFT(std::vector<double>{1, std::numeric_limits<double>::infinity()}).empty());
  EXPECT_EQ(computeFFT(std::vector<double>{-2.5}), std::vector<double>{2.5});
  EXPECT_EQ(computeFFT(std::vector<double>{1, 3}), std::vector<double>{4});
}

TEST(motionSpectrum, BinsWhoseSquareOverflowsAreZero) {
  // |X_k| = 2e154·|cos(πk/12)|: the square overflows for the low bins only.
  std::vector<double> x(12, 0.0);
  x[0] = x[1] = 1e154;
  const auto spectrum = computeFFT(x);
  EXPECT_EQ(spectrum, testing::directSpectrum(x));
  EXPECT_EQ(spectrum[0], 0);
  EXPECT_EQ(spectrum[3], 0);
  EXPECT_NEAR(spectrum[4], 1e154, 1e140);
}

TEST(motionSpectrum, PureSineHasItsDominantFrequencyAtItsBin) {
  const auto spectrum = computeFFT(sine(500, 10));
  EXPECT_EQ(spectrum.size(), 250u);
  EXPECT_EQ(findDominantFrequency(spectrum), 10.0);  // bin 50 of 250
  EXPECT_NEAR(spectrum[50], 250, 1e-9);
}

TEST(motionSpectrum, ConstantSeriesPutsItsEnergyInBinZero) {
  const auto spectrum = computeFFT(std::vector<double>(300, 0.7));
  EXPECT_EQ(findDominantFrequency(spectrum), 0);
  EXPECT_EQ(calculateSpectralRolloff(spectrum), 0);
  // Other bins are zero up to rounding of the transform.
  EXPECT_NEAR(calculateSpectralCentroid(spectrum), 0, 1e-12);
  EXPECT_NEAR(calculateSpectralEntropy(spectrum), 0, 1e-12);
  EXPECT_NEAR(calculateBandEnergies(spectrum).high, 0, 1e-20);
  EXPECT_NEAR(calculateBandEnergies(spectrum).low, 210.0 * 210.0, 1e-9);
}

TEST(motionSpectrum, FeaturesOfAHandMadeSpectrum) {
  const std::vector<double> spectrum = {1, 3, 0, 3, 1, 0, 2, 0};  // energy 24
  EXPECT_EQ(findDominantFrequency(spectrum), 1 * 100.0 / 16);     // first of the tied peaks
  EXPECT_DOUBLE_EQ(calculateSpectralCentroid(spectrum), (3 + 9 + 4 + 12) / 10.0);
  // Running energy 1, 10, 10, 19, 20, 20, 24 first reaches 0.85 × 24 at bin 6.
  EXPECT_EQ(calculateSpectralRolloff(spectrum), 6);
  const BandEnergies bands = calculateBandEnergies(spectrum);  // [0,1) [1,4) [4,8)
  EXPECT_EQ(bands.low, 1);
  EXPECT_EQ(bands.mid, 18);
  EXPECT_EQ(bands.high, 5);
  const double p[] = {1 / 24.0, 9 / 24.0, 9 / 24.0, 1 / 24.0, 4 / 24.0};
  double entropy = 0;
  for (double q : p) entropy -= q * std::log2(q);
  EXPECT_NEAR(calculateSpectralEntropy(spectrum), entropy, 1e-12);
}

TEST(motionSpectrum, UnavailableValues) {
  const std::vector<double> empty, twoValues = computeFFT(std::vector<double>{0.5, 0.25});
  for (const auto* s : {&empty}) {
    EXPECT_EQ(findDominantFrequency(*s), -98.0);
    EXPECT_EQ(calculateSpectralEntropy(*s), -98.0);
    EXPECT_EQ(calculateSpectralCentroid(*s), -98.0);
    EXPECT_EQ(calculateSpectralRolloff(*s), -98.0);
  }
  // One bin: too few for bands, but a dominant frequency of 0.
  EXPECT_EQ(findDominantFrequency(twoValues), 0);
  EXPECT_EQ(calculateBandEnergies(twoValues).low, -98.0);
  EXPECT_EQ(calculateBandEnergies(std::vector<double>(5, 1)).high, -98.0);
  // A silent series: no energy to share out.
  const std::vector<double> silent(10, 0.0);
  EXPECT_EQ(calculateSpectralEntropy(silent), -98.0);
  EXPECT_EQ(calculateSpectralCentroid(silent), -98.0);
  EXPECT_EQ(calculateSpectralRolloff(silent), -98.0);
  EXPECT_EQ(calculateBandEnergies(silent).mid, 0);

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
