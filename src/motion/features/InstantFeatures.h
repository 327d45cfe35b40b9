// File: InstantFeatures.h
// The pose and motion of the device at the last sample of a window: tilt, whether it lies
// flat face up or down, along which axis it moves, and how its acceleration and rotation
// split along and across gravity. Computed for every window that holds a sample, valid or
// not, in double precision.
#pragma once

#include "motion/AccelerometerSensorValue.h"
#include "motion/features/AccelFeature.h"

namespace orvane::accel_features {

// Writes the attitude fields (pitch, roll, yaw and their sines and cosines), the last gravity
// vector and every instant… field of `into`. Values that cannot be computed are -98; an axis
// field keeps its previous value when a component is not a number.
void extractInstantaneousFeatures(const AccelerometerSensorValue& sensorValue, AccelFeature& into);

}  // namespace orvane::accel_features
