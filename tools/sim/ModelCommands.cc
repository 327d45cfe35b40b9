#include "ModelCommands.h"

#include <filesystem>
#include <fstream>
#include <iostream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "coreml/Model.h"

namespace orvane::sim {
namespace {

using coreml::FeatureType;
using coreml::FeatureValue;

struct ModelOptions {
  std::string modelPath;
  std::string featuresPath;
};

// A model file (.mlmodel) or a compiled folder (.mlmodelc).
coreml::Result<coreml::Model> openModel(const std::string& path) {
  if (std::filesystem::is_directory(path)) return coreml::Model::load(path);
  return coreml::Model::loadModelFile(path);
}

// A JSON value as the input the model declares under that name.
std::optional<FeatureValue> toFeature(const nlohmann::json& value,
                                      const coreml::FeatureDescription* declared) {
  const FeatureType type = declared ? declared->type : FeatureType::kInvalid;
  if (value.is_null())
    return FeatureValue::undefined(type == FeatureType::kInvalid ? FeatureType::kDouble : type);
  if (value.is_string()) return FeatureValue::fromString(value.get<std::string>());
  if (value.is_array()) {
    std::vector<double> values;
    for (const auto& v : value) {
      if (!v.is_number()) return std::nullopt;
      values.push_back(v.get<double>());
    }
    return FeatureValue::fromDoubles(std::move(values));
  }
  if (value.is_number_integer() && type == FeatureType::kInt64) {
    return FeatureValue::fromInt64(value.get<int64_t>());
  }
  if (value.is_number() || value.is_boolean()) return FeatureValue::fromDouble(value.get<double>());
  return std::nullopt;
}

nlohmann::json toJson(const FeatureValue& value) {
  if (value.isUndefined()) return nullptr;
  if (auto v = value.int64Value()) return *v;
  if (auto v = value.doubleValue()) return *v;
  if (const auto* v = value.stringValue()) return *v;
  if (const auto* v = value.multiArrayValue()) return {{"shape", v->shape}, {"values", v->values}};
  if (const auto* v = value.int64DictionaryValue()) {
    nlohmann::json out = nlohmann::json::object();
    for (const auto& [key, p] : *v) out[std::to_string(key)] = p;
    return out;
  }
  if (const auto* v = value.stringDictionaryValue()) return *v;
  return nullptr;
}

nlohmann::json describe(const coreml::FeatureDescription& f) {
  nlohmann::json out = {{"name", f.name}, {"type", coreml::featureTypeName(f.type)}};
  if (f.isOptional) out["optional"] = true;
  if (!f.shape.empty()) out["shape"] = f.shape;
  if (!f.shortDescription.empty()) out["description"] = f.shortDescription;
  return out;
}

int fail(const std::string& command, const std::string& message) {
  std::cerr << command << ": " << message << "\n";
  return 1;
}

}  // namespace

void addModelCommands(CLI::App& app, int& exitCode) {
  static ModelOptions options;

  auto* info = app.add_subcommand("model-info", "print a model's description and metadata");
  info->add_option("--model", options.modelPath, "a .mlmodel file or a compiled .mlmodelc folder")
      ->required();
  info->callback([&exitCode] {
    auto model = openModel(options.modelPath);
    if (!model) {
      exitCode = fail("model-info", model.error().message());
      return;
    }
    const auto& d = model->description();
    nlohmann::json out;
    out["inputs"] = nlohmann::json::array();
    for (const auto& f : d.inputs) out["inputs"].push_back(describe(f));
    out["outputs"] = nlohmann::json::array();
    for (const auto& f : d.outputs) out["outputs"].push_back(describe(f));
    out["predictedFeatureName"] = d.predictedFeatureName;
    out["predictedProbabilitiesName"] = d.predictedProbabilitiesName;
    out["metadata"] = {{"versionString", d.metadata.versionString},
                       {"shortDescription", d.metadata.shortDescription},
                       {"author", d.metadata.author},
                       {"license", d.metadata.license},
                       {"userDefined", d.metadata.userDefined}};
    std::cout << out.dump(2) << "\n";
  });

  auto* predict = app.add_subcommand("predict", "run a model on input values from a JSON file");
  predict
      ->add_option("--model", options.modelPath, "a .mlmodel file or a compiled .mlmodelc folder")
      ->required();
  predict->add_option("--features", options.featuresPath, "JSON object {\"name\": value, ...}")
      ->required();
  predict->callback([&exitCode] {
    auto model = openModel(options.modelPath);
    if (!model) {
      exitCode = fail("predict", model.error().message());
      return;
    }
    std::ifstream in(options.featuresPath);
    std::stringstream text;
    text << in.rdbuf();
    const auto json = nlohmann::json::parse(text.str(), nullptr, false);
    if (!in || json.is_discarded() || !json.is_object()) {
      exitCode = fail("predict", "cannot read a JSON object from " + options.featuresPath);
      return;
    }
    coreml::DictionaryFeatureProvider inputs;
    for (const auto& [name, value] : json.items()) {
      auto feature = toFeature(value, model->description().input(name));
      if (!feature) {
        exitCode = fail("predict", "input \"" + name + "\" has an unusable value " + value.dump());
        return;
      }
      inputs.set(name, *feature);
    }
    auto outputs = model->predict(inputs);
    if (!outputs) {
      exitCode = fail("predict", outputs.error().message());
      return;
    }
    nlohmann::json out = nlohmann::json::object();
    for (const auto& [name, value] : *outputs) out[name] = toJson(value);
    std::cout << out.dump(2) << "\n";
  });
}

}  // namespace orvane::sim
