#include "motion/AccelerometerSensorValue.h"

#include <bit>
#include <charconv>
#include <cstdint>
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
    // The neighbouring floats: one step of the bit pattern away from zero and towards it
    // (0 is excluded above, so narrowed is never zero; a subnormal still steps by one).
    const auto bits = std::bit_cast<uint32_t>(narrowed);
    const double away = std::bit_cast<float>(bits + 1);
    const double toward = std::bit_cast<float>(bits - 1);
    const double lowHalfway = (here + (narrowed > 0 ? toward : away)) / 2;
    const double highHalfway = (here + (narrowed > 0 ? away : toward)) / 2;
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
  // The time as a JSON string of its shortest text: digits, sign, point and exponent need no
  // escaping, so the text goes in as printed.
  char time[40] = ",\"t\":\"";
  constexpr size_t kPrefix = 6;
  auto printed = std::to_chars(time + kPrefix, time + sizeof time - 2, timestamp.secondsSince1970);
  char* end = printed.ec == std::errc() ? printed.ptr : time + kPrefix;
  *end++ = '"';
  *end++ = '}';
  out.append(time, end);
}

}  // namespace orvane
