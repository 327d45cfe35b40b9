// File: ActivityInputMapping.h
// Where each motion signal goes in the input vector of the activity models. The table belongs
// to one model generation: tagger version "0.0.5" over 3-second windows.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

namespace orvane::activity_input {

inline constexpr std::string_view kVersion = "0.0.5";
inline constexpr int64_t kDurationSeconds = 3;
inline constexpr size_t kLength = 108;

// The signal id at each position of the input vector.
extern const std::array<uint16_t, kLength> kSignalIdByPosition;

// The position of a signal id; none for a signal the models do not read.
std::optional<size_t> positionOf(uint16_t signalId);

}  // namespace orvane::activity_input
