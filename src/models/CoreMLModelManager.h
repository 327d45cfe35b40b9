// File: CoreMLModelManager.h
// The per-flow model store. It applies the model part of the service's update payload on its
// own serial queue (download, compile, place, record), answers per flow and from a cache what
// the decision needs, and reports the update identifiers with every context.
//
// The decisions switch turns every flow into a control flow; the cache is emptied whenever
// the switch is set. Without a defaults suite nothing is stored and every reader gets its
// default.
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "config/ServerPayload.h"
#include "logging/ErrorReporter.h"
#include "models/ModelDownloader.h"
#include "models/ModelExecutionInformation.h"
#include "models/ModelFiles.h"
#include "models/RefusedModelVersions.h"
#include "models/SaveableCustomModelInfo.h"
#include "orvane/Signal.h"
#include "orvane/platform/Crypto.h"
#include "orvane/platform/Executors.h"
#include "orvane/platform/SystemLog.h"
#include "util/DateProvider.h"
#include "util/EraseGeneration.h"
#include "util/UserDefaultsProvider.h"
#include "util/WrappingLock.h"

namespace orvane {

class RemoteConfiguration;

class CoreMLModelManager {
 public:
  static constexpr const char* kLastAppliedVersion = "ota_last_applied_version";
  static constexpr const char* kLastAttemptedVersion = "ota_last_attempted_version";
  static constexpr const char* kLastAppliedGeneration = "ota_last_applied_generation_id";
  static constexpr const char* kLastAppliedAssignmentId = "ota_last_applied_assignment_id";
  static constexpr const char* kModelInfoPrefix = "model_info_for_flow_";

  struct Dependencies {
    std::shared_ptr<UserDefaultsProvider> defaults;
    std::shared_ptr<FileSystem> fileSystem;
    std::shared_ptr<ModelRuntime> modelRuntime;
    std::shared_ptr<HttpTransport> http;
    std::shared_ptr<Crypto> crypto;
    std::shared_ptr<DateProvider> dateProvider;
    std::shared_ptr<SystemLog> log;
    // Where update work runs; one task at a time.
    std::shared_ptr<SerialQueue> updatingQueue;
    // Called only when there is something to report or apply, so the owner can create these
    // lazily.
    std::function<ErrorReporter&()> errorReporter;
    std::function<RemoteConfiguration&()> remoteConfiguration;
    // The owner's erases; an update of an older generation is dropped. None: never erased.
    std::shared_ptr<EraseGeneration> erasures;
    // The host app's bundle identifier ("unknown" when it has none) and the SDK's version.
    std::string bundleIdentifier = "unknown";
    std::string sdkVersion;
    // Folder of built-in compiled models; empty for none.
    std::string bundledModelsFolder;
    // Flows whose model ships with the SDK; empty in the shipped configuration.
    std::map<std::string, FlowInfo> builtInFlows;
  };

  explicit CoreMLModelManager(Dependencies dependencies);
  ~CoreMLModelManager();
  CoreMLModelManager(const CoreMLModelManager&) = delete;
  CoreMLModelManager& operator=(const CoreMLModelManager&) = delete;

  // Returns at once; the work runs on the updating queue. None is ignored. `generation` is the
  // erase generation the payload was asked for in (default: now); after an erase it is dropped.
  void applyModelUpdates(std::optional<ServerUpdatePayload> payload,
                         std::optional<uint64_t> generation = std::nullopt);

  CustomModelInfo getModelInfoForFlow(const std::string& flowName);
  // A flow whose model was trained for another duration falls back to the always-upsell rule,
  // with an error line that points the developer to optimize().
  CustomModelInfo getModelInfoForFlowValidatingDurationAndCallType(const std::string& flowName,
                                                                   int64_t requestedDuration,
                                                                   bool usedInstantContext);

  std::string getCurrentAppliedGenerationId();
  int64_t getCurrentAttemptedVersion();
  std::string getCurrentAppliedAssignmentId();
  // 402, 406, 403, 427, 503 in that order.
  SignalList allSignals();

