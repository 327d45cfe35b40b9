// File: ModelOutputCheck.h
// Whether a model yields what the decision reads: the class probabilities under
// "classProbability", keyed by string labels, one of which is "1". A converter's defaults
// easily produce something else (integer labels, a regressor, a label without probabilities),
// and such a model would answer every context with "no probability", which counts as upsell.
#pragma once

#include <optional>
#include <string>

#include "orvane/coreml/ModelDescription.h"

namespace orvane {

inline constexpr const char* kProbabilityOutputName = "classProbability";
inline constexpr const char* kPositiveClassLabel = "1";

// None when the model can drive the decision; otherwise why it cannot, in a sentence.
std::optional<std::string> whyModelCannotDecide(const coreml::ModelDescription& description);

}  // namespace orvane
