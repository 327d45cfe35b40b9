#include "motion/features/EntropyFeatures.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <limits>
#include <utility>
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
  // so ordering the numbers orders the texts and the sum runs in text order. A window has few
  // distinct patterns (6 for order 3), so a short list beats a map.
  const size_t windows = signal.size() - static_cast<size_t>(order) + 1;
  std::vector<std::pair<uint64_t, int64_t>> patterns;
  std::array<size_t, kLargestPermutationOrder> positions{};
  const auto length = static_cast<size_t>(order);
  for (size_t start = 0; start < windows; ++start) {
    const double* values = signal.data() + start;
    for (size_t p = 0; p < length; ++p) positions[p] = p;
    // Insertion sort: stable, and quickest for the few values of a window.
    for (size_t i = 1; i < length; ++i) {
      const size_t position = positions[i];
      size_t j = i;
      while (j > 0 && values[positions[j - 1]] > values[position]) {
        positions[j] = positions[j - 1];
        --j;
      }
      positions[j] = position;
    }
    uint64_t code = 0;
    for (size_t p = 0; p < length; ++p) code = code * 10 + positions[p];
    auto it = std::find_if(patterns.begin(), patterns.end(),
                           [code](const auto& entry) { return entry.first == code; });
    if (it == patterns.end()) {
      patterns.emplace_back(code, 1);
    } else {
      ++it->second;
    }
  }
  std::sort(patterns.begin(), patterns.end());
  std::vector<int64_t> counts;
  counts.reserve(patterns.size());
  for (const auto& [code, count] : patterns) counts.push_back(count);
  return entropyOfCounts(counts, static_cast<double>(windows));
}

}  // namespace orvane::accel_features
