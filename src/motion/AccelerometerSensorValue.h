// File: AccelerometerSensorValue.h
// One device-motion sample as the platform delivers it: user acceleration (gravity removed)
// and gravity in g, rotation rate in rad/s, attitude in radians, and the wall-clock time the
// sample was taken. Samples are plain values; the sensor buffers copies of them. The vector
// and attitude types are the motion seam's.
#pragma once

#include "orvane/PlistValue.h"
#include "orvane/platform/MotionService.h"

namespace orvane {

struct AccelerometerSensorValue {
  AccelerometerSensorValue() = default;
  AccelerometerSensorValue(MotionVector userAcceleration, MotionVector rotationRate,
                           AttitudeData attitude, MotionVector gravity, Date timestamp = {})
      : acceleration(userAcceleration),
        rotationRate(rotationRate),
        attitude(attitude),
        gravity(gravity),
        timestamp(timestamp) {}

  MotionVector acceleration;
  MotionVector rotationRate;
  AttitudeData attitude;
  MotionVector gravity;
  Date timestamp;  // set by the sample handler when the sample arrives

  // The raw-sample record: "t" the timestamp as the shortest decimal text of the double, and
  // "a", "r", "at", "g" as three single-precision numbers each (acceleration, rotation rate,
  // roll/pitch/yaw, gravity).
  PlistDictionary toJSON() const;
  // The same record written straight as JSON text, byte for byte what encoding toJSON() gives,
  // without building it first: a request's raw-motion record holds hundreds of them.
  void appendRawRecordJson(std::string& out) const;

  bool operator==(const AccelerometerSensorValue&) const = default;
};

// A component as the raw-sample record writes it: printed with twelve decimals, then read
// back in single precision. Rounding to twelve decimals first can change the float's last bit
// compared with a plain narrowing, and the record keeps the values its readers expect.
float rawSampleComponent(double value);
// The same through the text itself, every time: what rawSampleComponent must always agree with.
float rawSampleComponentThroughText(double value);

}  // namespace orvane
