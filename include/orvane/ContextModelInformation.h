// File: ContextModelInformation.h
// What the SDK currently uses to decide for one flow, as a host may inspect it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "orvane/Export.h"

namespace orvane {

struct ORVANE_API ContextModelInformation {
  // A control flow decides by chance alone; otherwise a model judges the moment.
  bool isControl = true;
  // The model version, or the control assignment's version; may be empty for a control.
  std::string modelVersion;
  // Seconds of motion the model was trained for, and whether it decides without waiting.
  int64_t supportedDuration = 0;
  bool useInstantContext = false;
  // Probability with which a moment judged bad still becomes an upsell.
  double randomUpsellChance = 1.0;
  // The fixed threshold of a model flow; none for a control flow.
  std::optional<double> upsellThreshold;

  bool operator==(const ContextModelInformation&) const = default;
};

}  // namespace orvane
