// File: FrequencyFeatures.h
// What the frequency features read from a magnitude spectrum (see FourierTransform.h): dominant
// frequency, peak, total energy, spectral entropy, centroid, roll-off and three band energies.
// Each answers -98 when it cannot be computed; an empty spectrum (a series with a value that
// is not finite) gives -98 everywhere except peak and total energy, which are 0.
#pragma once

#include <span>

#include "motion/features/AccelFeature.h"

namespace orvane::accel_features {

// The features assume 100 samples per second, the only rate a valid window has.
inline constexpr double kSamplesPerSecond = 100.0;

// k · 100 / (2m) Hz for the first bin k holding the largest magnitude of m bins.
double findDominantFrequency(std::span<const double> fftResult);
// −Σ p·log₂ p with p = magnitude² / total energy, in bits, not normalised by the bin count.
double calculateSpectralEntropy(std::span<const double> fftResult);
// Σ k·magnitude / Σ magnitude, in bins.
double calculateSpectralCentroid(std::span<const double> fftResult);
// The first bin at which the running energy reaches 85% of the total.
double calculateSpectralRolloff(std::span<const double> fftResult);

struct BandEnergies {
  double low;   // bins [0, m/6)
  double mid;   // bins [m/6, m/2)
  double high;  // bins [m/2, m)
};
// Energies of the three bands; all -98 for fewer than 6 bins.
BandEnergies calculateBandEnergies(std::span<const double> fftResult);

enum class MotionSensorType { kAcceleration, kGyroscope };

// Writes the nine frequency fields of one sensor's magnitude spectrum.
void extractFrequencyFeatures(std::span<const double> fftResult, AccelFeature& feature,
                              MotionSensorType sensorType);

}  // namespace orvane::accel_features
