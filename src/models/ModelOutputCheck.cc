#include "models/ModelOutputCheck.h"

#include <algorithm>

namespace orvane {

std::optional<std::string> whyModelCannotDecide(const coreml::ModelDescription& d) {
  const bool hasStringLabels = !d.stringClassLabels.empty();
  if (!hasStringLabels && d.int64ClassLabels.empty()) {
    return "the model is not a classifier: it has no class probabilities";
  }
  // Files that leave the name out have their probabilities in their one dictionary output.
  std::string probabilities = d.predictedProbabilitiesName;
  if (probabilities.empty()) {
    for (const auto& output : d.outputs) {
      if (output.type == coreml::FeatureType::kDictionary) probabilities = output.name;
    }
  }
  if (probabilities.empty()) return "the model gives a class label but no class probabilities";
  if (probabilities != kProbabilityOutputName) {
    return "the model's class probabilities are in the output '" + probabilities + "', not in '" +
           kProbabilityOutputName + "'";
  }
  const coreml::FeatureDescription* output = d.output(kProbabilityOutputName);
  if (output == nullptr) {
    return "the model does not declare its output '" + std::string(kProbabilityOutputName) + "'";
  }
  if (!hasStringLabels || output->dictionaryKeyType != coreml::DictionaryKeyType::kString) {
    return "the model's class labels are integers; the decision reads the string label \"" +
           std::string(kPositiveClassLabel) + "\"";
  }
  if (std::find(d.stringClassLabels.begin(), d.stringClassLabels.end(), kPositiveClassLabel) ==
      d.stringClassLabels.end()) {
    return "the model's class labels do not include \"" + std::string(kPositiveClassLabel) + "\"";
  }
  return std::nullopt;
}

}  // namespace orvane
