#include "platform/linux/StoredArrayDiff.h"

#include <bit>

namespace orvane {
namespace {

bool sameBits(double a, double b) {
  return std::bit_cast<uint64_t>(a) == std::bit_cast<uint64_t>(b);
}
bool sameBits(float a, float b) { return std::bit_cast<uint32_t>(a) == std::bit_cast<uint32_t>(b); }

}  // namespace

bool identicalPlistValues(const PlistValue& a, const PlistValue& b) {
  if (a.type() != b.type()) return false;
  if (a.sharesContentsWith(b)) return true;
  switch (a.type()) {
    case PlistValue::Type::kDouble:
      return sameBits(*a.asDouble(), *b.asDouble());
    case PlistValue::Type::kFloat:
      return sameBits(*a.asFloat(), *b.asFloat());
    case PlistValue::Type::kDate:
      return sameBits(a.asDate()->secondsSince1970, b.asDate()->secondsSince1970);
    case PlistValue::Type::kArray: {
      const PlistArray& left = *a.asArray();
      const PlistArray& right = *b.asArray();
      if (left.size() != right.size()) return false;
      for (size_t i = 0; i < left.size(); ++i) {
        if (!identicalPlistValues(left[i], right[i])) return false;
      }
      return true;
    }
    case PlistValue::Type::kDictionary: {
      const PlistDictionary& left = *a.asDictionary();
      const PlistDictionary& right = *b.asDictionary();
      if (left.size() != right.size()) return false;
      for (auto l = left.begin(), r = right.begin(); l != left.end(); ++l, ++r) {
        if (l->first != r->first || !identicalPlistValues(l->second, r->second)) return false;
      }
      return true;
    }
    default:
      return a == b;
  }
}

StoredArrayEdit diffStoredArray(const PlistArray& stored, std::span<const int64_t> storedPositions,
                                const PlistArray& next) {
  StoredArrayEdit edit;
  edit.positions.reserve(next.size());
  size_t i = 0;
  int64_t nextFreePosition = storedPositions.empty() ? 0 : storedPositions.back() + 1;
  for (size_t j = 0; j < next.size(); ++j) {
    while (i < stored.size() && !identicalPlistValues(stored[i], next[j])) {
      edit.removedPositions.push_back(storedPositions[i++]);
    }
    if (i < stored.size()) {
      edit.positions.push_back(storedPositions[i++]);
    } else {
      edit.addedElements.push_back(j);
      edit.positions.push_back(nextFreePosition++);
    }
  }
  for (; i < stored.size(); ++i) edit.removedPositions.push_back(storedPositions[i]);
  return edit;
}

}  // namespace orvane
