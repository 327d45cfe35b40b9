#include "models/CoreMLModelManager.h"

#include <algorithm>

#include "config/RemoteConfiguration.h"
#include "models/ModelOutputCheck.h"
#include "util/URLText.h"
#include "util/UUID.h"

namespace orvane {
namespace {

constexpr const char* kDomain = "CoreMLModelManager";
enum ManagerErrorCode : int64_t {
  kModelDoesNotLoad = 1,
  kNoVersionString = 2,
  kVersionMismatch = 3,
  kMetadataUnreadable = 4,
  kModelRefused = 5,
  kErasedMeanwhile = 6,
  kNotEnoughSpace = 123,
};

PlatformError managerError(int64_t code, std::string description) {
  return PlatformError{kDomain, code, std::move(description)};
}

// The answer that makes a context use the always-upsell control rule.
CustomModelInfo alwaysUpsellControl() { return CustomModelInfo{true, 0, false, nullptr, ""}; }

}  // namespace

CoreMLModelManager::CoreMLModelManager(Dependencies dependencies)
    : deps_(std::move(dependencies)),
      files_(deps_.fileSystem, deps_.dateProvider, deps_.errorReporter, deps_.bundledModelsFolder),
      refused_(deps_.defaults) {
  if (deps_.http && deps_.modelRuntime && deps_.fileSystem) {
    downloader_ = std::make_shared<ModelDownloader>(deps_.http, deps_.modelRuntime,
                                                    deps_.fileSystem->temporaryDirectory());
  }
}

CoreMLModelManager::~CoreMLModelManager() {
  alive_.reset();
  // Work already running finishes before the members it uses go away.
  if (deps_.updatingQueue && !deps_.updatingQueue->isCurrent()) deps_.updatingQueue->sync([] {});
}

// ---- Applying updates ---------------------------------------------------------------------

void CoreMLModelManager::applyModelUpdates(std::optional<ServerUpdatePayload> payload,
                                           std::optional<uint64_t> generation) {
  if (!payload) return;
  const uint64_t asked = generation.value_or(deps_.erasures ? deps_.erasures->current() : 0);
  if (!deps_.updatingQueue) {
    applyOnQueue(*payload, asked);
    return;
  }
  std::weak_ptr<bool> alive = alive_;
  deps_.updatingQueue->async([this, alive, asked, payload = std::move(*payload)] {
    if (alive.lock()) applyOnQueue(payload, asked);
  });
}

void CoreMLModelManager::applyOnQueue(const ServerUpdatePayload& payload, uint64_t generation) {
  if (!deps_.erasures) {
    applyHeld(payload, generation);
    return;
  }
  // Held while the update writes, released only around its downloads.
  auto hold = deps_.erasures->hold();
  if (!deps_.erasures->isCurrent(generation)) {
    if (deps_.log) {
      deps_.log->write(LogLevel::kDebug,
                       "[Orvane] A model update asked for before an erase was dropped.");
    }
    return;
  }
  updateHold_ = &hold;
  updateGeneration_ = generation;
  applyHeld(payload, generation);
  updateHold_ = nullptr;
}

bool CoreMLModelManager::erasedSinceUpdateBegan() {
  return updateHold_ && !deps_.erasures->isCurrent(updateGeneration_);
}

void CoreMLModelManager::applyHeld(const ServerUpdatePayload& payload, uint64_t generation) {
  const auto& defaults = deps_.defaults;
  if (!defaults || !defaults->isAvailable()) return;
  if (defaults->integer(kLastAppliedVersion).value_or(0) >= payload.version) return;
  defaults->set(kLastAttemptedVersion, payload.version);
  if (deps_.remoteConfiguration) {
    deps_.remoteConfiguration().applyConfigurationUpdate(payload.configuration, deps_.erasures,
                                                         generation);
  }

  size_t successes = 0;
  for (const auto& [flowName, info] : payload.modelInfoPerFlow) {
    if (applyFlow(flowName, info)) ++successes;
    if (erasedSinceUpdateBegan()) {
      // The erase removes the files placed so far once this task ends.
      if (deps_.log)
        deps_.log->write(LogLevel::kDebug,
                         "[Orvane] A model update was dropped: the data was erased meanwhile.");
      return;
    }
  }
  if (successes == payload.modelInfoPerFlow.size()) {
    defaults->set(kLastAppliedVersion, payload.version);
    if (payload.assignmentId) {
      defaults->set(kLastAppliedAssignmentId, *payload.assignmentId);
    } else {
      defaults->remove(kLastAppliedAssignmentId);
    }
    if (payload.generationId) {
      defaults->set(kLastAppliedGeneration, *payload.generationId);
    } else {
      defaults->remove(kLastAppliedGeneration);
    }
  }
  // A failed flow leaves the applied version where it was: the service's next answer with the
  // same version is applied again.
  files_.cleanupOldModels();
  defaults->synchronize();
}

bool CoreMLModelManager::applyFlow(const std::string& flowName, const ServerModelInfo& info) {
  SaveableCustomModelInfo saveable{info.isControl,
                                   info.modelVersion,
                                   info.upsellThreshold,
                                   info.hourlyUpsellThresholds,
                                   info.contextPushThresholds,
                                   info.randomUpsellChance,
                                   info.supportedDuration,
                                   info.useInstantContext};
  if (info.modelUrl && parsesAsURL(*info.modelUrl) && info.modelVersion) {
    if (refused_.isRefused(flowName, *info.modelVersion)) {
      // Reported when it was refused; the flow stays as it was until the service moves on.
      if (deps_.log) {
        deps_.log->info("[Orvane] Model version " + *info.modelVersion + " for flow " + flowName +
                        " was refused before; it is not downloaded again.");
      }
      return false;
    }
    const PlistDictionary where{
        {"modelUrl", *info.modelUrl}, {"flowName", flowName}, {"modelVersion", *info.modelVersion}};
    auto placed = updateCoreMLModel(flowName, *info.modelUrl, *info.modelVersion);
    if (!placed && placed.error().domain == kDomain && placed.error().code == kErasedMeanwhile) {
      return false;
    }
    if (!placed) {
      reporter().reportError("Failed to load recently downloaded CoreML model.", placed.error(),
                             false, where);
      return false;
    }
    saveable.isControl = false;
    if (auto failure = updateSavedModelInfo(flowName, saveable)) {
      reporter().reportError("Failed to store CoreML model info in user defaults", *failure, false,
                             where);
      return false;
    }
    return true;
  }
  if (info.isControl) {
    auto encoded = encodeSaveableCustomModelInfo(saveable);
    if (!encoded) {
      reporter().reportError("Failed to store control model info in user defaults",
                             encoded.error());
      return false;
    }
    deps_.defaults->set(kModelInfoPrefix + flowName, std::move(encoded).value());
    forgetCachedInfo(flowName);
    return true;
  }
  reporter().reportError("Received neither a valid model nor control.", std::nullopt, false,
                         PlistDictionary{{"modelUrl", info.modelUrl.value_or("no url")},
                                         {"isControl", false},
                                         {"modelVersion", info.modelVersion.value_or("")}});
  return false;
}

Result<std::string> CoreMLModelManager::updateCoreMLModel(const std::string& flowName,
                                                          const std::string& modelUrl,
                                                          const std::string& modelVersion) {
  for (const std::string& candidate : files_.allAvailableModelURLs(flowName, modelVersion)) {
    if (auto model = loadMatchingModel(candidate, modelVersion)) {
      if (auto why = whyModelCannotDecide((*model)->description())) {
        refused_.remember(flowName, modelVersion);
        return managerError(kModelRefused, "The model cannot drive the decision: " + *why);
      }
      files_.touchModel(candidate, flowName, modelVersion);
      return candidate;
    }
  }
  if (!files_.hasEnoughSpaceForModelUpdates()) {
    return managerError(kNotEnoughSpace, "Not enough free space for a model update.");
  }
  if (!downloader_) return DownloadError::unknown();
  // Its temporary folder goes when `downloaded` does, whichever way this ends.
  // The download can take long: an erase meanwhile must not wait for it.
  if (updateHold_) updateHold_->unlock();
  auto downloaded = downloader_->downloadAndCompileModel(modelUrl);
  if (updateHold_) updateHold_->lock();
  if (erasedSinceUpdateBegan()) {
    return managerError(kErasedMeanwhile, "The data was erased during the download.");
  }
  if (!downloaded) {
    if (downloaded.error().domain == DownloadError::kDomain &&
        downloaded.error().code == DownloadError::kModelNotSupported) {
      refused_.remember(flowName, modelVersion);
    }
    return downloaded.error();
  }
  auto placed = files_.copyCoreMLModel(downloaded->compiledModelPath, flowName, modelVersion);
  if (!placed) {
    deps_.fileSystem->remove(downloaded->compiledModelPath);
    return placed.error();
  }
  auto checked = [&]() -> Result<bool> {
    auto model = deps_.modelRuntime->loadCompiledModel(*placed);
    if (!model) return managerError(kModelDoesNotLoad, model.error().message());
    // A model that names another version than the service said would be reported under the
    // wrong version with every context.
    const std::string& inModel = (*model)->description().metadata.versionString;
    if (!inModel.empty() && inModel != modelVersion) {
      return managerError(kVersionMismatch,
                          "Version stored in Model does not match reported version.");
    }
    auto info =
        modelInfoFromMLModel(*model, flowName, modelVersion, 0, std::nullopt, std::nullopt, 0);
    if (!info) return info.error();
    return true;
  }();
  if (!checked) {
    if (checked.error().domain == kDomain && checked.error().code == kModelRefused) {
      refused_.remember(flowName, modelVersion);
    }
    // Never leave a broken model where a later update would find it.
    files_.removeSharedModel(modelVersion);
    deps_.fileSystem->remove(*placed);
    return checked.error();
  }
  files_.touchModel(*placed, flowName, modelVersion);
  return placed;
}

Result<std::shared_ptr<const LoadedModel>> CoreMLModelManager::loadMatchingModel(
    const std::string& path, const std::string& modelVersion) {
  auto model = deps_.modelRuntime->loadCompiledModel(path);
  if (!model) return managerError(kModelDoesNotLoad, model.error().message());
  const auto& metadata = (*model)->description().metadata;
  if (metadata.versionString.empty()) {
    return managerError(kNoVersionString, "no version string in model");
  }
  if (metadata.versionString != modelVersion) {
    return managerError(kVersionMismatch,
                        "Version stored in Model does not match reported version.");
  }
  auto decoded = decodeCoreMLModelMetadata(
      metadata.shortDescription.empty() ? "no description" : metadata.shortDescription);
  if (!decoded) return managerError(kMetadataUnreadable, decoded.error().description);
  return std::move(model).value();
}

std::optional<PlatformError> CoreMLModelManager::updateSavedModelInfo(
    const std::string& flowName, const SaveableCustomModelInfo& info) {
  auto encoded = encodeSaveableCustomModelInfo(info);
  if (!encoded) return encoded.error();
  deps_.defaults->set(kModelInfoPrefix + flowName, std::move(encoded).value());
  forgetCachedInfo(flowName);
  return std::nullopt;
}

void CoreMLModelManager::eraseAll() {
  forgetAllCachedInfo();
  std::weak_ptr<bool> alive = alive_;
  deps_.updatingQueue->async([this, alive] {
    if (!alive.lock()) return;
    files_.removeAllModels();
    forgetAllCachedInfo();
  });
}

// Called after the flow's record was rewritten, never before: a read that starts after this
// reads the new record.
void CoreMLModelManager::forgetCachedInfo(const std::string& flowName) {
  modelInfoCache_.withLock([&](ModelInfoCache& cache) {
    cache.answers.erase(flowName);
    ++cache.rewrites[flowName];
  });
}

void CoreMLModelManager::forgetAllCachedInfo() {
  modelInfoCache_.withLock([](ModelInfoCache& cache) {
    cache.answers.clear();
    ++cache.clears;
  });
}

CoreMLModelManager::CacheStamp CoreMLModelManager::stampOf(const ModelInfoCache& cache,
                                                           const std::string& flowName) {
  auto it = cache.rewrites.find(flowName);
  return CacheStamp{it == cache.rewrites.end() ? 0 : it->second, cache.clears};
}

// ---- Model information --------------------------------------------------------------------

Result<CustomModelInfo> CoreMLModelManager::modelInfoFromMLModel(
    const std::shared_ptr<const LoadedModel>& model, const std::string& flowName,
    const std::string& fallbackVersion, double upsellThreshold,
    const std::optional<std::vector<std::vector<double>>>& hourlyUpsellThresholds,
    const std::optional<std::vector<double>>& contextPushThresholds, double randomUpsellChance) {
  const auto& metadata = model->description().metadata;
  const std::string version =
      metadata.versionString.empty() ? fallbackVersion : metadata.versionString;
  auto decoded = decodeCoreMLModelMetadata(
      metadata.shortDescription.empty() ? "no description" : metadata.shortDescription);
  if (!decoded) return managerError(kMetadataUnreadable, decoded.error().description);
  const CoreMLModelMetadata modelMetadata = std::move(decoded).value();
  // Refused whether or not decisions are on: switching them on must not bring it back.
  if (auto why = whyModelCannotDecide(model->description())) {
    return managerError(kModelRefused, "The model cannot drive the decision: " + *why);
  }
  if (!decisionsEnabled()) {
    return CustomModelInfo{true, modelMetadata.supportedDuration, modelMetadata.useInstantContext,
                           std::make_shared<BaseModelExecutionInformation>(1.0),
                           controlModelVersion(flowName, modelMetadata.supportedDuration,
                                               modelMetadata.useInstantContext)};
  }
  ModelThresholds thresholds{upsellThreshold, validateHourlyUpsellThreshold(hourlyUpsellThresholds),
                             contextPushThresholds};
  return CustomModelInfo{false, modelMetadata.supportedDuration, modelMetadata.useInstantContext,
                         std::make_shared<CoreMLModelExecutionInformation>(
                             randomUpsellChance, std::move(thresholds), model, modelMetadata),
                         version};
}

std::optional<std::vector<std::vector<double>>> CoreMLModelManager::validateHourlyUpsellThreshold(
    const std::optional<std::vector<std::vector<double>>>& table) {
  if (!table) return std::nullopt;
  size_t shortest = 0;
  if (!table->empty()) {
    shortest = std::min_element(table->begin(), table->end(), [](const auto& a, const auto& b) {
                 return a.size() < b.size();
               })->size();
  }
  if (table->size() == 7 && shortest == 24) return table;
  reporter().reportError("Failed to parse hourly upsell thresholds.", std::nullopt, false,
                         PlistDictionary{{"days", static_cast<int64_t>(table->size())},
                                         {"hours", static_cast<int64_t>(shortest)}});
  return std::nullopt;
}

std::string CoreMLModelManager::controlModelVersion(const std::string& flowName,
                                                    int64_t supportedDuration,
                                                    bool useInstantContext) const {
  const std::string text = deps_.bundleIdentifier + flowName + std::to_string(supportedDuration) +
                           (useInstantContext ? "true" : "false");
  const auto digest = deps_.crypto->sha1(
      std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(text.data()), text.size()));
  std::array<uint8_t, 16> bytes{};
  std::copy_n(digest.begin(), bytes.size(), bytes.begin());
  bytes[0] = 0xCC;
  bytes[1] = 0xCC;
  return uuidString(bytes);
}

