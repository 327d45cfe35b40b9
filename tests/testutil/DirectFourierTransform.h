// File: DirectFourierTransform.h
// The textbook discrete Fourier transform of a real series, term by term in index order:
// the reference that the SDK's FFT must reproduce (tests) and the baseline it is timed
// against (benchmarks). Quadratic in the length.
#pragma once

#include <cmath>
#include <numbers>
#include <span>
#include <vector>

namespace orvane::testing {

// Magnitudes of bins 0 … n/2 − 1; one bin |x₀| for n = 1; empty for an empty series or one
// with a value that is not finite. A bin whose sums or squared magnitude overflow is 0.
inline std::vector<double> directSpectrum(std::span<const double> x) {
  const size_t n = x.size();
  for (double v : x) {
    if (!std::isfinite(v)) return {};
  }
  if (n == 1) return {std::fabs(x[0])};
  std::vector<double> spectrum(n / 2);
  for (size_t k = 0; k < n / 2; ++k) {
    double re = 0, im = 0;
    for (size_t j = 0; j < n; ++j) {
      const double angle = 2 * std::numbers::pi * static_cast<double>(k) * static_cast<double>(j) /
                           static_cast<double>(n);
      const double c = std::cos(angle), s = std::sin(angle);
      if (!std::isfinite(c) || !std::isfinite(s)) continue;
      re += x[j] * c;
      im -= x[j] * s;
    }
    const double squared = re * re + im * im;
    spectrum[k] =
        std::isfinite(re) && std::isfinite(im) && std::isfinite(squared) ? std::sqrt(squared) : 0.0;
  }
  return spectrum;
}

}  // namespace orvane::testing