  void setDecisionsEnabled(bool enabled);
  bool decisionsEnabled() const { return decisionsEnabled_.load(); }

  // The version a flow reports while decisions are switched off: a UUID made from the host,
  // the flow and the model's call shape, whose first two bytes are 0xCC.
  std::string controlModelVersion(const std::string& flowName, int64_t supportedDuration,
                                  bool useInstantContext) const;
  // A table of exactly 7 rows whose shortest row has exactly 24 entries, else none (reported).
  std::optional<std::vector<std::vector<double>>> validateHourlyUpsellThreshold(
      const std::optional<std::vector<std::vector<double>>>& table);

  ModelFiles& files() { return files_; }
  // Forgets every flow's model and removes the downloaded files, behind any update in
  // progress. Returns at once.
  void eraseAll();

  const RefusedModelVersions& refusedVersions() const { return refused_; }

 private:
  // Answers per flow, and how often each flow's stored record was rewritten. A read takes the
  // counts before it reads the record and caches its answer only if they have not moved
  // since: an answer read before a rewrite never replaces the rewrite's.
  struct ModelInfoCache {
    std::map<std::string, CustomModelInfo> answers;
    std::map<std::string, uint64_t> rewrites;
    // Moves when every answer is dropped at once (the switches, an erase).
    uint64_t clears = 0;
  };
  struct CacheStamp {
    uint64_t rewrites = 0;
    uint64_t clears = 0;
    bool operator==(const CacheStamp&) const = default;
  };
  static CacheStamp stampOf(const ModelInfoCache& cache, const std::string& flowName);
  void forgetAllCachedInfo();

  void applyOnQueue(const ServerUpdatePayload& payload, uint64_t generation);
  void applyHeld(const ServerUpdatePayload& payload, uint64_t generation);
  // True when an erase came since the update began; its writes then stop.
  bool erasedSinceUpdateBegan();
  bool applyFlow(const std::string& flowName, const ServerModelInfo& info);
  Result<std::string> updateCoreMLModel(const std::string& flowName, const std::string& modelUrl,
                                        const std::string& modelVersion);
  // None on success.
  std::optional<PlatformError> updateSavedModelInfo(const std::string& flowName,
                                                    const SaveableCustomModelInfo& info);
  Result<CustomModelInfo> modelInfoFromMLModel(
      const std::shared_ptr<const LoadedModel>& model, const std::string& flowName,
      const std::string& fallbackVersion, double upsellThreshold,
      const std::optional<std::vector<std::vector<double>>>& hourlyUpsellThresholds,
      const std::optional<std::vector<double>>& contextPushThresholds, double randomUpsellChance);
  // Loads a candidate and checks that it is the version asked for and carries our metadata.
  // Whether the decision can read it is checked when its information is built.
  Result<std::shared_ptr<const LoadedModel>> loadMatchingModel(const std::string& path,
                                                               const std::string& modelVersion);
  CustomModelInfo readModelInfoForFlow(const std::string& flowName);
  CustomModelInfo getLocalModelForFlow(const std::string& flowName);
  void clearDataForFlow(const std::string& flowName,
                        const std::optional<std::string>& modelVersion);
  void forgetCachedInfo(const std::string& flowName);
  ErrorReporter& reporter() { return deps_.errorReporter(); }

  Dependencies deps_;
  ModelFiles files_;
  std::shared_ptr<ModelDownloader> downloader_;
  RefusedModelVersions refused_;
  WrappingLock<ModelInfoCache> modelInfoCache_;
  // Written by the switches from any thread, read without a lock.
  std::atomic<bool> decisionsEnabled_{true};
  // The erase generation held by the update running on the queue (queue only): released
  // around a download, checked again after it.
  std::shared_lock<std::shared_mutex>* updateHold_ = nullptr;
  uint64_t updateGeneration_ = 0;
  // Queued work checks this so nothing runs against a destroyed store.
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace orvane
