#include "config/RemoteConfiguration.h"

#include <utility>

namespace orvane {

namespace {

constexpr std::string_view kInvalidTaggerVersionMessage =
    "Invalid activityTaggerVersion format received from server";
constexpr std::string_view kStoreFailedMessage = "Failed to store new remote config.";
constexpr std::string_view kLoadFailedMessage = "Failed to load remote config.";
constexpr std::string_view kUnknownActivityMessage =
    "[Tavel] Failed to parse activity types from server configuration";

bool isAsciiDigit(char c) { return c >= '0' && c <= '9'; }

}  // namespace

// Hand-written rather than std::regex: libstdc++'s matcher recurses per repetition and
// overflows the stack on long input, and this text comes from the network.
bool isValidActivityTaggerVersion(std::string_view version) {
  size_t i = 0;
  size_t groups = 0;
  while (true) {
    const size_t start = i;
    while (i < version.size() && isAsciiDigit(version[i])) ++i;
    if (i == start) return false;  // every group, the first included, needs a digit
    ++groups;
    if (i == version.size()) return groups >= 2;
    if (version[i] != '.') return false;
    ++i;
  }
}

RemoteConfiguration::RemoteConfiguration(std::shared_ptr<UserDefaultsProvider> defaults,
                                         std::function<ErrorReporter&()> errorReporter,
                                         std::shared_ptr<SerialQueue> updateQueue)
    : state_(std::make_shared<State>()), updateQueue_(std::move(updateQueue)) {
  state_->defaults = std::move(defaults);
  state_->errorReporter = std::move(errorReporter);
}

ConfigurationData RemoteConfiguration::getDefaultConfiguration() {
  ConfigurationData data;
  data.additionalAccelDataDurationSeconds = 20;
  data.additionalAccelDataSampleRate = 0.05f;
  data.errorReportingSampleRate = 0.001f;
  data.automaticEntryPointPollingIntervalSeconds = 30;
  data.goldenSignals = std::vector<uint16_t>{219, 958, 217, 982, 218, 215, 971, 101,
                                             216, 120, 970, 113, 125, 984, 972};
  data.goldenSignalsDurationSeconds = 3;
  data.returnContextDurationAsGoldenSignal = false;
  data.activities = std::vector<std::string>{"couch", "pocket"};
  data.activityTaggerVersion = "0.0.5";
  return data;
}

ConfigurationData RemoteConfiguration::merge(const std::optional<ServerConfiguration>& update) {
  ConfigurationData merged = getDefaultConfiguration();
  if (!update) return merged;
  const ServerConfiguration& u = *update;
  if (u.additionalAccelDataDurationSeconds) {
    merged.additionalAccelDataDurationSeconds = *u.additionalAccelDataDurationSeconds;
  }
  if (u.additionalAccelDataSampleRate) {
    merged.additionalAccelDataSampleRate = *u.additionalAccelDataSampleRate;
  }
  if (u.errorReportingSampleRate) merged.errorReportingSampleRate = *u.errorReportingSampleRate;
  if (u.automaticEntryPointPollingIntervalSeconds) {
    merged.automaticEntryPointPollingIntervalSeconds = *u.automaticEntryPointPollingIntervalSeconds;
  }
  if (u.goldenSignals) merged.goldenSignals = u.goldenSignals;
  if (u.goldenSignalsDurationSeconds) {
    merged.goldenSignalsDurationSeconds = u.goldenSignalsDurationSeconds;
  }
  if (u.returnContextDurationAsGoldenSignal) {
    merged.returnContextDurationAsGoldenSignal = u.returnContextDurationAsGoldenSignal;
  }
  if (u.activities) merged.activities = u.activities;
  if (u.activityTaggerVersion) merged.activityTaggerVersion = u.activityTaggerVersion;
  if (u.uploadContentEncoding) merged.uploadContentEncoding = u.uploadContentEncoding;
  return merged;
}

void RemoteConfiguration::applyConfigurationUpdate(std::optional<ServerConfiguration> update,
                                                   std::shared_ptr<EraseGeneration> erasures,
                                                   uint64_t generation) {
  // Without a queue the caller applies now and holds the generation itself.
  if (!updateQueue_) {
    state_->apply(update);
    return;
  }
  updateQueue_->async([state = state_, update = std::move(update), erasures, generation]() {
    // A drop says nothing here: the update that carried it logged it.
    if (erasures) {
      erasures->whileCurrent(generation, [&] { state->apply(update); });
    } else {
      state->apply(update);
    }
  });
}

void RemoteConfiguration::State::apply(const std::optional<ServerConfiguration>& update) {
  if (!hasStore()) return;
  if (update && update->activityTaggerVersion &&
      !isValidActivityTaggerVersion(*update->activityTaggerVersion)) {
    // Reported, but kept: a version we cannot parse simply finds no activity model later.
    errorReporter().reportError(
        kInvalidTaggerVersionMessage,
        PlistDictionary{{"activityTaggerVersion", *update->activityTaggerVersion}});
  }
  auto merged = std::make_shared<const ConfigurationData>(merge(update));
  const std::string encoded = encodeConfigurationData(*merged);
  const bool stored = defaults->set(kLatestConfigurationKey, Bytes(encoded.begin(), encoded.end()));
  {
    // The service's settings hold for this process even when they could not be persisted.
    std::lock_guard<std::mutex> guard(mutex);
    latest = std::move(merged);
  }
  if (!stored) errorReporter().reportError(kStoreFailedMessage);
}

void RemoteConfiguration::forgetStored() {
  std::lock_guard<std::mutex> guard(state_->mutex);
  state_->latest.reset();
}

std::shared_ptr<const ConfigurationData> RemoteConfiguration::State::current() {
  {
    std::lock_guard<std::mutex> guard(mutex);
    if (latest) return latest;
  }
  // Load outside the lock; an update that lands meanwhile wins over what we load.
  std::shared_ptr<const ConfigurationData> loaded;
  std::optional<std::string> loadError;
  std::optional<Bytes> stored;
  const bool fromStore = hasStore();
  if (fromStore) stored = defaults->data(kLatestConfigurationKey);
  if (stored) {
    std::string error;
    auto decoded = decodeConfigurationData(
        std::string_view(reinterpret_cast<const char*>(stored->data()), stored->size()), &error);
    if (decoded) {
      loaded = std::make_shared<const ConfigurationData>(std::move(*decoded));
    } else {
      loadError = std::move(error);
    }
  }
  if (!loaded) loaded = std::make_shared<const ConfigurationData>(getDefaultConfiguration());

  bool installed = false;
  std::shared_ptr<const ConfigurationData> result;
  {
    std::lock_guard<std::mutex> guard(mutex);
    // Without the suite the defaults stand in, uncached, until it opens with the stored ones.
    if (!latest && !fromStore) return loaded;
    if (!latest) {
      latest = loaded;
      installed = true;
    }
    result = latest;
  }
  // Keeping the defaults after a failed load means one report, not one per read. The
  // reporter reads this configuration for its sampling rate, so it is told not to.
  if (installed && loadError) {
    errorReporter().reportError(kLoadFailedMessage,
                                PlatformError{kDecodingErrorDomain, 0, *loadError},
                                /*usingDefaultConfiguration=*/true, std::nullopt);
  }
  return result;
}

ConfigurationData RemoteConfiguration::getConfiguration() const { return *state_->current(); }

std::vector<ActivityType> RemoteConfiguration::parsedActivities() const {
  const auto configuration = state_->current();
  std::vector<ActivityType> result;
  if (!configuration->activities) return result;
  for (const std::string& name : *configuration->activities) {
    if (auto activity = activityTypeFromRawName(name)) {
      result.push_back(*activity);
    } else {
      state_->errorReporter().reportError(kUnknownActivityMessage,
                                          PlistDictionary{{"activityNameNotFound", name}});
    }
  }
  return result;
}

}  // namespace orvane
