// File: Common.cc
// Description conversion and the input/output plumbing shared by the numeric models.
#include <algorithm>
#include <cmath>
#include <limits>
#include <set>

#include "Internal.h"

namespace orvane::coreml::detail {

namespace {

Result<FeatureDescription> convertFeature(const schema::FeatureDescription& in, const char* role) {
  FeatureDescription out;
  out.name = in.name();
  out.shortDescription = in.shortdescription();
  if (out.name.empty()) return Error(std::string("an ") + role + " feature has no name");
  const auto& type = in.type();
  out.isOptional = type.isoptional();
  using T = schema::FeatureType;
  switch (type.Type_case()) {
    case T::kInt64Type:
      out.type = FeatureType::kInt64;
      break;
    case T::kDoubleType:
      out.type = FeatureType::kDouble;
      break;
    case T::kStringType:
      out.type = FeatureType::kString;
      break;
    case T::kImageType:
      out.type = FeatureType::kImage;
      break;
    case T::kMultiArrayType: {
      out.type = FeatureType::kMultiArray;
      const auto& array = type.multiarraytype();
      out.shape.assign(array.shape().begin(), array.shape().end());
      out.hasFlexibleShape =
          array.ShapeFlexibility_case() != schema::ArrayFeatureType::SHAPEFLEXIBILITY_NOT_SET;
      switch (array.datatype()) {
        case schema::ArrayFeatureType::FLOAT32:
          out.arrayDataType = ArrayDataType::kFloat32;
          break;
        case schema::ArrayFeatureType::DOUBLE:
          out.arrayDataType = ArrayDataType::kDouble;
          break;
        case schema::ArrayFeatureType::INT32:
          out.arrayDataType = ArrayDataType::kInt32;
          break;
        case schema::ArrayFeatureType::INT8:
          out.arrayDataType = ArrayDataType::kInt8;
          break;
        case schema::ArrayFeatureType::FLOAT16:
          out.arrayDataType = ArrayDataType::kFloat16;
          break;
        default:
          out.arrayDataType = ArrayDataType::kInvalid;
          break;
      }
      for (int64_t d : out.shape) {
        if (d < 0) return Error("feature '" + out.name + "' has a negative array dimension");
      }
      break;
    }
    case T::kDictionaryType:
      out.type = FeatureType::kDictionary;
      switch (type.dictionarytype().KeyType_case()) {
        case schema::DictionaryFeatureType::kInt64KeyType:
          out.dictionaryKeyType = DictionaryKeyType::kInt64;
          break;
        case schema::DictionaryFeatureType::kStringKeyType:
          out.dictionaryKeyType = DictionaryKeyType::kString;
          break;
        default:
          return Error("dictionary feature '" + out.name + "' has no key type");
      }
      break;
    case T::kSequenceType:
      out.type = FeatureType::kSequence;
      out.sequenceElementType =
          type.sequencetype().Type_case() == schema::SequenceFeatureType::kStringType
              ? FeatureType::kString
              : FeatureType::kInt64;
      break;
    case T::kStateType:
      out.type = FeatureType::kState;
      break;
    case T::TYPE_NOT_SET:
      return Error(std::string(role) + " feature '" + out.name + "' has no type");
  }
  return out;
}

Status convertFeatures(const google::protobuf::RepeatedPtrField<schema::FeatureDescription>& in,
                       const char* role, std::vector<FeatureDescription>& out) {
  std::set<std::string> seen;
  out.reserve(static_cast<size_t>(in.size()));
  for (const auto& feature : in) {
    auto converted = convertFeature(feature, role);
    if (!converted) return converted.error();
    if (!seen.insert(converted->name).second) {
      return Error(std::string("two ") + role + " features are named '" + converted->name + "'");
    }
    out.push_back(std::move(converted).value());
  }
  return {};
}

}  // namespace

uint32_t SlotTable::slotFor(const std::string& name) {
  auto [it, inserted] = slots_.try_emplace(name, static_cast<uint32_t>(slots_.size()));
  return it->second;
}

std::optional<uint32_t> SlotTable::find(const std::string& name) const {
  auto it = slots_.find(name);
  if (it == slots_.end()) return std::nullopt;
  return it->second;
}

Result<ModelDescription> convertDescription(const schema::ModelDescription& in) {
  ModelDescription out;
  if (auto s = convertFeatures(in.input(), "input", out.inputs); !s) return s.error();
  if (auto s = convertFeatures(in.output(), "output", out.outputs); !s) return s.error();
  out.predictedFeatureName = in.predictedfeaturename();
  out.predictedProbabilitiesName = in.predictedprobabilitiesname();
  const auto& meta = in.metadata();
  out.metadata.shortDescription = meta.shortdescription();
  out.metadata.versionString = meta.versionstring();
  out.metadata.author = meta.author();
  out.metadata.license = meta.license();
  for (const auto& [key, value] : meta.userdefined()) out.metadata.userDefined[key] = value;
  return out;
}

std::optional<uint64_t> elementCount(const std::vector<int64_t>& shape) {
  if (shape.empty()) return std::nullopt;
  uint64_t count = 1;
  for (int64_t d : shape) {
    if (d < 0) return std::nullopt;
    if (d != 0 && count > kMaxArrayElements / static_cast<uint64_t>(d)) return std::nullopt;
    count *= static_cast<uint64_t>(d);
  }
  if (count > kMaxArrayElements) return std::nullopt;
  return count;
}

Result<InputVector> InputVector::make(const ModelDescription& description, SlotTable& slots,
                                      const char* modelKind) {
  if (description.inputs.empty()) return Error(std::string(modelKind) + " has no inputs");
  InputVector vector;
  size_t width = 0;
  bool fixed = true;
  for (const auto& input : description.inputs) {
    Part part{slots.slotFor(input.name), input.name, false, 1};
    switch (input.type) {
      case FeatureType::kInt64:
      case FeatureType::kDouble:
        break;
      case FeatureType::kMultiArray:
        part.isArray = true;
        part.width = input.hasFlexibleShape ? std::nullopt : elementCount(input.shape);
        break;
      default:
        return Error(std::string(modelKind) + " input '" + input.name + "' is a " +
                     featureTypeName(input.type) + "; only numbers and multi-arrays are read");
    }
    if (part.width) {
      width += static_cast<size_t>(*part.width);
      if (width > kMaxArrayElements) return Error("the inputs are too wide");
    } else {
      fixed = false;
    }
    vector.parts_.push_back(std::move(part));
  }
  if (fixed) vector.staticWidth_ = width;
  return vector;
}

Status InputVector::gather(const Slots& slots, std::vector<double>& out) const {
  constexpr double kMissing = std::numeric_limits<double>::quiet_NaN();
  out.clear();
  if (staticWidth_) out.reserve(*staticWidth_);
  for (const auto& part : parts_) {
    const FeatureValue& value = slots[part.slot];
    if (auto d = value.doubleValue()) {
      out.push_back(*d);
    } else if (auto i = value.int64Value()) {
      out.push_back(static_cast<double>(*i));
    } else if (const MultiArray* array = value.multiArrayValue()) {
      if (part.width && array->values.size() != *part.width) {
        return Error("input '" + part.name + "' has " + std::to_string(array->values.size()) +
                     " values where " + std::to_string(*part.width) + " are declared");
      }
      out.insert(out.end(), array->values.begin(), array->values.end());
    } else if (value.isUndefined()) {
      if (!part.width) {
        return Error("input '" + part.name + "' is missing and its size is not fixed");
      }
      out.insert(out.end(), static_cast<size_t>(*part.width), kMissing);
    } else {
      return Error("input '" + part.name + "' holds a " + featureTypeName(value.type()) +
                   " where a number or multi-array is needed");
    }
    if (out.size() > kMaxArrayElements) return Error("the inputs are too wide");
  }
  return {};
}

Result<ClassifierOutput> ClassifierOutput::makeFrom(bool isString, std::vector<std::string> strings,
                                                    std::vector<int64_t> ints,
                                                    const ModelDescription& description,
                                                    BuildContext& context) {
  SlotTable& slots = context.slots;
  ClassifierOutput out;
  out.isString_ = isString;
  out.stringLabels_ = std::move(strings);
  out.int64Labels_ = std::move(ints);
  if (out.classCount() < 2) return Error("a classifier needs at least two class labels");
  if (out.classCount() > kMaxDimensions) return Error("the classifier has too many class labels");
  if (isString) {
    std::set<std::string> unique(out.stringLabels_.begin(), out.stringLabels_.end());
    if (unique.size() != out.stringLabels_.size()) return Error("class labels repeat");
  } else {
    std::set<int64_t> unique(out.int64Labels_.begin(), out.int64Labels_.end());
    if (unique.size() != out.int64Labels_.size()) return Error("class labels repeat");
  }

  const std::string& labelName = description.predictedFeatureName;
  if (labelName.empty()) return Error("the classifier does not name its predicted feature");
  const FeatureType labelType = isString ? FeatureType::kString : FeatureType::kInt64;
  if (const auto* declared = description.output(labelName);
      declared && declared->type != labelType) {
    return Error("output '" + labelName + "' is declared as " + featureTypeName(declared->type) +
                 " but the class labels are " + featureTypeName(labelType));
  }
  out.labelSlot_ = slots.slotFor(labelName);

  std::string probabilityName = description.predictedProbabilitiesName;
  if (probabilityName.empty()) {
    // Older files leave the name out; their one dictionary output is the probabilities.
    for (const auto& output : description.outputs) {
      if (output.type == FeatureType::kDictionary) probabilityName = output.name;
    }
  }
  std::vector<std::string> produced{labelName};
  if (!probabilityName.empty()) {
    if (probabilityName == labelName) return Error("label and probabilities share one name");
    if (const auto* declared = description.output(probabilityName);
        declared && declared->type != FeatureType::kDictionary) {
      return Error("probability output '" + probabilityName + "' is declared as " +
                   featureTypeName(declared->type) + ", not as a dictionary");
    }
    out.probabilitySlot_ = slots.slotFor(probabilityName);
    produced.push_back(probabilityName);
  }
  if (auto s = checkOutputsProduced(description, produced, "the classifier"); !s) {
    return s.error();
  }
  const ClassLabels labels{out.stringLabels_, out.int64Labels_};
  context.classLabelsBySlot[out.labelSlot_] = labels;
  if (out.probabilitySlot_) context.classLabelsBySlot[*out.probabilitySlot_] = labels;
  return out;
}

void ClassifierOutput::write(const std::vector<double>& probabilities, Slots& slots) const {
  size_t best = 0;
  for (size_t i = 1; i < probabilities.size(); ++i) {
    if (probabilities[i] > probabilities[best]) best = i;
  }
  if (isString_) {
    slots[labelSlot_] = FeatureValue::fromString(stringLabels_[best]);
    if (probabilitySlot_) {
      FeatureValue::StringDictionary dict;
      for (size_t i = 0; i < stringLabels_.size(); ++i) dict[stringLabels_[i]] = probabilities[i];
      slots[*probabilitySlot_] = FeatureValue::fromDictionary(std::move(dict));
    }
  } else {
    slots[labelSlot_] = FeatureValue::fromInt64(int64Labels_[best]);
    if (probabilitySlot_) {
      FeatureValue::Int64Dictionary dict;
      for (size_t i = 0; i < int64Labels_.size(); ++i) dict[int64Labels_[i]] = probabilities[i];
      slots[*probabilitySlot_] = FeatureValue::fromDictionary(std::move(dict));
    }
  }
}

Result<RegressorOutput> RegressorOutput::make(const ModelDescription& description, SlotTable& slots,
                                              size_t width) {
  std::string name = description.predictedFeatureName;
  if (name.empty()) {
    if (description.outputs.size() != 1) {
      return Error("the regressor does not name its predicted feature");
    }
    name = description.outputs.front().name;
  }
  RegressorOutput out;
  const auto* declared = description.output(name);
  if (declared && declared->type == FeatureType::kMultiArray) {
    out.asArray_ = true;
  } else if (declared && declared->type != FeatureType::kDouble) {
    return Error("regressor output '" + name + "' is declared as " +
                 featureTypeName(declared->type) + "; it must be a double or a multi-array");
  } else if (width != 1) {
    out.asArray_ = true;
  }
  if (!out.asArray_ && width != 1) {
    return Error("regressor output '" + name + "' is a double but the model predicts " +
                 std::to_string(width) + " values");
  }
  out.slot_ = slots.slotFor(name);
  if (auto s = checkOutputsProduced(description, {name}, "the regressor"); !s) return s.error();
  return out;
}

void RegressorOutput::write(std::vector<double> values, Slots& slots) const {
  if (asArray_) {
    slots[slot_] = FeatureValue::fromDoubles(std::move(values));
  } else {
    slots[slot_] = FeatureValue::fromDouble(values.front());
  }
}

Status checkOutputsProduced(const ModelDescription& description,
                            const std::vector<std::string>& produced, const char* modelKind) {
  for (const auto& output : description.outputs) {
    if (std::find(produced.begin(), produced.end(), output.name) == produced.end()) {
      return Error("output '" + output.name + "' is declared but " + modelKind +
                   " does not produce it");
    }
  }
  return {};
}

}  // namespace orvane::coreml::detail
