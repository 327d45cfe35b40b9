// File: ModelRuntime.h
// Compiling, loading and running decision models. Values, inputs and descriptions use the
// portable runtime's types (coreml/), which a mobile bridge maps to the platform's own.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "orvane/Export.h"

#include "orvane/coreml/FeatureValue.h"
#include "orvane/coreml/ModelDescription.h"
#include "orvane/coreml/Result.h"

namespace orvane {

class ORVANE_API LoadedModel {
 public:
  virtual ~LoadedModel() = default;
  virtual const coreml::ModelDescription& description() const = 0;
  // May run on several threads at once.
  virtual coreml::Result<std::map<std::string, coreml::FeatureValue>> predict(
      const coreml::FeatureProvider& inputs) const = 0;
};

class ORVANE_API ModelRuntime {
 public:
  virtual ~ModelRuntime() = default;
  // Validates the model file and writes "<destinationFolder>/<NAME>.mlmodelc"; returns that
  // folder's path.
  virtual coreml::Result<std::string> compileModel(const std::string& modelFilePath,
                                                   const std::string& destinationFolder) = 0;
  virtual coreml::Result<std::shared_ptr<const LoadedModel>> loadCompiledModel(
      const std::string& compiledFolderPath) = 0;
};

// The portable runtime of coreml/.
ORVANE_API std::shared_ptr<ModelRuntime> makePortableModelRuntime();

}  // namespace orvane
