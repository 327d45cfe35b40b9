// File: Model.h
// Loading, compiling and running models.
//
// A model file (NAME.mlmodel) is validated and "compiled" into a folder NAME.mlmodelc that
// holds the model bytes and a small manifest; loading reads such a folder. Loading builds an
// immutable evaluator: a loaded Model is cheap to copy (copies share it) and predict() may be
// called from any number of threads at once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "orvane/coreml/FeatureValue.h"
#include "orvane/coreml/ModelDescription.h"
#include "orvane/coreml/Result.h"

namespace orvane::coreml {

// Limits that keep a hostile or broken file from exhausting memory or time.
inline constexpr size_t kMaxModelFileBytes = 256u * 1024u * 1024u;
// What the parsed file may take in memory. A message of a hundred bytes can stand on two bytes
// of the file, so the file's size alone bounds nothing; real models take a few MiB.
inline constexpr size_t kMaxParsedModelBytes = 32u * 1024u * 1024u;
// A compiled folder's manifest is a few hundred bytes of JSON.
inline constexpr size_t kMaxManifestBytes = 64u * 1024u;
inline constexpr size_t kMaxTreeNodes = 10'000'000;
inline constexpr int kOldestSpecificationVersion = 1;
inline constexpr int kNewestSpecificationVersion = 9;

// The version of the compiled folder layout written by compileModel().
inline constexpr int kCompiledFormatVersion = 1;
inline constexpr const char* kCompiledModelFileName = "model.mlmodel";
inline constexpr const char* kCompiledManifestFileName = "manifest.json";

class ModelImpl;

class Model {
 public:
  // Loads a compiled folder written by compileModel().
  static Result<Model> load(const std::string& compiledFolderPath);
  // Loads an uncompiled model file (NAME.mlmodel) directly.
  static Result<Model> loadModelFile(const std::string& modelFilePath);
  // Parses and validates model bytes.
  static Result<Model> fromBytes(const void* data, size_t size);

  // Reads every declared input from `inputs` and returns every declared output by name.
  Result<std::map<std::string, FeatureValue>> predict(const FeatureProvider& inputs) const;

  const ModelDescription& description() const;
  const ModelMetadata& metadata() const { return description().metadata; }
  int specificationVersion() const;
  // A short name of the model kind, e.g. "treeEnsembleClassifier" or "pipelineClassifier".
  const std::string& kindName() const;

 private:
  explicit Model(std::shared_ptr<const ModelImpl> impl) : impl_(std::move(impl)) {}
  std::shared_ptr<const ModelImpl> impl_;
};

// Validates the model file and writes <destinationFolder>/<NAME>.mlmodelc, replacing what
// was there; NAME is the file name without its extension. Returns the folder's path.
Result<std::string> compileModel(const std::string& modelFilePath,
                                 const std::string& destinationFolder);

}  // namespace orvane::coreml
