// File: ActivityRecognitionManager.h
// Scores physical activities (walking, lying in bed, sitting at a table, ...) from the motion
// signals of a context, with one small binary model per activity shipped in the SDK's
// resource bundle.
//
// The bundle is the folder "Orvane.bundle" inside the platform's SDK resource directory
// (`BundleInfo::sdkResourceDirectory`). Its models are compiled ("NAME.mlmodelc") and named
// "<version with '.' as '_'>-<window seconds>-ios-<obfuscated activity name>", e.g.
// "0_0_5-3-ios-m11292" for walking; each carries the creator metadata "platform" = "ios",
// "number_of_seconds" and "activity_tagger_version", which must match the configuration.
//
// The tagger version ("activityTaggerVersion") and the window ("goldenSignalsDurationSeconds",
// 3 when absent) are read from the remote configuration at each call. Loaded models are
// cached per activity, version and window; a failed load is not cached, so a later call
// tries again. Every failure is reported and ends in no model or no score.
//
// Threads: any. The cache lock is held only to look up and to insert; two concurrent misses
// of one key may both load, and the later insertion wins.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "config/ConfigurationData.h"
#include "logging/ErrorReporter.h"
#include "motion/ActivityType.h"
#include "orvane/Signal.h"
#include "orvane/coreml/FeatureValue.h"
#include "orvane/platform/FileSystem.h"
#include "orvane/platform/ModelRuntime.h"

namespace orvane {

class ActivityRecognitionManager {
 public:
  static constexpr const char* kBundleName = "Orvane.bundle";

  struct Dependencies {
    // The current remote configuration.
    std::function<ConfigurationData()> configuration;
    // Asked for only when there is something to report.
    std::function<ErrorReporter&()> errorReporter;
    std::shared_ptr<ModelRuntime> modelRuntime;
    std::shared_ptr<FileSystem> fileSystem;
    // The folder that holds the resource bundle; empty when the host has none.
    std::string resourceDirectory;
  };

  explicit ActivityRecognitionManager(Dependencies deps);
  ActivityRecognitionManager(const ActivityRecognitionManager&) = delete;
  ActivityRecognitionManager& operator=(const ActivityRecognitionManager&) = delete;

  // The activity's model for the configured version and window, from the cache or loaded;
  // none without a configured version or when loading fails.
  std::shared_ptr<const LoadedModel> getOrLoadModel(ActivityType activity);
  // The probability of class 1 for the motion signals among `signals`.
  std::optional<float> evaluateModel(const LoadedModel& model, const SignalList& signals);

  // ---- Steps, exposed for tests -------------------------------------------------------------
  std::shared_ptr<const LoadedModel> loadModel(ActivityType activity);
  // Whether the input mapping of this build serves `version` over `expectedDuration` seconds.
  bool validateInputMappingMetadata(int64_t expectedDuration, const std::string& version);
  bool ensureModelMetadataMatches(const LoadedModel& model, ActivityType activity,
                                  const std::string& version, int64_t duration);
  // A zero-filled vector of `numberOfSignals` values with each mapped numeric signal at its
  // position; none (reported) when no such vector can be made.
  std::optional<coreml::MultiArray> prepareInputFeatures(const SignalList& signals,
                                                         int64_t numberOfSignals);
  // "0_0_5-3-ios-m11292" and the like.
  static std::string modelName(ActivityType activity, const std::string& version, int64_t duration);

 private:
  struct Settings {
    std::optional<std::string> version;
    int64_t duration = 3;
  };
  Settings currentSettings() const;
  ErrorReporter& reporter() { return deps_.errorReporter(); }

  Dependencies deps_;
  std::mutex loadedModelsLock_;
  std::map<std::string, std::shared_ptr<const LoadedModel>> loadedModels_;
};

}  // namespace orvane
