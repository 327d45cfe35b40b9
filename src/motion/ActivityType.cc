#include "motion/ActivityType.h"

#include <cstdio>

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

// Fixed for the shipped model files: changing either value renames every model resource.
constexpr uint32_t kModelNameXor = 0x4F52564E;
constexpr uint32_t kEmptyModelNameNumber = 0;

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

std::string obfuscatedModelName(std::string_view rawValue) {
  uint32_t number = kEmptyModelNameNumber;
  if (!rawValue.empty()) {
    uint32_t h = 5381;
    for (const char c : rawValue) h = h * 33 + static_cast<unsigned char>(c);
    number = ((h & 0x7FFFFFFFu) ^ kModelNameXor) % 100000;
  }
  char name[16];
  std::snprintf(name, sizeof name, "m%05u", static_cast<unsigned>(number));
  return name;
}

std::string obfuscatedModelName(ActivityType activity) {
  return obfuscatedModelName(rawName(activity));
}

}  // namespace orvane
