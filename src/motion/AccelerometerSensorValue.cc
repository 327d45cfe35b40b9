#include "motion/AccelerometerSensorValue.h"

#include <charconv>
#include <cmath>
#include <limits>
#include <system_error>

namespace orvane {

namespace {

std::string shortestDoubleText(double value) {
  char buffer[32];
  auto printed = std::to_chars(buffer, buffer + sizeof buffer, value);
  return std::string(buffer, printed.ptr);
}

PlistArray rawTriple(double a, double b, double c) {
  return PlistArray{rawSampleComponent(a), rawSampleComponent(b), rawSampleComponent(c)};
}

}  // namespace

float rawSampleComponent(double value) {
  if (!std::isfinite(value)) return static_cast<float>(value);
  // A finite double has at most 309 integer digits; with sign, point and twelve decimals the
  // text fits comfortably.
  char buffer[352];
  auto printed = std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::fixed, 12);
  float parsed = 0;
  auto read = std::from_chars(buffer, printed.ptr, parsed, std::chars_format::fixed);
  if (read.ec == std::errc::result_out_of_range) {
    // Reading text beyond the float range saturates, as the platform's parser does.
    return std::copysign(std::numeric_limits<float>::infinity(), static_cast<float>(value));
  }
  return parsed;
}

PlistDictionary AccelerometerSensorValue::toJSON() const {
  return PlistDictionary{
      {"t", shortestDoubleText(timestamp.secondsSince1970)},
      {"a", rawTriple(acceleration.x, acceleration.y, acceleration.z)},
      {"r", rawTriple(rotationRate.x, rotationRate.y, rotationRate.z)},
      {"at", rawTriple(attitude.roll, attitude.pitch, attitude.yaw)},
      {"g", rawTriple(gravity.x, gravity.y, gravity.z)},
  };
}

}  // namespace orvane