CustomModelInfo CoreMLModelManager::getModelInfoForFlow(const std::string& flowName) {
  CacheStamp before;
  auto cached =
      modelInfoCache_.withLock([&](ModelInfoCache& cache) -> std::optional<CustomModelInfo> {
        auto it = cache.answers.find(flowName);
        if (it != cache.answers.end()) return it->second;
        before = stampOf(cache, flowName);
        return std::nullopt;
      });
  if (cached) return *cached;
  CustomModelInfo info = readModelInfoForFlow(flowName);
  modelInfoCache_.withLock([&](ModelInfoCache& cache) {
    // A rewrite while we read: this answer may be the old one, so it serves this call only.
    if (stampOf(cache, flowName) == before) cache.answers[flowName] = info;
  });
  return info;
}

CustomModelInfo CoreMLModelManager::readModelInfoForFlow(const std::string& flowName) {
  const auto& defaults = deps_.defaults;
  std::optional<Bytes> data;
  if (defaults && defaults->isAvailable()) data = defaults->data(kModelInfoPrefix + flowName);
  if (!data) return getLocalModelForFlow(flowName);

  auto decoded = decodeSaveableCustomModelInfo(*data);
  if (!decoded) {
    reporter().reportError("Failed to parse stored JSON", decoded.error());
    return getLocalModelForFlow(flowName);
  }
  const SaveableCustomModelInfo& stored = *decoded;

  if (stored.isControl) {
    if (!stored.supportedDuration || !stored.useInstantContext) {
      reporter().reportError(
          "Encountered information for control group with missing supported duration or "
          "instant context.");
      return alwaysUpsellControl();
    }
    const bool enabled = decisionsEnabled();
    return CustomModelInfo{true, *stored.supportedDuration, *stored.useInstantContext,
                           std::make_shared<BaseModelExecutionInformation>(
                               enabled ? stored.randomUpsellChance.value_or(1.0) : 1.0),
                           enabled ? stored.modelVersion.value_or("")
                                   : controlModelVersion(flowName, *stored.supportedDuration,
                                                         *stored.useInstantContext)};
  }

  if (!stored.modelVersion || !stored.upsellThreshold || !stored.randomUpsellChance) {
    reporter().reportError("Stored JSON was missing required parameters");
    return getLocalModelForFlow(flowName);
  }
  for (const std::string& candidate :
       files_.allAvailableModelURLs(flowName, *stored.modelVersion)) {
    auto model = deps_.modelRuntime->loadCompiledModel(candidate);
    if (!model) {
      reporter().reportError("Failed to load CoreML Model",
                             managerError(kModelDoesNotLoad, model.error().message()));
      continue;
    }
    files_.touchModel(candidate, flowName, *stored.modelVersion);
    auto info = modelInfoFromMLModel(*model, flowName, *stored.modelVersion,
                                     *stored.upsellThreshold, stored.hourlyUpsellThresholds,
                                     stored.contextPushThresholds, *stored.randomUpsellChance);
    if (info) return std::move(info).value();
    reporter().reportError("Failed to load CoreML Model", info.error());
    if (info.error().code == kModelRefused) {
      // Every candidate is the same version of the same model: none would do better.
      refused_.remember(flowName, *stored.modelVersion);
      break;
    }
  }
  reporter().reportError("Couldn't find any working model files for flow with saved model info");
  clearDataForFlow(flowName, stored.modelVersion);
  return getLocalModelForFlow(flowName);
}

