#include "motion/features/EntropyFeatures.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

#include "motion/features/AccelFeature.h"

namespace orvane::accel_features {

namespace {

constexpr double kUnavailable = kMotionFeatureUnavailable;
constexpr double kSmallestNormal = std::numeric_limits<double>::min();
constexpr int kHistogramBins = 10;
constexpr int kLargestPermutationOrder = 10;

bool allFinite(std::span<const double> values) {
  for (double v : values) {
    if (!std::isfinite(v)) return false;
  }
  return true;
}

// −Σ p·log₂ p over the counts in the order given, p floored at the smallest normal double.
double entropyOfCounts(std::span<const int64_t> counts, double total) {
  double entropy = 0;
  for (int64_t count : counts) {
    if (count == 0) continue;
    const double p = std::max(static_cast<double>(count) / total, kSmallestNormal);
    entropy -= p * std::log2(p);
  }
  return std::isfinite(entropy) ? entropy : kUnavailable;
}

}  // namespace

double calculateEntropyFromSignal(std::span<const double> signal) {
  if (signal.empty() || !allFinite(signal)) return kUnavailable;
  const auto [minIt, maxIt] = std::minmax_element(signal.begin(), signal.end());
  const double min = *minIt, max = *maxIt;
  if (!(min < max) || !(max - min > kSmallestNormal)) return 0.0;
  const double width = (max - min) / kHistogramBins;
  if (!(width > 0) || !std::isfinite(width)) return kUnavailable;

  std::array<int64_t, kHistogramBins> counts{};
  for (double x : signal) {
    // Truncation toward zero; (x − min) is never negative, and rounding can push the maximum
    // one bin past the end.
    const auto bin = static_cast<int64_t>((x - min) / width);
    ++counts[static_cast<size_t>(std::clamp<int64_t>(bin, 0, kHistogramBins - 1))];
  }
  return entropyOfCounts(counts, static_cast<double>(signal.size()));
}

double calculatePermutationEntropy(std::span<const double> signal, int order) {
  if (signal.empty() || order < 1 || signal.size() < static_cast<size_t>(order)) {
    return kUnavailable;
  }
  if (order > kLargestPermutationOrder || !allFinite(signal)) return kUnavailable;

  // Each pattern is kept as the number its digit text spells (positions are single digits),
  // so sorting the numbers sorts the texts and the sum runs in text order.
  const size_t windows = signal.size() - static_cast<size_t>(order) + 1;
  std::vector<uint64_t> patterns(windows);
  std::array<int, kLargestPermutationOrder> positions{};
  for (size_t start = 0; start < windows; ++start) {
    const double* values = signal.data() + start;
    for (int p = 0; p < order; ++p) positions[static_cast<size_t>(p)] = p;
    // Insertion sort: stable, and quickest for the few values of a window.
    for (int i = 1; i < order; ++i) {
      const int position = positions[static_cast<size_t>(i)];
      int j = i - 1;
      while (j >= 0 && values[positions[static_cast<size_t>(j)]] > values[position]) {
        positions[static_cast<size_t>(j + 1)] = positions[static_cast<size_t>(j)];
        --j;
      }
      positions[static_cast<size_t>(j + 1)] = position;
    }
    uint64_t code = 0;
    for (int p = 0; p < order; ++p) code = code * 10 + static_cast<uint64_t>(positions[p]);
    patterns[start] = code;
  }
  std::sort(patterns.begin(), patterns.end());
  std::vector<int64_t> counts;
  for (size_t i = 0; i < patterns.size(); ++i) {
    if (i == 0 || patterns[i] != patterns[i - 1]) counts.push_back(0);
    ++counts.back();
  }
  return entropyOfCounts(counts, static_cast<double>(windows));
}

}  // namespace orvane::accel_features
