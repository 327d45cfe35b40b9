// The geo-IP estimate from both sides: the service's answer (a payload body whose estimate
// the generator takes in and stores) and the stored form read back at launch. An estimate
// that is accepted must be stored, load back unchanged and give the same signals; one that
// is refused must leave a report and no signals.
#include <cstddef>
#include <cstdint>
#include <memory>

#include "FuzzSupport.h"
#include "config/ServerPayload.h"
#include "generators/GeoIPSignalGenerator.h"

namespace {

using namespace orvane;

constexpr Date kNow{1.7e9};

struct Setup {
  std::shared_ptr<UserDefaultsProvider> defaults = fuzz::makeDefaults();
  std::shared_ptr<StubDateProvider> date = std::make_shared<StubDateProvider>(kNow);
  fuzz::CountingErrorReporter reporter;

  std::unique_ptr<GeoIPSignalGenerator> generator() {
    return std::make_unique<GeoIPSignalGenerator>(defaults, date,
                                                  [this]() -> ErrorReporter& { return reporter; });
  }
};

void checkStoredRoundTrip(const GeoIPData& data) {
  auto encoded = encodeGeoIPData(data);
  FUZZ_CHECK(encoded.ok());
  auto again = decodeGeoIPData(*encoded);
  FUZZ_CHECK(again.ok() && *again == data);
}

void fromTheService(std::string_view body) {
  auto payload = decodeServerPayload(body);
  if (!payload || !payload->geoIpData) return;
  Setup setup;
  auto generator = setup.generator();
  generator->updateGeoIPData(payload->geoIpData);
  auto decoded = decodeGeoIPPayload(*payload->geoIpData);
  FUZZ_CHECK(decoded.ok() == (setup.reporter.count == 0));
  if (!decoded) {
    FUZZ_CHECK(generator->allSignals().empty() && !setup.defaults->data("gip_latest_data"));
    return;
  }
  decoded->lastUpdated = kNow;
  checkStoredRoundTrip(*decoded);
  auto restarted = setup.generator();
  FUZZ_CHECK(setup.reporter.count == 0);
  FUZZ_CHECK(restarted->allSignals() == generator->allSignals());
}

void fromTheStore(std::string_view stored) {
  Setup setup;
  setup.defaults->set(GeoIPSignalGenerator::kLatestDataKey, fuzz::asBytes(stored));
  const SignalList signals = setup.generator()->allSignals();
  auto decoded = decodeGeoIPData(fuzz::asBytes(stored));
  FUZZ_CHECK(decoded.ok() == (setup.reporter.count == 0));
  if (!decoded) {
    FUZZ_CHECK(signals.empty());
    return;
  }
  checkStoredRoundTrip(*decoded);
  // The age comes last and is the only signal of an estimate without fields.
  FUZZ_CHECK(!signals.empty() && signals.back().id() == SignalEnum::id(605));
}

fuzz::Seeds seeds() {
  GeoIPData full;
  full.estimatedCityId = 2950159;
  full.estimatedCityName = "Berlin";
  full.estimatedCountryCode = "DE";
  full.estimatedContinentCode = "EU";
  full.estimatedLatitude = 52.52;
  full.estimatedLongitude = 13.405;
  full.estimatedElevation = 34;
  full.estimatedPopulation = 3644826;
  full.estimatedStateIsoCode = "BE";
  full.lastUpdated = kNow;
  GeoIPData partial;
  partial.estimatedCountryCode = "US";
  partial.estimatedUsStateCode = "CA";
  partial.estimatedLatitude = -33.9;
  partial.lastUpdated = Date{0};
  auto text = [](const GeoIPData& data) {
    const Bytes bytes = encodeGeoIPData(data).value();
    return std::string(bytes.begin(), bytes.end());
  };
  return {
      {"stored_full.json", text(full)},
      {"stored_partial.json", text(partial)},
      {"stored_empty.json", text(GeoIPData{})},
      {"service_snake_case.json",
       R"({"geoIpData":{"estimated_city_id":7,"estimated_city_name":"Köln",)"
       R"("estimated_country_code":"DE","estimated_latitude":50.94,"estimated_longitude":6.96,)"
       R"("estimated_us_state_code":null,"estimated_population":1084831}})"},
      {"service_camel_case.json",
       R"({"geoIpData":{"estimatedCityId":5391959,"estimatedCountryCode":"US",)"
       R"("estimatedStateIsoCode":"CA","estimatedElevation":16},"updateData":null})"},
  };
}

}  // namespace

ORVANE_FUZZ_SEEDS(seeds)

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text = orvane::fuzz::asText(data, size);
  fromTheService(text);
  fromTheStore(text);
  return 0;
}
