// File: SinglePrecisionStatistics.h
// Means, variances and correlations accumulated in single precision, as the jerk, correlation
// and axis-energy features were defined: each value is narrowed to float first, and sums of
// values, squares and products run in float, one rounding per addition in index order, so
// the result does not depend on the vector width or the compiler. Results are widened back to
// double. Each answers -98 when it cannot be computed.
#pragma once

#include <span>

namespace orvane::accel_features {

// Σxᵢ / n over the single-precision copies; NaN for an empty series.
float singlePrecisionMean(std::span<const double> values);

// Sample variance Σ(xᵢ − mean)² / (n − 1); -98 for fewer than 2 values, a value or mean that
// is not finite, or a result that is not finite or negative.
double calculateVariance(std::span<const double> values);

// Pearson's r; -98 for fewer than 2 values, different lengths, a value or mean that is not
// finite, a constant series (zero denominator), or r outside [−1, 1].
double calculatePearsonCorrelation(std::span<const double> x, std::span<const double> y);

}  // namespace orvane::accel_features
