#include "motion/features/SinglePrecisionStatistics.h"

#include <cmath>
#include <vector>

#include "motion/features/AccelFeature.h"

namespace orvane::accel_features {

namespace {

constexpr double kUnavailable = kMotionFeatureUnavailable;

bool allFinite(std::span<const double> values) {
  for (double v : values) {
    if (!std::isfinite(v)) return false;
  }
  return true;
}

// The deviations from the mean, xᵢ + (−mean), in float.
std::vector<float> deviations(std::span<const double> values, float mean) {
  std::vector<float> out(values.size());
  for (size_t i = 0; i < values.size(); ++i) out[i] = static_cast<float>(values[i]) + -mean;
  return out;
}

float dot(std::span<const float> x, std::span<const float> y) {
  float sum = 0;
  for (size_t i = 0; i < x.size(); ++i) {
    // Rounded on its own: a fused multiply-add would round once. The build turns contraction
    // off (GCC fuses even across statements); the separate statement also keeps compilers
    // that contract within an expression (clang's default) from fusing without that flag.
    const float product = x[i] * y[i];
    sum += product;
  }
  return sum;
}

}  // namespace

float singlePrecisionMean(std::span<const double> values) {
  float sum = 0;
  for (double v : values) sum += static_cast<float>(v);
  return sum / static_cast<float>(values.size());
}

double calculateVariance(std::span<const double> values) {
  if (values.size() < 2 || !allFinite(values)) return kUnavailable;
  const float mean = singlePrecisionMean(values);
  if (!std::isfinite(mean)) return kUnavailable;
  const std::vector<float> d = deviations(values, mean);
  const double variance = static_cast<double>(dot(d, d)) / static_cast<double>(values.size() - 1);
  if (!std::isfinite(variance) || variance < 0) return kUnavailable;
  return variance;
}

double calculatePearsonCorrelation(std::span<const double> x, std::span<const double> y) {
  if (x.size() < 2 || x.size() != y.size() || !allFinite(x) || !allFinite(y)) {
    return kUnavailable;
  }
  const float meanX = singlePrecisionMean(x);
  const float meanY = singlePrecisionMean(y);
  if (!std::isfinite(meanX) || !std::isfinite(meanY)) return kUnavailable;
  const std::vector<float> dx = deviations(x, meanX);
  const std::vector<float> dy = deviations(y, meanY);
  const double covariance = dot(dx, dy);
  const double sx = dot(dx, dx);
  const double sy = dot(dy, dy);
  const double denominator = std::sqrt(sx * sy);
  if (!(denominator > 0) || !std::isfinite(denominator)) return kUnavailable;
  const double r = covariance / denominator;
  if (!std::isfinite(r) || r < -1 || r > 1) return kUnavailable;
  return r;
}

}  // namespace orvane::accel_features
