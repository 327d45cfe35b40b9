#include "models/ModelFiles.h"

#include <algorithm>
#include <limits>

namespace orvane {
namespace {

constexpr const char* kCompiledExtension = ".mlmodelc";

std::string join(const std::string& folder, const std::string& name) {
  if (folder.empty() || folder.back() == '/') return folder + name;
  return folder + "/" + name;
}

PlatformError fileError(const char* domain, int64_t code, std::string description) {
  return PlatformError{domain, code, std::move(description)};
}

}  // namespace

bool isPlainFileName(const std::string& name) {
  if (name.empty() || name == "." || name == "..") return false;
  return name.find('/') == std::string::npos && name.find('\0') == std::string::npos;
}

ModelFiles::ModelFiles(std::shared_ptr<FileSystem> fileSystem,
                       std::shared_ptr<DateProvider> dateProvider,
                       std::function<ErrorReporter&()> errorReporter,
                       std::string bundledModelsFolder)
    : fileSystem_(std::move(fileSystem)),
      dateProvider_(std::move(dateProvider)),
      errorReporter_(std::move(errorReporter)),
      bundledModelsFolder_(std::move(bundledModelsFolder)) {
  if (fileSystem_) {
    const std::string support = fileSystem_->applicationSupportDirectory();
    if (!support.empty()) modelsFolder_ = join(support, kModelsFolderName);
  }
}

std::optional<std::string> ModelFiles::localStoragePathForModels() {
  if (!modelsFolder_) return std::nullopt;
  if (!fileSystem_->isDirectory(*modelsFolder_)) fileSystem_->createDirectories(*modelsFolder_);
  return modelsFolder_;
}

std::optional<std::string> ModelFiles::otaModelURL(const std::string& flowName,
                                                   const std::string& modelVersion) const {
  const std::string file = modelVersion + kCompiledExtension;
  if (!modelsFolder_ || !isPlainFileName(flowName) || !isPlainFileName(file)) return std::nullopt;
  return join(join(*modelsFolder_, flowName), file);
}

std::optional<std::string> ModelFiles::sharedModelURL(const std::string& modelVersion) const {
  const std::string file = modelVersion + kCompiledExtension;
  if (!modelsFolder_ || !isPlainFileName(file)) return std::nullopt;
  return join(join(*modelsFolder_, kSharedModelsFolder), file);
}

std::optional<std::string> ModelFiles::bundledModelURL(const std::string& modelVersion) const {
  const std::string file = modelVersion + kCompiledExtension;
  if (bundledModelsFolder_.empty() || !isPlainFileName(file)) return std::nullopt;
  const std::string path = join(bundledModelsFolder_, file);
  if (!fileSystem_->exists(path)) return std::nullopt;
  return path;
}

std::vector<std::string> ModelFiles::allAvailableModelURLs(const std::string& flowName,
                                                           const std::string& modelVersion) const {
  std::vector<std::string> urls;
  if (auto own = otaModelURL(flowName, modelVersion); own && fileSystem_->exists(*own)) {
    urls.push_back(*own);
  }
  if (auto shared = sharedModelURL(modelVersion); shared && fileSystem_->exists(*shared)) {
    urls.push_back(*shared);
  }
  if (auto bundled = bundledModelURL(modelVersion)) urls.push_back(*bundled);
  return urls;
}

Result<std::string> ModelFiles::copyCoreMLModel(const std::string& compiledModelPath,
                                                const std::string& flowName,
                                                const std::string& modelVersion) {
  const auto destination = otaModelURL(flowName, modelVersion);
  const auto shared = sharedModelURL(modelVersion);
  if (!destination || !shared || !localStoragePathForModels()) {
    return fileError("copyCoreMLModel", 1, "No destination for the compiled model.");
  }
  const std::string flowFolder = join(*modelsFolder_, flowName);
  if (!fileSystem_->createDirectories(flowFolder)) {
    return fileError(kPosixErrorDomain, 0, "Could not create the folder " + flowFolder);
  }
  if (fileSystem_->exists(*destination) && !fileSystem_->remove(*destination)) {
    return fileError(kPosixErrorDomain, 0, "Could not remove " + *destination);
  }
  if (!fileSystem_->copy(compiledModelPath, *destination)) {
    return fileError(kPosixErrorDomain, 0,
                     "Could not copy " + compiledModelPath + " to " + *destination);
  }
  fileSystem_->remove(compiledModelPath);

  const std::string sharedFolder = join(*modelsFolder_, kSharedModelsFolder);
  if (!fileSystem_->createDirectories(sharedFolder)) {
    return fileError(kPosixErrorDomain, 0, "Could not create the folder " + sharedFolder);
  }
  if (fileSystem_->exists(*shared) && !fileSystem_->remove(*shared)) {
    return fileError(kPosixErrorDomain, 0, "Could not remove " + *shared);
  }
  if (!fileSystem_->createHardLink(*destination, *shared)) {
    return fileError(kPosixErrorDomain, 0, "Could not link " + *destination + " to " + *shared);
  }
  return *destination;
}

void ModelFiles::touchModel(const std::string& path, const std::string& flowName,
                            const std::string& modelVersion) {
  fileSystem_->setModificationDate(path, dateProvider_->currentDate().secondsSince1970);
  linkModel(path, flowName, modelVersion);
}

void ModelFiles::linkModel(const std::string& path, const std::string& flowName,
                           const std::string& modelVersion) {
  if (path.find(kSharedModelsFolder) == std::string::npos) return;
  const auto own = otaModelURL(flowName, modelVersion);
  if (!own || fileSystem_->exists(*own)) return;
  fileSystem_->createDirectories(join(*modelsFolder_, flowName));
  fileSystem_->createHardLink(path, *own);
}

bool ModelFiles::hasEnoughSpaceForModelUpdates() {
  if (!modelsFolder_) return true;
  if (!fileSystem_->createDirectories(*modelsFolder_)) {
    errorReporter_().reportError(
        "Failed to get free space",
        fileError(kPosixErrorDomain, 0, "Could not create the folder " + *modelsFolder_));
    return true;
  }
  const auto capacity = fileSystem_->availableCapacity(*modelsFolder_);
  if (!capacity) {
    errorReporter_().reportError(
        "Failed to get free space",
        fileError(kPosixErrorDomain, 0, "The volume's free space cannot be read."));
    return true;
  }
  return *capacity >= kMinimumFreeBytes;
}

void ModelFiles::cleanupOldModels() {
  if (!modelsFolder_) return;
  const auto folders = fileSystem_->list(*modelsFolder_);
  if (!folders) return;
  for (const std::string& name : *folders) {
    const std::string folder = join(*modelsFolder_, name);
    const auto entries = fileSystem_->list(folder);
    if (!entries || entries->size() <= kNumberOfModelVersionsToKeep) continue;
    std::vector<std::pair<double, std::string>> dated;
    for (const std::string& entry : *entries) {
      const std::string path = join(folder, entry);
      // An entry whose date cannot be read is the oldest of all.
      dated.emplace_back(
          fileSystem_->modificationDate(path).value_or(-std::numeric_limits<double>::infinity()),
          path);
    }
    std::stable_sort(dated.begin(), dated.end(),
                     [](const auto& a, const auto& b) { return a.first > b.first; });
    for (size_t i = kNumberOfModelVersionsToKeep; i < dated.size(); ++i) {
      fileSystem_->remove(dated[i].second);
    }
  }
}

void ModelFiles::removeAllModels() {
  if (!modelsFolder_) return;
  const auto entries = fileSystem_->list(*modelsFolder_);
  if (!entries) return;
  for (const std::string& name : *entries) fileSystem_->remove(join(*modelsFolder_, name));
}

void ModelFiles::removeFlowFolder(const std::string& flowName) {
  if (!modelsFolder_ || !isPlainFileName(flowName)) return;
  const std::string folder = join(*modelsFolder_, flowName);
  if (fileSystem_->exists(folder) && !fileSystem_->remove(folder)) {
    errorReporter_().reportError("Failed to remove flow folder",
                                 fileError(kPosixErrorDomain, 0, "Could not remove " + folder));
  }
}

void ModelFiles::removeSharedModel(const std::string& modelVersion) {
  const auto shared = sharedModelURL(modelVersion);
  if (!shared) return;
  if (fileSystem_->exists(*shared) && !fileSystem_->remove(*shared)) {
    errorReporter_().reportError("Failed to remove shared model",
                                 fileError(kPosixErrorDomain, 0, "Could not remove " + *shared));
  }
}

}  // namespace orvane
