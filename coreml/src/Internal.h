// File: Internal.h
// The pieces shared by the model builders and evaluators. Not part of the public interface.
//
// Building resolves every feature name to a slot once, so that a prediction works on a flat
// vector of values instead of name lookups. Within one model (pipelines included) a name means
// the same slot everywhere: a stage reads what earlier stages wrote under that name.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "coreml/Model.h"
#include "coreml/proto/coreml_model.pb.h"
#include "orvane/coreml/FeatureValue.h"
#include "orvane/coreml/ModelDescription.h"
#include "orvane/coreml/Result.h"

namespace orvane::coreml::detail {

using Slots = std::vector<FeatureValue>;

class Evaluator {
 public:
  virtual ~Evaluator() = default;
  // Reads its inputs from `slots` and writes its outputs there.
  virtual Status evaluate(Slots& slots) const = 0;
};

using EvaluatorPtr = std::unique_ptr<const Evaluator>;

class SlotTable {
 public:
  uint32_t slotFor(const std::string& name);
  std::optional<uint32_t> find(const std::string& name) const;
  size_t size() const { return slots_.size(); }

 private:
  std::unordered_map<std::string, uint32_t> slots_;
};

struct ClassLabels {
  std::vector<std::string> strings;
  std::vector<int64_t> ints;
};

// State shared by the builders of one model and its nested stages.
struct BuildContext {
  SlotTable slots;
  int depth = 0;
  size_t totalTreeNodes = 0;
  // The labels of each classifier, under the slots of its label and probability outputs, so
  // that a pipeline can tell what its outputs are keyed by.
  std::unordered_map<uint32_t, ClassLabels> classLabelsBySlot;
};

inline constexpr int kMaxPipelineDepth = 16;
// Bounds on sizes that a file could otherwise make absurd: dimensions, labels, array widths.
inline constexpr uint64_t kMaxDimensions = 1'000'000;
inline constexpr uint64_t kMaxArrayElements = 50'000'000;

Result<ModelDescription> convertDescription(const schema::ModelDescription& description);

// The name of the model kind of `model` ("treeEnsembleClassifier", ...).
std::string kindName(const schema::Model& model);

Result<EvaluatorPtr> buildEvaluator(const schema::Model& model, BuildContext& context);

Result<EvaluatorPtr> buildTreeEnsembleClassifier(const schema::Model& model,
                                                 const ModelDescription& description,
                                                 BuildContext& context);
Result<EvaluatorPtr> buildTreeEnsembleRegressor(const schema::Model& model,
                                                const ModelDescription& description,
                                                BuildContext& context);
Result<EvaluatorPtr> buildGlmClassifier(const schema::Model& model,
                                        const ModelDescription& description, BuildContext& context);
Result<EvaluatorPtr> buildGlmRegressor(const schema::Model& model,
                                       const ModelDescription& description, BuildContext& context);
Result<EvaluatorPtr> buildTransform(const schema::Model& model, const ModelDescription& description,
                                    BuildContext& context);

// ---- Helpers for numeric models ----------------------------------------------------------

// The number of elements a multi-array of this shape holds; none when the shape is empty,
// negative or absurdly large.
std::optional<uint64_t> elementCount(const std::vector<int64_t>& shape);

// Flattens a model's inputs, in description order, into one vector of doubles: scalars give
// one value, multi-arrays all of theirs; a missing (undefined) value gives NaN.
class InputVector {
 public:
  static Result<InputVector> make(const ModelDescription& description, SlotTable& slots,
                                  const char* modelKind);

  // The width when every input has a fixed size; none otherwise.
  std::optional<size_t> staticWidth() const { return staticWidth_; }
  Status gather(const Slots& slots, std::vector<double>& out) const;

 private:
  struct Part {
    uint32_t slot;
    std::string name;
    bool isArray;
    std::optional<uint64_t> width;
  };
  std::vector<Part> parts_;
  std::optional<size_t> staticWidth_;
};

// The class labels of a classifier and where its label and probabilities go.
class ClassifierOutput {
 public:
  template <typename LabelsMessage>
  static Result<ClassifierOutput> make(const LabelsMessage& message,
                                       const ModelDescription& description, BuildContext& context);

  size_t classCount() const { return isString_ ? stringLabels_.size() : int64Labels_.size(); }
  // Writes the most probable label (the first on ties) and the probability dictionary.
  void write(const std::vector<double>& probabilities, Slots& slots) const;

 private:
  static Result<ClassifierOutput> makeFrom(bool isString, std::vector<std::string> strings,
                                           std::vector<int64_t> ints,
                                           const ModelDescription& description,
                                           BuildContext& context);
  bool isString_ = false;
  std::vector<std::string> stringLabels_;
  std::vector<int64_t> int64Labels_;
  uint32_t labelSlot_ = 0;
  std::optional<uint32_t> probabilitySlot_;
};

template <typename LabelsMessage>
Result<ClassifierOutput> ClassifierOutput::make(const LabelsMessage& message,
                                                const ModelDescription& description,
                                                BuildContext& context) {
  if (message.has_stringclasslabels()) {
    const auto& v = message.stringclasslabels().vector();
    return makeFrom(true, std::vector<std::string>(v.begin(), v.end()), {}, description, context);
  }
  if (message.has_int64classlabels()) {
    const auto& v = message.int64classlabels().vector();
    return makeFrom(false, {}, std::vector<int64_t>(v.begin(), v.end()), description, context);
  }
  return Error("the classifier has no class labels");
}

// Where a regressor writes its prediction: a double for one value, else a multi-array.
class RegressorOutput {
 public:
  static Result<RegressorOutput> make(const ModelDescription& description, SlotTable& slots,
                                      size_t width);
  void write(std::vector<double> values, Slots& slots) const;

 private:
  uint32_t slot_ = 0;
  bool asArray_ = false;
};

// Checks that every output the description declares is among `produced`.
Status checkOutputsProduced(const ModelDescription& description,
                            const std::vector<std::string>& produced, const char* modelKind);

}  // namespace orvane::coreml::detail
