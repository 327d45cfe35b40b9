// File: SaveableCustomModelInfo.h
// The per-flow record the model store keeps in the defaults: a control assignment or the
// version and decision parameters of a downloaded model.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "orvane/PlistValue.h"
#include "util/Result.h"

namespace orvane {

struct SaveableCustomModelInfo {
  bool isControl = false;
  std::optional<std::string> modelVersion;
  std::optional<double> upsellThreshold;
  std::optional<std::vector<std::vector<double>>> hourlyUpsellThresholds;
  std::optional<std::vector<double>> contextPushThresholds;
  std::optional<double> randomUpsellChance;
  std::optional<int64_t> supportedDuration;
  std::optional<bool> useInstantContext;

  bool operator==(const SaveableCustomModelInfo&) const = default;
};

// JSON with camel-case keys; absent fields are left out. Fails with an EncodingError for a
// number JSON cannot hold (NaN, infinity).
Result<Bytes> encodeSaveableCustomModelInfo(const SaveableCustomModelInfo& info);
// Accepts camel-case or snake-case keys. Fails with a DecodingError naming the first problem.
Result<SaveableCustomModelInfo> decodeSaveableCustomModelInfo(const Bytes& json);

}  // namespace orvane
