#include "motion/AccelerometerSensorValue.h"

#include <charconv>
#include <cmath>
#include <limits>
#include <system_error>

#include "logging/AnyEncodable.h"

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
  // Printing with twelve decimals moves the value by at most 5e-13. Unless the value lies that
  // close to a point halfway between two floats, the printed text reads back as the plain
  // narrowing would: the text round trip below costs far more than this check.
  constexpr double kMoved = 1e-12;
  if (value != 0 && std::fabs(value) < 1e30) {
    const float narrowed = static_cast<float>(value);
    const double here = narrowed;
    const double lowHalfway = (here + std::nextafter(narrowed, -HUGE_VALF)) / 2;
    const double highHalfway = (here + std::nextafter(narrowed, HUGE_VALF)) / 2;
    if (value - lowHalfway > kMoved && highHalfway - value > kMoved) return narrowed;
  }
  return rawSampleComponentThroughText(value);
}

float rawSampleComponentThroughText(double value) {
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

void AccelerometerSensorValue::appendRawRecordJson(std::string& out) const {
  auto triple = [&out](const char* key, double a, double b, double c) {
    out += key;
    out += '[';
    appendJsonNumber(out, rawSampleComponent(a));
    out += ',';
    appendJsonNumber(out, rawSampleComponent(b));
    out += ',';
    appendJsonNumber(out, rawSampleComponent(c));
    out += ']';
  };
  // Keys in the order the dictionary form sorts them.
  triple("{\"a\":", acceleration.x, acceleration.y, acceleration.z);
  triple(",\"at\":", attitude.roll, attitude.pitch, attitude.yaw);
  triple(",\"g\":", gravity.x, gravity.y, gravity.z);
  triple(",\"r\":", rotationRate.x, rotationRate.y, rotationRate.z);
  out += ",\"t\":";
  appendJsonString(out, shortestDoubleText(timestamp.secondsSince1970));
  out += '}';
}

}  // namespace orvane
