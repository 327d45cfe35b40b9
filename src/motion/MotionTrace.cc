#include "motion/MotionTrace.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>

#include "util/JsonReader.h"

namespace orvane {

namespace {

std::optional<MotionVector> readVector(const JsonReader& sample, std::string_view name) {
  auto field = sample.required(name);
  if (!field) return std::nullopt;
  auto numbers = field->asArray<double>([](const JsonReader& item) { return item.asDouble(); });
  if (!numbers) return std::nullopt;
  if (numbers->size() != 3) {
    field->fail("expected 3 numbers");
    return std::nullopt;
  }
  return MotionVector{(*numbers)[0], (*numbers)[1], (*numbers)[2]};
}

std::optional<AccelerometerSensorValue> readSample(const JsonReader& sample) {
  auto t = sample.requiredDouble("t");
  auto acceleration = readVector(sample, "acceleration");
  auto rotationRate = readVector(sample, "rotationRate");
  auto gravity = readVector(sample, "gravity");
  auto attitude = readVector(sample, "attitude");
  if (!t || !acceleration || !rotationRate || !gravity || !attitude) return std::nullopt;
  return AccelerometerSensorValue(*acceleration, *rotationRate,
                                  AttitudeData{attitude->x, attitude->y, attitude->z}, *gravity,
                                  Date{*t});
}

PlatformError decodingError(std::string description) {
  return PlatformError{kDecodingErrorDomain, 0, std::move(description)};
}

}  // namespace

Result<MotionTrace> parseMotionTrace(std::string_view json) {
  std::string parseError;
  auto document = parseJson(json, &parseError);
  if (!document) return decodingError("motion trace is not JSON: " + parseError);

  JsonReader root(*document);
  MotionTrace trace;
  if (!root.expectObject()) return decodingError(root.error());
  auto rate = root.requiredDouble("rateHz");
  if (rate && !(*rate > 0)) {
    root.required("rateHz")->fail("expected a positive rate");
  }
  trace.description = root.optionalString("description").value_or("");
  std::optional<std::vector<AccelerometerSensorValue>> samples;
  if (auto field = root.required("samples")) {
    samples = field->asArray<AccelerometerSensorValue>(readSample);
  }
  if (!root.ok()) return decodingError(root.error());
  trace.rateHz = *rate;
  trace.samples = std::move(*samples);
  return trace;
}

Result<MotionTrace> readMotionTraceFile(const std::string& path) {
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "rb"),
                                                       &std::fclose);
  // Errors from opening and reading a file (ENOENT, EACCES, EISDIR, ...) have the same numbers
  // on every platform we build for, so errno passes through unchanged.
  if (!file) {
    const int err = errno;
    return PlatformError{kPosixErrorDomain, err, "cannot open " + path + ": " + std::strerror(err)};
  }
  std::string text;
  char buffer[1 << 16];
  size_t read = 0;
  while ((read = std::fread(buffer, 1, sizeof buffer, file.get())) > 0) text.append(buffer, read);
  if (std::ferror(file.get())) {
    const int err = errno;
    return PlatformError{kPosixErrorDomain, err, "cannot read " + path + ": " + std::strerror(err)};
  }
  return parseMotionTrace(text);
}

}  // namespace orvane
