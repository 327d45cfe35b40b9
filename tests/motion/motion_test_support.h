// File: motion_test_support.h
// Shared helpers of the motion suites: where the fixtures are.
#pragma once

#include <cstdlib>
#include <string>

#include "motion/AccelerometerSensorValue.h"

namespace orvane::testing {

inline std::string motionFixturesDir() {
  const char* env = std::getenv("ORVANE_FIXTURES");
  return std::string(env && *env ? env : "tests/fixtures") + "/motion";
}

}  // namespace orvane::testing
