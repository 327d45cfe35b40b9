// The only file that includes Eigen: its FFT header does not coexist with some of the other
// headers we use (cpp-httplib), so it stays behind computeFFT.
#include "motion/features/FourierTransform.h"

#include <cmath>
#include <complex>
#include <numbers>

#include <unsupported/Eigen/FFT>

namespace orvane::accel_features {

namespace {

double binMagnitude(double re, double im) {
  if (!std::isfinite(re) || !std::isfinite(im)) return 0;
  const double squared = re * re + im * im;
  return std::isfinite(squared) ? std::sqrt(squared) : 0;
}

// The textbook sum. Used only for series so large that partial sums may overflow: there the
// bins that come out as 0 depend on the order of summation, and this order is the definition.
std::vector<double> directSpectrum(std::span<const double> x) {
  const size_t n = x.size();
  std::vector<double> spectrum(n / 2);
  for (size_t k = 0; k < n / 2; ++k) {
    double re = 0, im = 0;
    for (size_t j = 0; j < n; ++j) {
      const double angle = 2 * std::numbers::pi * static_cast<double>(k) * static_cast<double>(j) /
                           static_cast<double>(n);
      re += x[j] * std::cos(angle);
      im -= x[j] * std::sin(angle);
    }
    spectrum[k] = binMagnitude(re, im);
  }
  return spectrum;
}

// Below this, no partial sum of any bin can reach the double range (|re|, |im| ≤ Σ|x|, and
// re² + im² ≤ 2(Σ|x|)²), so the FFT and the textbook sum agree on which bins overflow: none.
constexpr double kLargestSafeAbsoluteSum = 1e150;

}  // namespace

std::vector<double> computeFFT(std::span<const double> signal) {
  const size_t n = signal.size();
  if (n == 0) return {};
  double absoluteSum = 0;
  for (double v : signal) {
    if (!std::isfinite(v)) return {};
    absoluteSum += std::fabs(v);
  }
  if (n == 1) return {std::fabs(signal[0])};
  if (!(absoluteSum <= kLargestSafeAbsoluteSum)) return directSpectrum(signal);

  // Each thread keeps its transform: its plans (twiddle factors per length) are reused by
  // every window of the same duration, and the object is not safe to share.
  thread_local Eigen::FFT<double> fft = [] {
    Eigen::FFT<double> made;
    made.SetFlag(Eigen::FFT<double>::HalfSpectrum);
    return made;
  }();
  thread_local std::vector<std::complex<double>> bins;
  bins.resize(n / 2 + 1);
  fft.fwd(bins.data(), signal.data(), static_cast<Eigen::Index>(n));

  std::vector<double> spectrum(n / 2);
  for (size_t k = 0; k < n / 2; ++k) spectrum[k] = binMagnitude(bins[k].real(), bins[k].imag());
  return spectrum;
}

}  // namespace orvane::accel_features
