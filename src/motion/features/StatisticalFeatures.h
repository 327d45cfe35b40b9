// File: StatisticalFeatures.h
// First-order statistics of a valid window: means, medians, percentiles, thresholded sums,
// extremes, variance, skewness, kurtosis, threshold crossings and average change, all in
// double precision over the series of MotionSeries.
#pragma once

#include <cstdint>
#include <span>

#include "motion/features/AccelFeature.h"
#include "motion/features/MotionSeries.h"

namespace orvane::accel_features {

// Writes every statistic above into `feature`. The series must not be empty.
void calculateStatisticalFeatures(const MotionSeries& series, AccelFeature& feature);

// Percentile p (0 to 1) of ascending values: sorted[⌊(n − 1)·p⌋], no interpolation.
// Both read only the ranks they need, so values with just those ranks in place will do.
double percentileOfSorted(std::span<const double> sorted, double p);
// The middle value, or the mean of the two middle values for an even count.
double medianOfSorted(std::span<const double> sorted);

// Sample-corrected excess kurtosis; -98 for fewer than 4 values or a result that is not finite
// (a constant series divides by a zero deviation).
double safeKurtosis(std::span<const double> values, double average, double variance);

// Crossings of the band [−t, +t]: counted when the series, having last been below −t, rises
// above +t, or the other way round; values inside the band change nothing. A series starts on
// the lower side only when its first value is below −t.
int64_t thresholdCrossings(std::span<const double> values, double threshold);

}  // namespace orvane::accel_features
