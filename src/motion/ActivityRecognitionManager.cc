#include "motion/ActivityRecognitionManager.h"

#include <charconv>

#include "motion/ActivityInputMapping.h"

namespace orvane {
namespace {

constexpr const char* kInputName = "input";
constexpr const char* kOutputName = "classProbability";
constexpr const char* kPlatform = "ios";
// Far beyond any model we ship; a declaration above it is broken, not large.
constexpr int64_t kMaxInputLength = 1 << 16;

std::string dotsAsUnderscores(std::string text) {
  for (char& c : text) {
    if (c == '.') c = '_';
  }
  return text;
}

// A decimal integer with an optional leading sign; none for anything else or out of range.
std::optional<int64_t> parseInteger(std::string_view text) {
  if (!text.empty() && text.front() == '+') text.remove_prefix(1);
  if (text.empty() || text.front() == '+') return std::nullopt;
  int64_t value = 0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

std::optional<double> numericValue(const SignalValue& value) {
  if (const auto* b = std::get_if<bool>(&value)) return *b ? 1.0 : 0.0;
  if (const auto* i = std::get_if<int64_t>(&value)) return static_cast<double>(*i);
  if (const auto* f = std::get_if<float>(&value)) return static_cast<double>(*f);
  if (const auto* d = std::get_if<Decimal>(&value)) return d->toDouble();
  return std::nullopt;
}

}  // namespace

ActivityRecognitionManager::ActivityRecognitionManager(Dependencies deps)
    : deps_(std::move(deps)) {}

ActivityRecognitionManager::Settings ActivityRecognitionManager::currentSettings() const {
  const ConfigurationData configuration = deps_.configuration();
  return {configuration.activityTaggerVersion,
          configuration.goldenSignalsDurationSeconds.value_or(3)};
}

std::string ActivityRecognitionManager::modelName(ActivityType activity, const std::string& version,
                                                  int64_t duration) {
  return dotsAsUnderscores(version) + "-" + std::to_string(duration) + "-" + kPlatform + "-" +
         obfuscatedModelName(activity);
}

// ---- Models -------------------------------------------------------------------------------

std::shared_ptr<const LoadedModel> ActivityRecognitionManager::getOrLoadModel(
    ActivityType activity) {
  const Settings settings = currentSettings();
  if (!settings.version) return nullptr;
  const std::string key = std::string(rawName(activity)) + ":" + *settings.version + ":" +
                          std::to_string(settings.duration);
  {
    std::lock_guard<std::mutex> guard(loadedModelsLock_);
    if (auto it = loadedModels_.find(key); it != loadedModels_.end()) return it->second;
  }
  auto model = loadModel(activity);
  if (model) {
    std::lock_guard<std::mutex> guard(loadedModelsLock_);
    loadedModels_[key] = model;
  }
  return model;
}

std::shared_ptr<const LoadedModel> ActivityRecognitionManager::loadModel(ActivityType activity) {
  const Settings settings = currentSettings();
  if (!settings.version) {
    reporter().reportError("[Tavel] No activity tagger version provided");
    return nullptr;
  }
  const std::string& version = *settings.version;
  if (!validateInputMappingMetadata(settings.duration, version)) return nullptr;

  const std::string name = modelName(activity, version, settings.duration);
  const std::string bundle =
      deps_.resourceDirectory.empty() ? "" : deps_.resourceDirectory + "/" + kBundleName;
  if (bundle.empty() || !deps_.fileSystem || !deps_.fileSystem->isDirectory(bundle)) {
    reporter().reportError("[Tavel] Orvane resource bundle not found");
    return nullptr;
  }
  const std::string path = bundle + "/" + name + ".mlmodelc";
  if (!deps_.fileSystem->exists(path)) {
    reporter().reportError("[Tavel] Activity model not found in bundle",
                           PlistDictionary{{"activity", std::string(rawName(activity))},
                                           {"modelName", name},
                                           {"expectedVersion", version},
                                           {"expectedDuration", settings.duration}});
    return nullptr;
  }
  auto loaded = deps_.modelRuntime ? deps_.modelRuntime->loadCompiledModel(path)
                                   : coreml::Result<std::shared_ptr<const LoadedModel>>(
                                         coreml::Error("no model runtime on this platform"));
  if (!loaded) {
    reporter().reportError(
        "[Tavel] Failed to load activity model", PlatformError{"ModelRuntime", 0, loaded.message()},
        false, PlistDictionary{{"activity", std::string(rawName(activity))}, {"modelPath", path}});
    return nullptr;
  }
  std::shared_ptr<const LoadedModel> model = std::move(loaded).value();
  if (!model || !ensureModelMetadataMatches(*model, activity, version, settings.duration)) {
    return nullptr;
  }
  return model;
}

bool ActivityRecognitionManager::validateInputMappingMetadata(int64_t expectedDuration,
                                                              const std::string& version) {
  if (version != activity_input::kVersion) {
    reporter().reportError(
        "[Tavel] InputMapping version mismatch",
        PlistDictionary{{"expectedVersion", std::string(activity_input::kVersion)},
                        {"actualVersion", version}});
    return false;
  }
  if (expectedDuration != activity_input::kDurationSeconds) {
    reporter().reportError("[Tavel] InputMapping duration mismatch",
                           PlistDictionary{{"expectedDuration", activity_input::kDurationSeconds},
                                           {"actualDuration", expectedDuration}});
    return false;
  }
  return true;
}

bool ActivityRecognitionManager::ensureModelMetadataMatches(const LoadedModel& model,
                                                            ActivityType activity,
                                                            const std::string& version,
                                                            int64_t duration) {
  const std::string activityName(rawName(activity));
  auto fail = [&](const char* message, PlistDictionary data = {}) {
    data.insert_or_assign("activity", activityName);
    reporter().reportError(message, std::move(data));
    return false;
  };
  const auto& metadata = model.description().metadata.userDefined;
  if (metadata.empty()) return fail("[Tavel] Activity model missing user-defined metadata");

  const auto platform = metadata.find("platform");
  if (platform == metadata.end()) return fail("[Tavel] Activity model missing platform metadata");
  if (platform->second != kPlatform) {
    return fail("[Tavel] Activity model platform mismatch",
                {{"expectedPlatform", kPlatform}, {"actualPlatform", platform->second}});
  }

  const auto seconds = metadata.find("number_of_seconds");
  const std::optional<int64_t> modelDuration =
      seconds == metadata.end() ? std::nullopt : parseInteger(seconds->second);
  if (!modelDuration) return fail("[Tavel] Activity model missing number_of_seconds metadata");
  if (*modelDuration != duration) {
    return fail("[Tavel] Activity model duration mismatch",
                {{"expectedDuration", duration}, {"actualDuration", *modelDuration}});
  }

  const auto modelVersion = metadata.find("activity_tagger_version");
  if (modelVersion == metadata.end()) {
    return fail("[Tavel] Activity model missing activity_tagger_version metadata");
  }
  if (modelVersion->second != version) {
    return fail("[Tavel] Activity model version mismatch",
                {{"expectedVersion", version}, {"actualVersion", modelVersion->second}});
  }
  return true;
}

// ---- Scores -------------------------------------------------------------------------------

std::optional<coreml::MultiArray> ActivityRecognitionManager::prepareInputFeatures(
    const SignalList& signals, int64_t numberOfSignals) {
  if (numberOfSignals <= 0 || numberOfSignals > kMaxInputLength) {
    reporter().reportError("[Tavel] Failed to create MLMultiArray for activity prediction");
    return std::nullopt;
  }
  const auto length = static_cast<size_t>(numberOfSignals);
  coreml::MultiArray input{{numberOfSignals}, std::vector<double>(length, 0.0)};
  for (const Signal& signal : signals) {
    const auto position = activity_input::positionOf(signal.id().rawValue());
    if (!position || *position >= length) continue;
    if (auto value = numericValue(signal.value())) {
      // The models take 32-bit floats.
      input.values[*position] = static_cast<double>(static_cast<float>(*value));
    }
  }
  return input;
}

std::optional<float> ActivityRecognitionManager::evaluateModel(const LoadedModel& model,
                                                               const SignalList& signals) {
  const coreml::FeatureDescription* declared = model.description().input(kInputName);
  const int64_t length = declared && !declared->shape.empty() ? declared->shape.front() : 0;
  auto input = prepareInputFeatures(signals, length);
  if (!input) return std::nullopt;

  coreml::DictionaryFeatureProvider provider;
  provider.set(kInputName, coreml::FeatureValue::fromMultiArray(std::move(*input)));
  auto outputs = model.predict(provider);
  if (!outputs) {
    reporter().reportError("[Tavel] Failed to run activity prediction",
                           PlatformError{"ModelRuntime", 0, outputs.message()});
    return std::nullopt;
  }
  const auto output = outputs->find(kOutputName);
  if (output == outputs->end()) return std::nullopt;
  const auto* probabilities = output->second.int64DictionaryValue();
  if (!probabilities) return std::nullopt;
  const auto classOne = probabilities->find(1);
  if (classOne == probabilities->end()) return std::nullopt;
  return static_cast<float>(classOne->second);
}

}  // namespace orvane
