// File: AccelFeature.h
// The motion features of one window: whether the window is usable and, when it is, about two
// hundred statistics of user acceleration, rotation rate, attitude and gravity. The decision
// models read them by signal id through allSignals().
//
// -98 (-98.0) marks a value that could not be computed; it is also where the last-sample
// fields start. Fields are doubles unless the models were trained on single-precision values
// (the proportions of samples and the axis indices), which keep their float type here.
#pragma once

#include <cstdint>
#include <limits>
#include <optional>

#include "orvane/Signal.h"

namespace orvane {

enum class ReasonForAccelerometerDataInvalid : int64_t {
  kUnspecified = 0,  // never set; kept so that the raw values stay what receivers know
  kWrongNumberOfSamples = 1,
  kWrongTimeSpan = 2,
  kNotSupported = 3,  // set by the sensor on devices without motion hardware
};

inline constexpr double kMotionFeatureUnavailable = -98.0;

struct AccelFeature {
  static constexpr double kUnavailable = kMotionFeatureUnavailable;
  static constexpr int64_t kUnavailableInt = -98;
  static constexpr double kLargest = std::numeric_limits<double>::max();
  static constexpr double kMostNegative = std::numeric_limits<double>::lowest();

  int64_t numberOfItems = 0;
  float numberOfSeconds = 0;
  bool validEntry = false;
  std::optional<ReasonForAccelerometerDataInvalid> reasonForBeingInvalidEntry;

  double meanAccelTotal = 0, meanGyroTotal = 0;
  double meanAccelXNonFabbed = 0, meanAccelYNonFabbed = 0, meanAccelZNonFabbed = 0;
  double meanGyroXNonFabbed = 0, meanGyroYNonFabbed = 0, meanGyroZNonFabbed = 0;
  double medianAccelTotal = 0, medianGyroTotal = 0;

  double percentile10AccelTotal = 0, percentile25AccelTotal = 0, percentile50AccelTotal = 0,
         percentile75AccelTotal = 0, percentile90AccelTotal = 0;
  double percentile10AccelMagnitude = 0, percentile25AccelMagnitude = 0,
         percentile50AccelMagnitude = 0, percentile75AccelMagnitude = 0,
         percentile90AccelMagnitude = 0;
  double percentile10GyroTotal = 0, percentile25GyroTotal = 0, percentile50GyroTotal = 0,
         percentile75GyroTotal = 0, percentile90GyroTotal = 0;
  double percentile10GyroMagnitude = 0, percentile25GyroMagnitude = 0,
         percentile50GyroMagnitude = 0, percentile75GyroMagnitude = 0,
         percentile90GyroMagnitude = 0;

  double meanMagnitudeAccel = 0, meanMagnitudeGyro = 0;
  double medianMagnitudeAccel = 0, medianMagnitudeGyro = 0;

  double noNoiseLowAccelAll = 0, noNoiseLowGyroAll = 0, noNoiseMediumAccelAll = 0,
         noNoiseMediumGyroAll = 0, noNoiseHighAccelAll = 0, noNoiseHighGyroAll = 0;
  float noNoiseLowAccelNumberOfEntries = 0, noNoiseLowGyroNumberOfEntries = 0,
        noNoiseMediumAccelNumberOfEntries = 0, noNoiseMediumGyroNumberOfEntries = 0,
        noNoiseHighAccelNumberOfEntries = 0, noNoiseHighGyroNumberOfEntries = 0;

  double varianceAccelX = 0, varianceAccelY = 0, varianceAccelZ = 0;
  double varianceGyroX = 0, varianceGyroY = 0, varianceGyroZ = 0;
  double skewnessAccelX = 0, skewnessAccelY = 0, skewnessAccelZ = 0;
  double skewnessGyroX = 0, skewnessGyroY = 0, skewnessGyroZ = 0;

  double maxAccelValue = 0, maxGyroValue = 0;
  double minAccelValue = 100.0, minGyroValue = 100.0;
  double gyroXMin = kLargest, gyroYMin = kLargest, gyroZMin = kLargest;
  double gyroXMax = kMostNegative, gyroYMax = kMostNegative, gyroZMax = kMostNegative;
  double maxAccelMagnitude = kMostNegative, maxGyroMagnitude = kMostNegative;

  double spanGyroX = 0, spanGyroY = 0, spanGyroZ = 0;
  double attitudePitch = 0, attitudeRoll = 0, attitudeYaw = 0;
  double attitudeRollSin = 0, attitudeYawSin = 0, attitudeRollCos = 0, attitudeYawCos = 0;
  double kurtosisAccelX = 0, kurtosisAccelY = 0, kurtosisAccelZ = 0;
  double kurtosisGyroX = 0, kurtosisGyroY = 0, kurtosisGyroZ = 0;
  double signalMagnitudeAreaAccel = 0, signalMagnitudeAreaGyro = 0;

