// File: EntropyFeatures.h
// How unpredictable a magnitude series is: the Shannon entropy of its value histogram and the
// permutation entropy of its ordinal patterns, both in bits and not normalised.
#pragma once

#include <span>

namespace orvane::accel_features {

// Entropy of a 10-bin histogram between the smallest and the largest value (the largest falls
// in the last bin). 0 for a constant series; -98 for an empty series or one with a value that
// is not finite.
double calculateEntropyFromSignal(std::span<const double> signal);

// Entropy of the ordinal patterns of `order` consecutive values (step 1): each window's
// positions sorted by value, ties in position order. -98 for an order below 1, fewer values
// than the order, or a value that is not finite. Orders above 10 are not supported (their
// pattern texts would run digits together) and give -98; the features use order 3.
double calculatePermutationEntropy(std::span<const double> signal, int order);

}  // namespace orvane::accel_features
