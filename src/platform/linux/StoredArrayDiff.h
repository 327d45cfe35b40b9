// File: StoredArrayDiff.h
// How the SQLite suites rewrite a large array without rewriting all of it. Arrays are stored one
// element per row, each row at a numbered position; a new value of the array is matched
// against the stored elements in order, and only the rows that changed are deleted or added.
// The upload queues are the case this is for: a record appended, the oldest dropped, or the
// records of a sent batch removed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "orvane/PlistValue.h"

namespace orvane {

// Equal down to the bits of every number, so a NaN matches itself and 0.0 does not match -0.0:
// an element is kept only when its stored bytes would come out the same.
bool identicalPlistValues(const PlistValue& a, const PlistValue& b);

struct StoredArrayEdit {
  std::vector<int64_t> removedPositions;
  // Indexes into the new array of the elements that need rows of their own.
  std::vector<size_t> addedElements;
  // The position of every element of the new array, in order; strictly increasing.
  std::vector<int64_t> positions;
};

// `stored[i]` sits at `storedPositions[i]` (strictly increasing). Elements of `next` are
// matched greedily in order against the stored ones; a stored element that is passed over is
// removed, and once the stored elements run out the rest of `next` is added after the last
// stored position. Removals, appends and trims at either end cost only the rows they touch;
// any other change rewrites from the first difference onwards, which is still correct.
StoredArrayEdit diffStoredArray(const PlistArray& stored, std::span<const int64_t> storedPositions,
                                const PlistArray& next);

}  // namespace orvane
