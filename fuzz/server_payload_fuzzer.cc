// Feeds arbitrary bytes to the server payload decoder. Whatever the service (or anyone on the
// path) sends, decoding must return, not crash, and report why it refused; an accepted
// payload must carry only the values the decoder promises.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "FuzzSupport.h"
#include "config/ServerPayload.h"

namespace {

orvane::fuzz::Seeds seeds() {
  return {
      {"geo_only.json", R"({"geoIpData":{"estimated_country_code":"DE","estimated_city_id":7}})"},
      {"update.json",
       R"({"updateData":{"version":3,"generationId":"g1","modelInfoPerFlow":{"home":{)"
       R"("isControl":false,"modelUrl":"https://example.invalid/m.mlmodel","modelVersion":"2",)"
       R"("upsellThreshold":0.5,"contextPushThresholds":[0.1,0.9],"supportedDuration":5,)"
       R"("timingConfiguration":{"atLeastEvery":{"unit":"hours","value":6},"actBySkew":2,)"
       R"("atMostOncePer":{"unit":"minutes","value":30}}},"settings":{"isControl":true}},)"
       R"("configuration":{"errorReportingSampleRate":0.5,"activities":["couch"]},)"
       R"("assignmentId":"a","abTestInfo":{"assignmentsByFlow":{"home":{"assignment":"b",)"
       R"("isDefault":false}},"cohort":"c","testName":"t"}}})"},
      {"empty.json", "{}"},
  };
}

}  // namespace

ORVANE_FUZZ_SEEDS(seeds)

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view body(reinterpret_cast<const char*>(data), size);
  std::string error;
  auto payload = orvane::decodeServerPayload(body, &error);
  if (!payload) {
    if (error.empty()) std::abort();  // every refusal says why
    return 0;
  }
  if (payload->geoIpData && !payload->geoIpData->raw.is_object()) std::abort();
  // Decoding the same bytes twice gives the same answer.
  if (orvane::decodeServerPayload(body) != payload) std::abort();
  return 0;
}
