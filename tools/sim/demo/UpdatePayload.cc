#include "UpdatePayload.h"

#include <cmath>

namespace orvane::sim::demo {

using nlohmann::json;

namespace {

int secondsOf(const Script& script, const std::string& flow) {
  for (const FlowPlan& plan : script.flows) {
    if (plan.name == flow) return plan.seconds;
  }
  return 3;
}

json configuration(const Script& script) {
  return {{"errorReportingSampleRate", 1.0},
          {"uploadContentEncoding", "gzip"},  // the development service takes gzip bodies
          {"additionalAccelDataSampleRate", 0.1},
          {"automaticEntryPointPollingIntervalSeconds",
           static_cast<int64_t>(std::lround(script.observerPolling))}};
}

}  // namespace

json makeCollectionPayload(int64_t version, const Script& script) {
  json flows = json::object();
  for (const FlowPlan& plan : script.flows) {
    const bool instant = plan.form == RequestForm::kInstantContext;
    flows[plan.name] = {{"isControl", true},
                        {"randomUpsellChance", 1.0},
                        {"supportedDuration", plan.seconds},
                        {"useInstantContext", instant}};
  }
  return {{"updateData",
           {{"version", version},
            {"generationId", "demo-collect-" + std::to_string(version)},
            {"modelInfoPerFlow", flows},
            {"configuration", configuration(script)}}}};
}

json withDemoConfiguration(json payload, const Script& script) {
  if (payload.is_object() && payload["updateData"].is_object() &&
      !payload["updateData"].contains("configuration")) {
    payload["updateData"]["configuration"] = configuration(script);
  }
  return payload;
}

json makeUpdatePayload(int64_t version, const std::string& serviceURL, const Script& script) {
  auto seconds = [](double value) { return json{{"unit", "seconds"}, {"value", value}}; };
  const json model = {{"isControl", false},
                      {"modelUrl", serviceURL + "/models/" + kModelFile},
                      {"modelVersion", kModelVersion},
                      {"upsellThreshold", 0.5},
                      {"randomUpsellChance", 0.05},
                      {"supportedDuration", 3},
                      {"useInstantContext", false}};
  json flows = {
      // The model judges the moment; a bad one still upsells now and then, to keep learning.
      {kModelFlow, model},
      // The same model picks the observed flow's good moments (observers evaluate 3 s too).
      {kObservedFlow, model},
      // Always upsell, but at most once per span.
      {kCappedFlow,
       {{"isControl", true},
        {"randomUpsellChance", 1.0},
        {"supportedDuration", secondsOf(script, kCappedFlow)},
        {"useInstantContext", false},
        {"timingConfiguration", {{"atMostOncePer", seconds(script.atMostOncePer)}}}}},
      // Rarely upsell by chance, but at least once per span.
      {kDueFlow,
       {{"isControl", true},
        {"randomUpsellChance", 0.2},
        {"supportedDuration", secondsOf(script, kDueFlow)},
        {"useInstantContext", true},
        {"timingConfiguration",
         {{"atLeastEvery", seconds(script.atLeastEvery)}, {"actBySkew", 1.0}}}}},
  };
  return {{"updateData",
           {{"version", version},
            {"generationId", "demo-update-" + std::to_string(version)},
            {"modelInfoPerFlow", flows},
            {"configuration", configuration(script)}}}};
}

}  // namespace orvane::sim::demo
