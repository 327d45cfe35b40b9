#include "motion/features/StatisticalFeatures.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <vector>

namespace orvane::accel_features {

namespace {

using F = AccelFeature;
using Series = std::vector<double> MotionSeries::*;

constexpr double kPercentiles[] = {0.10, 0.25, 0.50, 0.75, 0.90};

struct NoNoiseLevel {
  double accelThreshold;
  double gyroThreshold;
  double F::*accelAll;
  double F::*gyroAll;
  float F::*accelEntries;
  float F::*gyroEntries;
};
constexpr NoNoiseLevel kNoNoiseLevels[] = {
    {0.015, 0.03, &F::noNoiseLowAccelAll, &F::noNoiseLowGyroAll, &F::noNoiseLowAccelNumberOfEntries,
     &F::noNoiseLowGyroNumberOfEntries},
    {0.045, 0.3, &F::noNoiseMediumAccelAll, &F::noNoiseMediumGyroAll,
     &F::noNoiseMediumAccelNumberOfEntries, &F::noNoiseMediumGyroNumberOfEntries},
    {0.6, 0.9, &F::noNoiseHighAccelAll, &F::noNoiseHighGyroAll, &F::noNoiseHighAccelNumberOfEntries,
     &F::noNoiseHighGyroNumberOfEntries},
};

struct Axis {
  Series values;
  double F::*mean;
  double F::*variance;
  double F::*skewness;
  double F::*kurtosis;
  const double* crossingThresholds;  // five, very low to very high
  float F::*crossings[5];
};
constexpr double kAccelCrossings[5] = {0.002, 0.005, 0.01, 0.02, 0.15};
constexpr double kGyroCrossings[5] = {0.01, 0.02, 0.06, 0.1, 1.2};
constexpr Axis kAxes[] = {
    {&MotionSeries::accelX,
     &F::meanAccelXNonFabbed,
     &F::varianceAccelX,
     &F::skewnessAccelX,
     &F::kurtosisAccelX,
     kAccelCrossings,
     {&F::zeroCrossingsAccelXVeryLow, &F::zeroCrossingsAccelXLow, &F::zeroCrossingsAccelXMedium,
      &F::zeroCrossingsAccelXHigh, &F::zeroCrossingsAccelXVeryHigh}},
    {&MotionSeries::accelY,
     &F::meanAccelYNonFabbed,
     &F::varianceAccelY,
     &F::skewnessAccelY,
     &F::kurtosisAccelY,
     kAccelCrossings,
     {&F::zeroCrossingsAccelYVeryLow, &F::zeroCrossingsAccelYLow, &F::zeroCrossingsAccelYMedium,
      &F::zeroCrossingsAccelYHigh, &F::zeroCrossingsAccelYVeryHigh}},
    {&MotionSeries::accelZ,
     &F::meanAccelZNonFabbed,
     &F::varianceAccelZ,
     &F::skewnessAccelZ,
     &F::kurtosisAccelZ,
     kAccelCrossings,
     {&F::zeroCrossingsAccelZVeryLow, &F::zeroCrossingsAccelZLow, &F::zeroCrossingsAccelZMedium,
      &F::zeroCrossingsAccelZHigh, &F::zeroCrossingsAccelZVeryHigh}},
    {&MotionSeries::gyroX,
     &F::meanGyroXNonFabbed,
     &F::varianceGyroX,
     &F::skewnessGyroX,
     &F::kurtosisGyroX,
     kGyroCrossings,
     {&F::zeroCrossingsGyroXVeryLow, &F::zeroCrossingsGyroXLow, &F::zeroCrossingsGyroXMedium,
      &F::zeroCrossingsGyroXHigh, &F::zeroCrossingsGyroXVeryHigh}},
    {&MotionSeries::gyroY,
     &F::meanGyroYNonFabbed,
     &F::varianceGyroY,
     &F::skewnessGyroY,
     &F::kurtosisGyroY,
     kGyroCrossings,
     {&F::zeroCrossingsGyroYVeryLow, &F::zeroCrossingsGyroYLow, &F::zeroCrossingsGyroYMedium,
      &F::zeroCrossingsGyroYHigh, &F::zeroCrossingsGyroYVeryHigh}},
    {&MotionSeries::gyroZ,
     &F::meanGyroZNonFabbed,
     &F::varianceGyroZ,
     &F::skewnessGyroZ,
     &F::kurtosisGyroZ,
     kGyroCrossings,
     {&F::zeroCrossingsGyroZVeryLow, &F::zeroCrossingsGyroZLow, &F::zeroCrossingsGyroZMedium,
      &F::zeroCrossingsGyroZHigh, &F::zeroCrossingsGyroZVeryHigh}},
};

struct SortedSeries {
  Series values;
  double F::*median;
  double F::*largest;  // none for the totals, whose maxima come from the extremes
  double F::*percentiles[5];
};
constexpr SortedSeries kSortedSeries[] = {
    {&MotionSeries::accelTotal,
     &F::medianAccelTotal,
     nullptr,
     {&F::percentile10AccelTotal, &F::percentile25AccelTotal, &F::percentile50AccelTotal,
      &F::percentile75AccelTotal, &F::percentile90AccelTotal}},
    {&MotionSeries::accelMagnitude,
     &F::medianMagnitudeAccel,
     &F::maxAccelMagnitude,
     {&F::percentile10AccelMagnitude, &F::percentile25AccelMagnitude,
      &F::percentile50AccelMagnitude, &F::percentile75AccelMagnitude,
      &F::percentile90AccelMagnitude}},
    {&MotionSeries::gyroTotal,
     &F::medianGyroTotal,
     nullptr,
     {&F::percentile10GyroTotal, &F::percentile25GyroTotal, &F::percentile50GyroTotal,
      &F::percentile75GyroTotal, &F::percentile90GyroTotal}},
    {&MotionSeries::gyroMagnitude,
     &F::medianMagnitudeGyro,
     &F::maxGyroMagnitude,
     {&F::percentile10GyroMagnitude, &F::percentile25GyroMagnitude, &F::percentile50GyroMagnitude,
      &F::percentile75GyroMagnitude, &F::percentile90GyroMagnitude}},
};

double sum(std::span<const double> values) {
  double total = 0;
  for (double v : values) total += v;
  return total;
}

// Σ|xᵢ − xᵢ₋₁| over i = 1 … n − 1.
double sumOfChanges(std::span<const double> values) {
  double total = 0;
  for (size_t i = 1; i < values.size(); ++i) total += std::fabs(values[i] - values[i - 1]);
  return total;
}

// Σ((x − mean) / s)^power for the skewness (3) and kurtosis (4) sums.
double sumOfStandardizedPowers(std::span<const double> values, double mean, double deviation,
                               int power) {
  double total = 0;
  for (double x : values) {
    const double z = (x - mean) / deviation;
    total += power == 3 ? z * z * z : z * z * z * z;
  }
  return total;
}

void calculateNoNoiseSums(const MotionSeries& s, AccelFeature& f) {
  const double n = static_cast<double>(s.size());
  for (const NoNoiseLevel& level : kNoNoiseLevels) {
    double accelSum = 0, gyroSum = 0;
    int64_t accelCount = 0, gyroCount = 0;
    for (size_t i = 0; i < s.size(); ++i) {
      if (s.accelTotal[i] > level.accelThreshold) {
        accelSum += s.accelTotal[i];
        ++accelCount;
      }
      if (s.gyroTotal[i] > level.gyroThreshold) {
        gyroSum += s.gyroTotal[i];
        ++gyroCount;
      }
    }
    f.*level.accelAll = accelSum / n;
    f.*level.gyroAll = gyroSum / n;
    f.*level.accelEntries = static_cast<float>(accelCount) / static_cast<float>(s.size());
    f.*level.gyroEntries = static_cast<float>(gyroCount) / static_cast<float>(s.size());
  }
}

void calculateExtremes(const MotionSeries& s, AccelFeature& f) {
  for (size_t i = 0; i < s.size(); ++i) {
    f.maxAccelValue = std::max(f.maxAccelValue, s.accelTotal[i]);
    f.maxGyroValue = std::max(f.maxGyroValue, s.gyroTotal[i]);
    f.minAccelValue = std::min(f.minAccelValue, s.accelTotal[i]);
    f.minGyroValue = std::min(f.minGyroValue, s.gyroTotal[i]);
    f.gyroXMin = std::min(f.gyroXMin, s.gyroX[i]);
    f.gyroYMin = std::min(f.gyroYMin, s.gyroY[i]);
    f.gyroZMin = std::min(f.gyroZMin, s.gyroZ[i]);
    f.gyroXMax = std::max(f.gyroXMax, s.gyroX[i]);
    f.gyroYMax = std::max(f.gyroYMax, s.gyroY[i]);
    f.gyroZMax = std::max(f.gyroZMax, s.gyroZ[i]);
  }
  f.spanGyroX = f.gyroXMax - f.gyroXMin;
  f.spanGyroY = f.gyroYMax - f.gyroYMin;
  f.spanGyroZ = f.gyroZMax - f.gyroZMin;
}

size_t percentileRank(size_t count, double p) {
  return static_cast<size_t>(static_cast<double>(count - 1) * p);
}

// Ascending, with values that are not numbers last, so that a platform reporting NaN gets
// defined statistics rather than a comparison that breaks the selection.
bool ascendingNumbersFirst(double a, double b) {
  return a < b || (std::isnan(b) && !std::isnan(a));
}

// Moves the values that the percentiles, the median and the maximum read to the ranks they
// would have after sorting, leaving the rest unsorted: selection costs n per rank where a
// full sort costs n log n, and a 20-second window is sorted four times otherwise.
void placeOrderStatistics(std::vector<double>& values) {
  const size_t n = values.size();
  std::vector<size_t> ranks = {(n - 1) / 2, n - 1};
  if (n % 2 == 0) ranks.push_back((n - 1) / 2 + 1);
  for (double p : kPercentiles) ranks.push_back(percentileRank(n, p));
  std::sort(ranks.begin(), ranks.end());
  ranks.erase(std::unique(ranks.begin(), ranks.end()), ranks.end());
  auto from = values.begin();
  for (size_t rank : ranks) {
    const auto nth = values.begin() + static_cast<std::ptrdiff_t>(rank);
    std::nth_element(from, nth, values.end(), ascendingNumbersFirst);
    from = nth + 1;
  }
}

void calculateSortedStatistics(const MotionSeries& s, AccelFeature& f) {
  std::vector<double> ordered;
  for (const SortedSeries& series : kSortedSeries) {
    ordered = s.*series.values;
    placeOrderStatistics(ordered);
    for (size_t p = 0; p < std::size(kPercentiles); ++p) {
      f.*series.percentiles[p] = percentileOfSorted(ordered, kPercentiles[p]);
    }
    f.*series.median = medianOfSorted(ordered);
    if (series.largest) f.*series.largest = ordered.back();
  }
}

void calculateAxisMoments(const MotionSeries& s, AccelFeature& f) {
  const double n = static_cast<double>(s.size());
  for (const Axis& axis : kAxes) {
    const std::vector<double>& x = s.*axis.values;
    const double mean = sum(x) / n;
    double squares = 0;
    for (double v : x) squares += (v - mean) * (v - mean);
    const double variance = squares / (n - 1);
    const double deviation = std::sqrt(variance);
    f.*axis.mean = mean;
    f.*axis.variance = variance;
    f.*axis.skewness = n / ((n - 1) * (n - 2)) * sumOfStandardizedPowers(x, mean, deviation, 3);
    f.*axis.kurtosis = safeKurtosis(x, mean, variance);
    for (size_t level = 0; level < 5; ++level) {
      const int64_t crossings = thresholdCrossings(x, axis.crossingThresholds[level]);
      f.*axis.crossings[level] = static_cast<float>(crossings) / static_cast<float>(s.size());
    }
  }
}

}  // namespace

double percentileOfSorted(std::span<const double> sorted, double p) {
  return sorted[percentileRank(sorted.size(), p)];
}

double medianOfSorted(std::span<const double> sorted) {
  const size_t m = (sorted.size() - 1) / 2;
  if (sorted.size() % 2 == 1) return sorted[m];
  return (sorted[m] + sorted[m + 1]) * 0.5;
}

double safeKurtosis(std::span<const double> values, double average, double variance) {
  if (values.size() < 4) return kMotionFeatureUnavailable;
  const double n = static_cast<double>(values.size());
  const double s4 = sumOfStandardizedPowers(values, average, std::sqrt(variance), 4);
  const double result = (n + 1) * n / ((n - 1) * (n - 2) * (n - 3)) * s4 -
                        3 * (n - 1) * (n - 1) / ((n - 2) * (n - 3));
  return std::isfinite(result) ? result : kMotionFeatureUnavailable;
}

int64_t thresholdCrossings(std::span<const double> values, double threshold) {
  if (values.empty()) return 0;
  bool below = values[0] < -threshold;
  int64_t crossings = 0;
  for (size_t i = 1; i < values.size(); ++i) {
    if (below && values[i] > threshold) {
      below = false;
      ++crossings;
    } else if (!below && values[i] < -threshold) {
      below = true;
      ++crossings;
    }
  }
  return crossings;
}

void calculateStatisticalFeatures(const MotionSeries& s, AccelFeature& f) {
  const double n = static_cast<double>(s.size());
  f.meanAccelTotal = sum(s.accelTotal) / n;
  f.meanGyroTotal = sum(s.gyroTotal) / n;
  f.meanMagnitudeAccel = sum(s.accelMagnitude) / n;
  f.meanMagnitudeGyro = sum(s.gyroMagnitude) / n;
  f.signalMagnitudeAreaAccel = f.meanMagnitudeAccel;
  f.signalMagnitudeAreaGyro = f.meanMagnitudeGyro;
  calculateNoNoiseSums(s, f);
  calculateExtremes(s, f);
  calculateSortedStatistics(s, f);
  calculateAxisMoments(s, f);
  f.avgDeltaAccel = (sumOfChanges(s.accelX) + sumOfChanges(s.accelY) + sumOfChanges(s.accelZ)) / n;
  f.avgDeltaGyro = (sumOfChanges(s.gyroX) + sumOfChanges(s.gyroY) + sumOfChanges(s.gyroZ)) / n;
}

}  // namespace orvane::accel_features
