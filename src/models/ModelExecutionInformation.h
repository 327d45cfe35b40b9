// File: ModelExecutionInformation.h
// What the decision for one flow needs from the model store: the flow's kind (control or
// model), its loaded model with the metadata the model carries, thresholds and the random
// chance of a forced upsell.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "models/FeaturePlan.h"
#include "orvane/platform/ModelRuntime.h"
#include "util/Result.h"

namespace orvane {

struct ModelThresholds {
  double upsellThreshold = 0;
  // 7 rows (row 0 = Sunday) of 24 hours; only a table of exactly that shape gets here.
  std::optional<std::vector<std::vector<double>>> hourlyUpsellThresholds;
  // Carried for the request side; the decision itself does not read them.
  std::optional<std::vector<double>> contextPushThresholds;
};

// The JSON a model carries in its description metadata.
struct CoreMLModelMetadata {
  int64_t supportedDuration = 0;
  bool useInstantContext = false;
  // Per input signal name, the ordered category values of its one-hot columns.
  std::optional<std::map<std::string, std::vector<std::string>>> mappings;
};

// Fails with a DecodingError naming the first problem.
Result<CoreMLModelMetadata> decodeCoreMLModelMetadata(std::string_view json);

// A plain instance means a control flow: only the random chance decides.
class BaseModelExecutionInformation {
 public:
  explicit BaseModelExecutionInformation(double randomUpsellChance)
      : randomUpsellChance_(randomUpsellChance) {}
  virtual ~BaseModelExecutionInformation() = default;

  double randomUpsellChance() const { return randomUpsellChance_; }

 private:
  double randomUpsellChance_;
};

class CoreMLModelExecutionInformation : public BaseModelExecutionInformation {
 public:
  CoreMLModelExecutionInformation(double randomUpsellChance, ModelThresholds modelThresholds,
                                  std::shared_ptr<const LoadedModel> coreMLModel,
                                  CoreMLModelMetadata coreMLModelMetadata)
      : BaseModelExecutionInformation(randomUpsellChance),
        modelThresholds_(std::move(modelThresholds)),
        coreMLModel_(std::move(coreMLModel)),
        coreMLModelMetadata_(std::move(coreMLModelMetadata)) {
    if (coreMLModel_) featurePlan_ = std::make_shared<FeaturePlan>(coreMLModel_->description());
  }

  const ModelThresholds& modelThresholds() const { return modelThresholds_; }
  const std::shared_ptr<const LoadedModel>& coreMLModel() const { return coreMLModel_; }
  const CoreMLModelMetadata& coreMLModelMetadata() const { return coreMLModelMetadata_; }
  // The model's input names parsed once; none without a model.
  const FeaturePlan* featurePlan() const { return featurePlan_.get(); }

 private:
  ModelThresholds modelThresholds_;
  std::shared_ptr<const LoadedModel> coreMLModel_;
  CoreMLModelMetadata coreMLModelMetadata_;
  std::shared_ptr<const FeaturePlan> featurePlan_;
};

// Handed in by the request side; a threshold function overrides the flow's thresholds when it
// returns a value.
struct ExtraModelExecutionInformation {
  std::function<std::optional<double>(const CoreMLModelExecutionInformation&)> thresholdFunction;
};

struct CustomModelInfo {
  bool isControl = true;
  int64_t supportedDuration = 0;
  bool useInstantContext = false;
  // None: the always-upsell control rule.
  std::shared_ptr<const BaseModelExecutionInformation> executionInformation;
  std::string modelVersion;
};

// A flow whose model ships inside the SDK's resources.
struct FlowInfo {
  std::string modelVersion;
  double upsellThreshold = 0.5;
  double randomUpsellChance = 0;
  std::optional<std::vector<std::vector<double>>> hourlyUpsellThresholds;
  std::optional<std::vector<double>> contextPushThresholds;
};

}  // namespace orvane