CustomModelInfo CoreMLModelManager::getLocalModelForFlow(const std::string& flowName) {
  auto listed = deps_.builtInFlows.find(flowName);
  if (listed == deps_.builtInFlows.end()) return alwaysUpsellControl();
  const FlowInfo& flow = listed->second;
  auto url = files_.bundledModelURL(flow.modelVersion);
  if (!url) {
    reporter().reportError("Failed to fetch CoreML model from bundle.");
    return alwaysUpsellControl();
  }
  auto info = [&]() -> Result<CustomModelInfo> {
    auto model = deps_.modelRuntime->loadCompiledModel(*url);
    if (!model) return managerError(kModelDoesNotLoad, model.error().message());
    return modelInfoFromMLModel(*model, flowName, flow.modelVersion, flow.upsellThreshold,
                                flow.hourlyUpsellThresholds, flow.contextPushThresholds,
                                flow.randomUpsellChance);
  }();
  if (!info) {
    reporter().reportError("Failed to load bundled CoreML model.", info.error());
    if (deps_.log) {
      deps_.log->error(
          "[Orvane] Failed to load bundled CoreML model. Please contact Orvane support.");
    }
    return alwaysUpsellControl();
  }
  return std::move(info).value();
}

CustomModelInfo CoreMLModelManager::getModelInfoForFlowValidatingDurationAndCallType(
    const std::string& flowName, int64_t requestedDuration, bool /*usedInstantContext*/) {
  CustomModelInfo info = getModelInfoForFlow(flowName);
  if (info.executionInformation && info.supportedDuration != requestedDuration) {
    if (deps_.log) {
      deps_.log->error("[Orvane] You already have a custom model for " + flowName +
                       ", you should use ContextManager.optimize(\u2026) instead to act on "
                       "Orvane's recommendations:");
      deps_.log->error("ContextManager.optimize(customModel: .[yourModelNameHere], ...)");
    }
    return alwaysUpsellControl();
  }
  return info;
}

