#include "motion/features/MotionSeries.h"

#include <cmath>

namespace orvane::accel_features {

double magnitude(const MotionVector& v) { return std::sqrt(v.x * v.x + v.y * v.y + v.z * v.z); }

MotionSeries::MotionSeries(std::span<const AccelerometerSensorValue* const> window) {
  const size_t n = window.size();
  for (auto* series : {&accelX, &accelY, &accelZ, &gyroX, &gyroY, &gyroZ, &accelTotal, &gyroTotal,
                       &accelMagnitude, &gyroMagnitude}) {
    series->resize(n);
  }
  for (size_t i = 0; i < n; ++i) {
    const MotionVector& a = window[i]->acceleration;
    const MotionVector& g = window[i]->rotationRate;
    accelX[i] = a.x;
    accelY[i] = a.y;
    accelZ[i] = a.z;
    gyroX[i] = g.x;
    gyroY[i] = g.y;
    gyroZ[i] = g.z;
    accelTotal[i] = std::fabs(a.x) + std::fabs(a.y) + std::fabs(a.z);
    gyroTotal[i] = std::fabs(g.x) + std::fabs(g.y) + std::fabs(g.z);
    accelMagnitude[i] = magnitude(a);
    gyroMagnitude[i] = magnitude(g);
  }
}

}  // namespace orvane::accel_features
