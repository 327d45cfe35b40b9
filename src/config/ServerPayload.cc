#include "config/ServerPayload.h"

#include "util/JsonReader.h"

namespace orvane {

namespace {

std::optional<double> readNumber(const JsonReader& reader) { return reader.asDouble(); }

std::optional<ServerTiming> decodeTiming(const JsonReader& reader) {
  if (!reader.expectObject()) return std::nullopt;
  auto unit = reader.requiredString("unit");
  auto value = reader.requiredDouble("value");
  if (!unit || !value) return std::nullopt;
  return ServerTiming{std::move(*unit), *value};
}

std::optional<ServerTimingConfiguration> decodeTimingConfiguration(const JsonReader& reader) {
  if (!reader.expectObject()) return std::nullopt;
  ServerTimingConfiguration timing;
  if (auto field = reader.optional("atLeastEvery")) timing.atLeastEvery = decodeTiming(*field);
  timing.actBySkew = reader.optionalDouble("actBySkew");
  if (auto field = reader.optional("atMostOncePer")) timing.atMostOncePer = decodeTiming(*field);
  if (!reader.ok()) return std::nullopt;
  return timing;
}

std::optional<ServerModelInfo> decodeModelInfo(const JsonReader& reader) {
  if (!reader.expectObject()) return std::nullopt;
  ServerModelInfo info;
  auto isControl = reader.requiredBool("isControl");
  info.modelUrl = reader.optionalString("modelUrl");
  info.modelVersion = reader.optionalString("modelVersion");
  info.upsellThreshold = reader.optionalDouble("upsellThreshold");
  if (auto field = reader.optional("hourlyUpsellThresholds")) {
    info.hourlyUpsellThresholds = field->asArray<std::vector<double>>(
        [](const JsonReader& row) { return row.asArray<double>(readNumber); });
  }
  if (auto field = reader.optional("contextPushThresholds")) {
    info.contextPushThresholds = field->asArray<double>(readNumber);
  }
  info.randomUpsellChance = reader.optionalDouble("randomUpsellChance");
  info.supportedDuration = reader.optionalInt64("supportedDuration");
  info.useInstantContext = reader.optionalBool("useInstantContext");
  if (auto field = reader.optional("timingConfiguration")) {
    info.timingConfiguration = decodeTimingConfiguration(*field);
  }
  if (!reader.ok()) return std::nullopt;
  info.isControl = *isControl;
  return info;
}

std::optional<ServerAssignmentInfo> decodeAssignment(const JsonReader& reader) {
  if (!reader.expectObject()) return std::nullopt;
  auto assignment = reader.requiredString("assignment");
  auto isDefault = reader.requiredBool("isDefault");
  if (!assignment || !isDefault) return std::nullopt;
  return ServerAssignmentInfo{std::move(*assignment), *isDefault};
}

std::optional<ServerABTestInfo> decodeABTestInfo(const JsonReader& reader) {
  if (!reader.expectObject()) return std::nullopt;
  ServerABTestInfo info;
  if (auto field = reader.optional("assignmentsByFlow")) {
    info.assignmentsByFlow = field->asMap<ServerAssignmentInfo>(decodeAssignment);
  }
  info.cohort = reader.optionalString("cohort");
  info.testName = reader.optionalString("testName");
  if (!reader.ok()) return std::nullopt;
  return info;
}

std::optional<ServerUpdatePayload> decodeUpdate(const JsonReader& reader) {
  if (!reader.expectObject()) return std::nullopt;
  ServerUpdatePayload update;
  auto version = reader.requiredInt64("version");
  update.generationId = reader.optionalString("generationId");
  std::optional<std::map<std::string, ServerModelInfo>> flows;
  if (auto field = reader.required("modelInfoPerFlow")) {
    flows = field->asMap<ServerModelInfo>(decodeModelInfo);
  }
  if (auto field = reader.optional("configuration")) {
    update.configuration = decodeServerConfiguration(*field);
  }
  update.assignmentId = reader.optionalString("assignmentId");
  if (auto field = reader.optional("abTestInfo")) update.abTestInfo = decodeABTestInfo(*field);
  if (!reader.ok()) return std::nullopt;
  update.version = *version;
  update.modelInfoPerFlow = std::move(*flows);
  return update;
}

}  // namespace

std::optional<ServerPayload> decodeServerPayload(std::string_view body, std::string* error) {
  auto json = parseJson(body, error);
  if (!json) return std::nullopt;
  JsonReader reader(*json);
  ServerPayload payload;
  if (reader.expectObject()) {
    if (auto field = reader.optional("geoIpData"); field && field->expectObject()) {
      payload.geoIpData = ServerGeoIPPayload{field->value()};
    }
    if (auto field = reader.optional("updateData")) payload.updateData = decodeUpdate(*field);
  }
  if (!reader.ok()) {
    if (error) *error = reader.error();
    return std::nullopt;
  }
  return payload;
}

}  // namespace orvane
