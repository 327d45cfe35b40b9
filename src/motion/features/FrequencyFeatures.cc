#include "motion/features/FrequencyFeatures.h"

#include <cmath>
#include <limits>

namespace orvane::accel_features {

namespace {

constexpr double kUnavailable = kMotionFeatureUnavailable;
constexpr double kSmallestNormal = std::numeric_limits<double>::min();

double totalEnergy(std::span<const double> spectrum) {
  double energy = 0;
  for (double m : spectrum) energy += m * m;
  return energy;
}

double peakAmplitude(std::span<const double> spectrum) {
  if (spectrum.empty()) return 0;
  double peak = spectrum[0];
  for (double m : spectrum) peak = m > peak ? m : peak;
  return peak;
}

double bandEnergy(std::span<const double> spectrum, size_t from, size_t to) {
  return totalEnergy(spectrum.subspan(from, to - from));
}

using F = AccelFeature;
struct FrequencyFields {
  double F::*dominantFrequency;
  double F::*peakAmplitude;
  double F::*totalEnergy;
  double F::*entropy;
  double F::*centroid;
  double F::*rolloff;
  double F::*bandLow;
  double F::*bandMid;
  double F::*bandHigh;
};
constexpr FrequencyFields kAccelerationFields = {
    &F::fftDominantFreqAccelMagnitude,     &F::fftPeakAmplitudeAccelMagnitude,
    &F::fftTotalEnergyAccelMagnitude,      &F::fftEntropyAccelMagnitude,
    &F::fftSpectralCentroidAccelMagnitude, &F::fftSpectralRolloffAccelMagnitude,
    &F::fftBandEnergyLowAccelMagnitude,    &F::fftBandEnergyMidAccelMagnitude,
    &F::fftBandEnergyHighAccelMagnitude};
constexpr FrequencyFields kGyroscopeFields = {
    &F::fftDominantFreqGyroMagnitude,     &F::fftPeakAmplitudeGyroMagnitude,
    &F::fftTotalEnergyGyroMagnitude,      &F::fftEntropyGyroMagnitude,
    &F::fftSpectralCentroidGyroMagnitude, &F::fftSpectralRolloffGyroMagnitude,
    &F::fftBandEnergyLowGyroMagnitude,    &F::fftBandEnergyMidGyroMagnitude,
    &F::fftBandEnergyHighGyroMagnitude};

}  // namespace

double findDominantFrequency(std::span<const double> fftResult) {
  if (fftResult.empty()) return kUnavailable;
  const double peak = peakAmplitude(fftResult);
  for (size_t k = 0; k < fftResult.size(); ++k) {
    if (fftResult[k] == peak) {
      return static_cast<double>(k) * kSamplesPerSecond /
             (2.0 * static_cast<double>(fftResult.size()));
    }
  }
  return kUnavailable;  // the maximum is not a number
}

double calculateSpectralEntropy(std::span<const double> fftResult) {
  if (fftResult.empty()) return kUnavailable;
  const double total = totalEnergy(fftResult);
  if (!(total > 0)) return kUnavailable;
  double entropy = 0;
  for (double m : fftResult) {
    const double p = m * m / total;
    if (p > kSmallestNormal) entropy -= p * std::log2(p);
  }
  return entropy;
}

double calculateSpectralCentroid(std::span<const double> fftResult) {
  double weighted = 0, sum = 0;
  for (size_t k = 0; k < fftResult.size(); ++k) {
    weighted += static_cast<double>(k) * fftResult[k];
    sum += fftResult[k];
  }
  if (fftResult.empty() || !(sum > 0)) return kUnavailable;
  return weighted / sum;
}

double calculateSpectralRolloff(std::span<const double> fftResult) {
  if (fftResult.empty()) return kUnavailable;
  const double energy = totalEnergy(fftResult);
  if (!(energy > 0)) return kUnavailable;
  const double threshold = 0.85 * energy;
  double running = 0;
  for (size_t k = 0; k < fftResult.size(); ++k) {
    running += fftResult[k] * fftResult[k];
    if (running >= threshold) return static_cast<double>(k);
  }
  return static_cast<double>(fftResult.size() - 1);  // rounding kept the sum short
}

BandEnergies calculateBandEnergies(std::span<const double> fftResult) {
  const size_t m = fftResult.size();
  if (m < 6) return {kUnavailable, kUnavailable, kUnavailable};
  return {bandEnergy(fftResult, 0, m / 6), bandEnergy(fftResult, m / 6, m / 2),
          bandEnergy(fftResult, m / 2, m)};
}

void extractFrequencyFeatures(std::span<const double> fftResult, AccelFeature& feature,
                              MotionSensorType sensorType) {
  const FrequencyFields& fields =
      sensorType == MotionSensorType::kAcceleration ? kAccelerationFields : kGyroscopeFields;
  feature.*fields.dominantFrequency = findDominantFrequency(fftResult);
  feature.*fields.peakAmplitude = peakAmplitude(fftResult);
  feature.*fields.totalEnergy = totalEnergy(fftResult);
  feature.*fields.entropy = calculateSpectralEntropy(fftResult);
  feature.*fields.centroid = calculateSpectralCentroid(fftResult);
  feature.*fields.rolloff = calculateSpectralRolloff(fftResult);
  const BandEnergies bands = calculateBandEnergies(fftResult);
  feature.*fields.bandLow = bands.low;
  feature.*fields.bandMid = bands.mid;
  feature.*fields.bandHigh = bands.high;
}

}  // namespace orvane::accel_features
