#include "models/SaveableCustomModelInfo.h"

#include <cmath>

#include <nlohmann/json.hpp>

#include "util/JsonReader.h"

namespace orvane {
namespace {

bool allFinite(const SaveableCustomModelInfo& info) {
  auto finite = [](const std::optional<double>& v) { return !v || std::isfinite(*v); };
  auto finiteRow = [](const std::vector<double>& row) {
    for (double v : row) {
      if (!std::isfinite(v)) return false;
    }
    return true;
  };
  if (!finite(info.upsellThreshold) || !finite(info.randomUpsellChance)) return false;
  if (info.contextPushThresholds && !finiteRow(*info.contextPushThresholds)) return false;
  if (info.hourlyUpsellThresholds) {
    for (const auto& row : *info.hourlyUpsellThresholds) {
      if (!finiteRow(row)) return false;
    }
  }
  return true;
}

std::optional<double> readDouble(const JsonReader& r) { return r.asDouble(); }

std::optional<std::vector<double>> readRow(const JsonReader& r) {
  return r.asArray<double>(readDouble);
}

}  // namespace

Result<Bytes> encodeSaveableCustomModelInfo(const SaveableCustomModelInfo& info) {
  if (!allFinite(info)) {
    return PlatformError{kEncodingErrorDomain, 0,
                         "SaveableCustomModelInfo: a threshold or chance is not a finite number"};
  }
  nlohmann::json json = nlohmann::json::object();
  json["isControl"] = info.isControl;
  if (info.modelVersion) json["modelVersion"] = *info.modelVersion;
  if (info.upsellThreshold) json["upsellThreshold"] = *info.upsellThreshold;
  if (info.hourlyUpsellThresholds) json["hourlyUpsellThresholds"] = *info.hourlyUpsellThresholds;
  if (info.contextPushThresholds) json["contextPushThresholds"] = *info.contextPushThresholds;
  if (info.randomUpsellChance) json["randomUpsellChance"] = *info.randomUpsellChance;
  if (info.supportedDuration) json["supportedDuration"] = *info.supportedDuration;
  if (info.useInstantContext) json["useInstantContext"] = *info.useInstantContext;
  const std::string text = json.dump();
  return Bytes(text.begin(), text.end());
}

Result<SaveableCustomModelInfo> decodeSaveableCustomModelInfo(const Bytes& data) {
  std::string parseError;
  auto json = parseJson(std::string_view(reinterpret_cast<const char*>(data.data()), data.size()),
                        &parseError);
  if (!json) return PlatformError{kDecodingErrorDomain, 0, parseError};
  JsonReader root(*json);
  SaveableCustomModelInfo info;
  if (root.expectObject()) {
    info.isControl = root.requiredBool("isControl").value_or(false);
    info.modelVersion = root.optionalString("modelVersion");
    info.upsellThreshold = root.optionalDouble("upsellThreshold");
    if (auto r = root.optional("hourlyUpsellThresholds")) {
      info.hourlyUpsellThresholds = r->asArray<std::vector<double>>(readRow);
    }
    if (auto r = root.optional("contextPushThresholds")) info.contextPushThresholds = readRow(*r);
    info.randomUpsellChance = root.optionalDouble("randomUpsellChance");
    info.supportedDuration = root.optionalInt64("supportedDuration");
    info.useInstantContext = root.optionalBool("useInstantContext");
  }
  if (!root.ok()) return PlatformError{kDecodingErrorDomain, 0, root.error()};
  return info;
}

}  // namespace orvane
