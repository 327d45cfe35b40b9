// File: ActivityType.h
// The physical activities the shipped activity models score. Raw names are what the remote
// configuration lists and what the model resources are named after.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace orvane {

enum class ActivityType : uint8_t {
  kWalking,
  kRunning,
  kBed,
  kBedFlatOnStomach,
  kBike,
  kCar,
  kCouch,
  kSitting,
  kStanding,
  kSittingOrStanding,
  kTable,
  kTableFaceDown,
  kTableLeaned,
  kTransit,
  kTrain,
  kTram,
  kSubway,
  kAirplane,
  kElevator,
  kStairs,
  kPocket,
};

inline constexpr size_t kActivityTypeCount = 21;
static_assert(static_cast<size_t>(ActivityType::kPocket) + 1 == kActivityTypeCount);

// Every case, in declaration order.
extern const std::array<ActivityType, kActivityTypeCount> kAllActivityTypes;

std::string_view rawName(ActivityType activity);
// None for any text that is not exactly one of the raw names (case matters).
std::optional<ActivityType> activityTypeFromRawName(std::string_view name);

// The activity's part of its model's resource name: "m" and five digits derived from the raw
// name, so that the bundle's file names do not spell out what the models detect.
std::string obfuscatedModelName(ActivityType activity);
// The same rule over any raw value; every raw name is ASCII, one byte per character.
std::string obfuscatedModelName(std::string_view rawValue);

}  // namespace orvane
