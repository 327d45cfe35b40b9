#include "motion/ActivityType.h"

namespace orvane {

namespace {

constexpr std::array<std::string_view, kActivityTypeCount> kRawNames = {
    "walking",      "running",
    "bed",          "bed_flat_on_stomach",
    "bike",         "car",
    "couch",        "sitting",
    "standing",     "sitting_or_standing",
    "table",        "table_face_down",
    "table_leaned", "transit",
    "train",        "tram",
    "subway",       "airplane",
    "elevator",     "stairs",
    "pocket",
};

constexpr std::array<ActivityType, kActivityTypeCount> makeAllActivityTypes() {
  std::array<ActivityType, kActivityTypeCount> all{};
  for (size_t i = 0; i < kActivityTypeCount; ++i) all[i] = static_cast<ActivityType>(i);
  return all;
}

}  // namespace

const std::array<ActivityType, kActivityTypeCount> kAllActivityTypes = makeAllActivityTypes();

std::string_view rawName(ActivityType activity) {
  const auto index = static_cast<size_t>(activity);
  return index < kRawNames.size() ? kRawNames[index] : std::string_view();
}

std::optional<ActivityType> activityTypeFromRawName(std::string_view name) {
  for (size_t i = 0; i < kRawNames.size(); ++i) {
    if (kRawNames[i] == name) return static_cast<ActivityType>(i);
  }
  return std::nullopt;
}

}  // namespace orvane