void CoreMLModelManager::clearDataForFlow(const std::string& flowName,
                                          const std::optional<std::string>& modelVersion) {
  if (deps_.defaults && deps_.defaults->isAvailable()) {
    deps_.defaults->remove(kModelInfoPrefix + flowName);
    // The next payload is then applied in full again, restoring the flow.
    deps_.defaults->remove(kLastAppliedVersion);
  }
  forgetCachedInfo(flowName);
  files_.removeFlowFolder(flowName);
  if (modelVersion) files_.removeSharedModel(*modelVersion);
}

// ---- Identifiers and switches -------------------------------------------------------------

std::string CoreMLModelManager::getCurrentAppliedGenerationId() {
  const auto& defaults = deps_.defaults;
  if (!defaults || !defaults->isAvailable()) return "calibration";
  if (auto stored = defaults->string(kLastAppliedGeneration)) return *stored;
  const int64_t applied = defaults->integer(kLastAppliedVersion).value_or(0);
  if (applied >= 1) return "ota-" + std::to_string(applied);
  if (!deps_.builtInFlows.empty()) return "bundled-" + deps_.sdkVersion;
  return "calibration";
}

int64_t CoreMLModelManager::getCurrentAttemptedVersion() {
  const auto& defaults = deps_.defaults;
  if (!defaults || !defaults->isAvailable()) return 0;
  if (!defaults->object(kLastAttemptedVersion)) {
    // Installations that applied updates before attempts were recorded.
    const int64_t applied = defaults->integer(kLastAppliedVersion).value_or(0);
    if (applied >= 1) {
      defaults->set(kLastAttemptedVersion, applied);
      return applied;
    }
  }
  return defaults->integer(kLastAttemptedVersion).value_or(0);
}

std::string CoreMLModelManager::getCurrentAppliedAssignmentId() {
  const auto& defaults = deps_.defaults;
  if (!defaults || !defaults->isAvailable()) return "";
  return defaults->string(kLastAppliedAssignmentId).value_or("");
}

SignalList CoreMLModelManager::allSignals() {
  int64_t applied = 0;
  if (deps_.defaults && deps_.defaults->isAvailable()) {
    applied = deps_.defaults->integer(kLastAppliedVersion).value_or(0);
  }
  return {SignalInt(SignalEnum::id(402), applied),
          SignalInt(SignalEnum::id(406), getCurrentAttemptedVersion()),
          SignalString(SignalEnum::id(403), getCurrentAppliedGenerationId()),
          SignalString(SignalEnum::id(427), getCurrentAppliedAssignmentId()),
          SignalBool(SignalEnum::id(503), decisionsEnabled())};
}

void CoreMLModelManager::setDecisionsEnabled(bool enabled) {
  decisionsEnabled_.store(enabled);
  forgetAllCachedInfo();
}

}  // namespace orvane
