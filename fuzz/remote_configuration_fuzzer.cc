// The stored remote configuration, read the way every component gets it: through the first
// read of a RemoteConfiguration over the defaults. A record that decodes is exactly what the
// components see and survives being stored again; anything else gives the built-in defaults
// and a report. The same bytes taken as the service's settings are merged, stored and must
// read back as merged.
#include <cstddef>
#include <cstdint>

#include "FuzzSupport.h"
#include "config/RemoteConfiguration.h"
#include "util/JsonReader.h"

namespace {

using namespace orvane;

struct Setup {
  std::shared_ptr<UserDefaultsProvider> defaults = fuzz::makeDefaults();
  fuzz::CountingErrorReporter reporter;

  std::unique_ptr<RemoteConfiguration> configuration() {
    return std::make_unique<RemoteConfiguration>(
        defaults, [this]() -> ErrorReporter& { return reporter; }, nullptr);
  }
};

void fromTheStore(std::string_view stored) {
  Setup setup;
  setup.defaults->set(RemoteConfiguration::kLatestConfigurationKey, fuzz::asBytes(stored));
  auto configuration = setup.configuration();
  const ConfigurationData seen = configuration->getConfiguration();
  const size_t loadReports = setup.reporter.count;
  // Every configured name is either an activity or reported.
  const size_t named = seen.activities ? seen.activities->size() : 0;
  FUZZ_CHECK(configuration->parsedActivities().size() + setup.reporter.count - loadReports ==
             named);

  auto decoded = decodeConfigurationData(stored);
  if (!decoded) {
    FUZZ_CHECK(seen == RemoteConfiguration::getDefaultConfiguration());
    FUZZ_CHECK(loadReports == 1);
    return;
  }
  FUZZ_CHECK(seen == *decoded && loadReports == 0);
  auto again = decodeConfigurationData(encodeConfigurationData(seen));
  FUZZ_CHECK(again && *again == seen);
}

void fromTheService(std::string_view body) {
  auto json = parseJson(body);
  if (!json) return;
  JsonReader reader(*json);
  auto update = decodeServerConfiguration(reader);
  if (!update) return;
  Setup setup;
  setup.configuration()->applyConfigurationUpdate(update);
  FUZZ_CHECK(setup.configuration()->getConfiguration() == RemoteConfiguration::merge(update));
}

fuzz::Seeds seeds() {
  ConfigurationData minimal;
  minimal.additionalAccelDataDurationSeconds = 10;
  minimal.additionalAccelDataSampleRate = 0.1f;
  minimal.errorReportingSampleRate = 1.0f;
  minimal.automaticEntryPointPollingIntervalSeconds = 60;
  return {
      {"stored_defaults.json",
       encodeConfigurationData(RemoteConfiguration::getDefaultConfiguration())},
      {"stored_required_only.json", encodeConfigurationData(minimal)},
      {"stored_snake_case.json",
       R"({"additional_accel_data_duration_seconds":20,"additional_accel_data_sample_rate":0.05,)"
       R"("error_reporting_sample_rate":0.001,"automatic_entry_point_polling_interval_seconds":30,)"
       R"("golden_signals":[219,958],"activities":["couch","walking","pocket"],)"
       R"("activity_tagger_version":"0.0.5"})"},
      {"service_partial.json",
       R"({"errorReportingSampleRate":0.5,"goldenSignals":[],"activityTaggerVersion":"1.2"})"},
  };
}

}  // namespace

ORVANE_FUZZ_SEEDS(seeds)

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text = orvane::fuzz::asText(data, size);
  fromTheStore(text);
  fromTheService(text);
  return 0;
}
