// File: ControlGrouper.h
// A random choice that is stable per installation: the installation identifier and a name
// are hashed to a position in [0, 1], and the groups split [0, 1] into consecutive intervals
// by their cumulative upper bounds. The same identifier and name always give the same group;
// different names give independent draws.
#pragma once

#include <algorithm>
#include <cmath>
#include <limits>
#include <span>
#include <string_view>
#include <vector>

#include "orvane/platform/Crypto.h"

namespace orvane {

template <typename T>
struct ControlGroup {
  T value;
  // Cumulative: the group owns the interval from the previous bound up to this one.
  double upperBound = 0;
};

class ControlGrouper {
 public:
  // The installation's position for `name`: the first four bytes of
  // SHA-256(UTF-8(installationUUID + name)) as a little-endian integer, over 2^32 - 1.
  static double position(const Crypto& crypto, std::string_view installationUUID,
                         std::string_view name);

  // The value of the first group, by ascending bound (equal bounds keep their order), whose
  // bound reaches the position; the last such group when none does. A single group is
  // returned without hashing. No groups at all give a value-initialised T.
  template <typename T>
  static T getGroupAssignment(const Crypto& crypto, std::string_view installationUUID,
                              std::string_view flowName, std::span<const ControlGroup<T>> groups);

  template <typename T>
  static T getGroupAssignment(const Crypto& crypto, std::string_view installationUUID,
                              std::string_view flowName,
                              const std::vector<ControlGroup<T>>& groups) {
    return getGroupAssignment<T>(crypto, installationUUID, flowName,
                                 std::span<const ControlGroup<T>>(groups));
  }
};

template <typename T>
T ControlGrouper::getGroupAssignment(const Crypto& crypto, std::string_view installationUUID,
                                     std::string_view flowName,
                                     std::span<const ControlGroup<T>> groups) {
  if (groups.empty()) return T{};
  if (groups.size() == 1) return groups.front().value;
  const double x = position(crypto, installationUUID, flowName);

  // A NaN bound sorts last and never reaches x, so it can only be chosen as the fallback.
  auto sortKey = [](double bound) {
    return std::isnan(bound) ? std::numeric_limits<double>::infinity() : bound;
  };
  std::vector<const ControlGroup<T>*> sorted;
  sorted.reserve(groups.size());
  for (const auto& group : groups) sorted.push_back(&group);
  std::stable_sort(sorted.begin(), sorted.end(), [&](const auto* a, const auto* b) {
    return sortKey(a->upperBound) < sortKey(b->upperBound);
  });
  for (const auto* group : sorted) {
    if (group->upperBound >= x) return group->value;
  }
  return sorted.back()->value;
}

}  // namespace orvane
