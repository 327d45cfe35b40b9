// File: ModelDescription.h
// What a model declares about itself: its inputs and outputs with their types, which outputs
// carry the prediction, and free-form metadata.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "orvane/Export.h"

#include "orvane/coreml/FeatureValue.h"

namespace orvane::coreml {

enum class ArrayDataType { kInvalid, kFloat32, kDouble, kInt32, kInt8, kFloat16 };
enum class DictionaryKeyType { kNone, kInt64, kString };

struct ORVANE_API FeatureDescription {
  std::string name;
  std::string shortDescription;
  FeatureType type = FeatureType::kInvalid;
  bool isOptional = false;
  // Multi-arrays: the declared (or default) shape and element type; whether other shapes are
  // allowed too.
  std::vector<int64_t> shape;
  ArrayDataType arrayDataType = ArrayDataType::kInvalid;
  bool hasFlexibleShape = false;
  // Dictionaries: the key type (values are always doubles).
  DictionaryKeyType dictionaryKeyType = DictionaryKeyType::kNone;
  // Sequences: the element type (int64 or string).
  FeatureType sequenceElementType = FeatureType::kInvalid;
};

struct ORVANE_API ModelMetadata {
  std::string shortDescription;
  std::string versionString;
  std::string author;
  std::string license;
  std::map<std::string, std::string> userDefined;
};

struct ORVANE_API ModelDescription {
  std::vector<FeatureDescription> inputs;
  std::vector<FeatureDescription> outputs;
  // Classifiers and regressors name their main output; classifiers may name the output that
  // holds the class probabilities.
  std::string predictedFeatureName;
  std::string predictedProbabilitiesName;
  // Classifiers: the class labels, in the model's order, which key the probability output (for
  // a pipeline, those of the stage that writes it). One list is filled, by the labels' type;
  // both are empty for a model that is no classifier.
  std::vector<std::string> stringClassLabels;
  std::vector<int64_t> int64ClassLabels;
  ModelMetadata metadata;

  const FeatureDescription* input(const std::string& name) const;
  const FeatureDescription* output(const std::string& name) const;
};

}  // namespace orvane::coreml
