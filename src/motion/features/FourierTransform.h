// File: FourierTransform.h
// The magnitude spectrum of a motion series, the input of the frequency features.
#pragma once

#include <span>
#include <vector>

namespace orvane::accel_features {

// Magnitudes of bins 0 … n/2 − 1 of the discrete Fourier transform of the raw series (no
// window function, no mean removal, no padding): |Σⱼ xⱼ·e^(−2πi·k·j/n)|. One bin |x₀| for a
// single value; empty for an empty series or one holding a value that is not finite. A bin
// whose squared magnitude overflows is 0.
//
// Computed with a mixed-radix FFT in double precision; its rounding differs from that of the
// textbook sum only far below single precision, where every feature ends up.
std::vector<double> computeFFT(std::span<const double> signal);

}  // namespace orvane::accel_features
