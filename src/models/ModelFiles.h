// File: ModelFiles.h
// Where compiled models live on disk. Under "<application support>/ctx_models":
//   <flow>/<version>.mlmodelc              the model a flow uses
//   __shared_models__/<version>.mlmodelc   the same files, hard-linked, so flows that use
//                                          one version share one copy on disk
// Built-in models are "<version>.mlmodelc" in the SDK's resource folder. Using a model
// touches it; clean-up keeps the three most recently touched entries of every folder.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "logging/ErrorReporter.h"
#include "orvane/platform/FileSystem.h"
#include "util/DateProvider.h"
#include "util/Result.h"

namespace orvane {

class ModelFiles {
 public:
  static constexpr const char* kModelsFolderName = "ctx_models";
  static constexpr const char* kSharedModelsFolder = "__shared_models__";
  static constexpr size_t kNumberOfModelVersionsToKeep = 3;
  // At least 100 MiB must be free before a download.
  static constexpr uint64_t kMinimumFreeBytes = 104857600;

  // `bundledModelsFolder` empty: no built-in models.
  ModelFiles(std::shared_ptr<FileSystem> fileSystem, std::shared_ptr<DateProvider> dateProvider,
             std::function<ErrorReporter&()> errorReporter, std::string bundledModelsFolder);

  // None when the platform has no application support folder.
  std::optional<std::string> modelsFolder() const { return modelsFolder_; }
  // The models folder, created on demand.
  std::optional<std::string> localStoragePathForModels();

  // Paths whether or not something is there. None without a models folder, and for flow
  // names and versions that are not a single plain file name: names come from the network
  // and must never reach outside the models folder.
  std::optional<std::string> otaModelURL(const std::string& flowName,
                                         const std::string& modelVersion) const;
  std::optional<std::string> sharedModelURL(const std::string& modelVersion) const;
  // Only when the built-in model exists.
  std::optional<std::string> bundledModelURL(const std::string& modelVersion) const;
  // Existing candidates, best first: the flow's own, the shared one, the built-in one.
  std::vector<std::string> allAvailableModelURLs(const std::string& flowName,
                                                 const std::string& modelVersion) const;

  // Moves a freshly compiled model into the flow's folder and links it into the shared
  // folder; returns the flow's path. Failures carry the domain "copyCoreMLModel".
  Result<std::string> copyCoreMLModel(const std::string& compiledModelPath,
                                      const std::string& flowName, const std::string& modelVersion);
  // Marks a model as just used and makes sure the flow has its own link. Errors are ignored:
  // at worst the model is cleaned up sooner.
  void touchModel(const std::string& path, const std::string& flowName,
                  const std::string& modelVersion);

  // True without a models folder, or when the free space cannot be read (reported).
  bool hasEnoughSpaceForModelUpdates();
  void cleanupOldModels();
  // Removes every downloaded model.
  void removeAllModels();
  // Reports what cannot be removed.
  void removeFlowFolder(const std::string& flowName);
  void removeSharedModel(const std::string& modelVersion);

 private:
  void linkModel(const std::string& path, const std::string& flowName,
                 const std::string& modelVersion);

  std::shared_ptr<FileSystem> fileSystem_;
  std::shared_ptr<DateProvider> dateProvider_;
  std::function<ErrorReporter&()> errorReporter_;
  std::string bundledModelsFolder_;
  std::optional<std::string> modelsFolder_;
};

// True for a name that is one path component: not empty, not "." or "..", without "/" or NUL.
bool isPlainFileName(const std::string& name);

}  // namespace orvane