  // Threshold crossings per sample, axis-major, thresholds from very low to very high.
  float zeroCrossingsAccelXVeryLow = 0, zeroCrossingsAccelXLow = 0, zeroCrossingsAccelXMedium = 0,
        zeroCrossingsAccelXHigh = 0, zeroCrossingsAccelXVeryHigh = 0;
  float zeroCrossingsAccelYVeryLow = 0, zeroCrossingsAccelYLow = 0, zeroCrossingsAccelYMedium = 0,
        zeroCrossingsAccelYHigh = 0, zeroCrossingsAccelYVeryHigh = 0;
  float zeroCrossingsAccelZVeryLow = 0, zeroCrossingsAccelZLow = 0, zeroCrossingsAccelZMedium = 0,
        zeroCrossingsAccelZHigh = 0, zeroCrossingsAccelZVeryHigh = 0;
  float zeroCrossingsGyroXVeryLow = 0, zeroCrossingsGyroXLow = 0, zeroCrossingsGyroXMedium = 0,
        zeroCrossingsGyroXHigh = 0, zeroCrossingsGyroXVeryHigh = 0;
  float zeroCrossingsGyroYVeryLow = 0, zeroCrossingsGyroYLow = 0, zeroCrossingsGyroYMedium = 0,
        zeroCrossingsGyroYHigh = 0, zeroCrossingsGyroYVeryHigh = 0;
  float zeroCrossingsGyroZVeryLow = 0, zeroCrossingsGyroZLow = 0, zeroCrossingsGyroZMedium = 0,
        zeroCrossingsGyroZHigh = 0, zeroCrossingsGyroZVeryHigh = 0;

  double avgDeltaAccel = 0, avgDeltaGyro = 0;
  double gravityLastX = 0, gravityLastY = 0, gravityLastZ = 0;

  // Spectra of the acceleration and rotation-rate magnitudes.
  double fftDominantFreqAccelMagnitude = 0, fftDominantFreqGyroMagnitude = 0;
  double fftPeakAmplitudeAccelMagnitude = 0, fftPeakAmplitudeGyroMagnitude = 0;
  double fftTotalEnergyAccelMagnitude = 0, fftTotalEnergyGyroMagnitude = 0;
  double fftEntropyAccelMagnitude = 0, fftEntropyGyroMagnitude = 0;
  double fftSpectralCentroidAccelMagnitude = 0, fftSpectralCentroidGyroMagnitude = 0;
  double fftSpectralRolloffAccelMagnitude = 0, fftSpectralRolloffGyroMagnitude = 0;
  double fftBandEnergyLowAccelMagnitude = 0, fftBandEnergyMidAccelMagnitude = 0,
         fftBandEnergyHighAccelMagnitude = 0;
  double fftBandEnergyLowGyroMagnitude = 0, fftBandEnergyMidGyroMagnitude = 0,
         fftBandEnergyHighGyroMagnitude = 0;

  double meanJerkAccelMagnitude = 0, meanJerkGyroMagnitude = 0;
  double varianceJerkAccelMagnitude = 0, varianceJerkGyroMagnitude = 0;
  double maxJerkAccelMagnitude = 0, maxJerkGyroMagnitude = 0;
  float jerkZeroCrossingsAccelMagnitude = 0, jerkZeroCrossingsGyroMagnitude = 0;

  double correlationAccelXY = 0, correlationAccelXZ = 0, correlationAccelYZ = 0;
  double correlationGyroXY = 0, correlationGyroXZ = 0, correlationGyroYZ = 0;
  double correlationAccelGyroMagnitude = 0;

  float dominantAxisAccel = 0, dominantAxisGyro = 0;
  double dominantAxisEnergyRatioAccel = 0, dominantAxisEnergyRatioGyro = 0;
  double axisEnergyRatioAccelXY = 0, axisEnergyRatioAccelXZ = 0, axisEnergyRatioAccelYZ = 0;
  double axisEnergyRatioGyroXY = 0, axisEnergyRatioGyroXZ = 0, axisEnergyRatioGyroYZ = 0;
  double shannonEntropyAccelMagnitude = 0, shannonEntropyGyroMagnitude = 0;
  double permutationEntropyAccelMagnitude = 0, permutationEntropyGyroMagnitude = 0;

  // The last sample alone.
  double instantGyroMagnitude = kUnavailable, instantUserAccelMagnitude = kUnavailable;
  double instantTiltAngleFromVertical = kUnavailable, instantGravityMagnitude = kUnavailable;
  double instantGravityDeviation = kUnavailable;
  int64_t instantPrimaryGravityAxis = kUnavailableInt;
  int64_t instantDominantMotionAxisAccel = kUnavailableInt;
  int64_t instantDominantMotionAxisGyro = kUnavailableInt;
  double instantAccelGravityAngle = kUnavailable, instantCrossProductMagnitude = kUnavailable;
  double instantDotProductNormalized = kUnavailable, instantMotionCoherenceScore = kUnavailable;
  double instantAxisEnergyRatioXY = kUnavailable, instantAxisEnergyRatioXZ = kUnavailable,
         instantAxisEnergyRatioYZ = kUnavailable;
  double instantSphericalRadius = kUnavailable, instantSphericalTheta = kUnavailable,
         instantSphericalPhi = kUnavailable;
  double instantAttitudePitchCos = kUnavailable;
  double instantHorizontalAccelComponent = kUnavailable;
  double instantVerticalAccelComponent = kUnavailable;
  double instantAccelGyroRatio = kUnavailable;
  double instantGyroAlongGravity = kUnavailable, instantGyroHorizontalComponent = kUnavailable;
  double instantImpliedRotationRadius = kUnavailable;
  bool instantIsFaceDown = false, instantLyingFlatAnyOrientation = false,
       instantLyingFlatFaceUp = false;
  double instantAccelerationX = kUnavailable, instantAccelerationY = kUnavailable,
         instantAccelerationZ = kUnavailable;
  double instantRotationRateX = kUnavailable, instantRotationRateY = kUnavailable,
         instantRotationRateZ = kUnavailable;

  // The motion signals: always 106 (samples), 192 (valid) and 128 (seconds covered); 211
  // (reason) when the window is invalid; the last-sample block when there is a sample; every
  // other feature when the window is valid. Doubles and floats become 32-bit float signals.
  // The gyroscope extremes have no signal (the spans carry them).
  SignalList allSignals() const;
};

}  // namespace orvane
