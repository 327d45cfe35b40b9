// File: MotionTrace.h
// Recorded motion for replay, feature tools and tests: a JSON document
//   {"rateHz": 100, "description": "...", "samples": [{"t": 1700000000.01,
//    "acceleration": [x, y, z], "rotationRate": [x, y, z], "gravity": [x, y, z],
//    "attitude": [roll, pitch, yaw]}, ...]}
// with t in seconds since 1970, acceleration and gravity in g, rotation in rad/s and the
// attitude in radians. "description" is optional.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "motion/AccelerometerSensorValue.h"
#include "util/Result.h"

namespace orvane {

struct MotionTrace {
  double rateHz = 0;
  std::string description;
  std::vector<AccelerometerSensorValue> samples;  // in file order
};

// Fails (domain "DecodingError") on malformed JSON, a missing or mistyped field, a vector that
// is not three numbers, or a rate that is not a positive number; the description names the
// path of the first problem, e.g. "samples[3].gravity: expected 3 numbers".
Result<MotionTrace> parseMotionTrace(std::string_view json);

// Reads and parses a trace file. An unreadable file fails in the POSIX domain with its errno.
Result<MotionTrace> readMotionTraceFile(const std::string& path);

}  // namespace orvane
