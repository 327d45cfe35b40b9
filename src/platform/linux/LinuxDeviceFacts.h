// File: LinuxDeviceFacts.h
// The readings behind the Linux device service, apart so that tests can feed them a tree or
// a locale name of their own.
#pragma once

#include <filesystem>
#include <string_view>

#include "orvane/platform/DeviceService.h"

namespace orvane::linux_device {

// A POSIX locale name ("de_CH.UTF-8@euro") as the platform names locales: identifier
// "de_CH", language "de", region "CH". Measurement and currency come from the C library's
// data for that locale when it is installed; without it the region decides the measurement
// system and the currency stays unknown.
LocaleInfo localeFromPosixName(std::string_view name);

// The first system battery (type "Battery", not a peripheral's) under a power_supply folder,
// in name order. No battery, or one whose files cannot be read, is an unknown status.
BatteryStatus readBattery(const std::filesystem::path& powerSupply);

}  // namespace orvane::linux_device
