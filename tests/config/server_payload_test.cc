#include "config/ServerPayload.h"

#include <string>

#include <gtest/gtest.h>

namespace orvane {
namespace {

using nlohmann::json;

// Every key of every level, with flow names that must survive untouched: an underscore name
// that snake-case conversion would mangle and a camel-case name it would otherwise produce.
constexpr const char* kFullCamel = R"({
  "geoIpData": {"countryCode": "DE", "nested": {"a": [1, 2]}},
  "updateData": {
    "version": 9007199254740993,
    "generationId": "gen-7",
    "modelInfoPerFlow": {
      "home_screen": {
        "isControl": false,
        "modelUrl": "https://models.example/home.mlmodel",
        "modelVersion": "home-12",
        "upsellThreshold": 0.25,
        "hourlyUpsellThresholds": [[0.1, 0.2], [0.3]],
        "contextPushThresholds": [0.5, 0.75],
        "randomUpsellChance": 0.1,
        "supportedDuration": 3.0,
        "useInstantContext": true,
        "timingConfiguration": {
          "atLeastEvery": {"unit": "days", "value": 2},
          "actBySkew": 0.5,
          "atMostOncePer": {"unit": "hours", "value": 1.5}
        }
      },
      "paywallV2": {"isControl": true}
    },
    "configuration": {"errorReportingSampleRate": 0.05, "goldenSignals": [1, 65535],
                      "activities": ["couch"], "goldenSignalsDurationSeconds": 5},
    "assignmentId": "asg-1",
    "abTestInfo": {
      "assignmentsByFlow": {"home_screen": {"assignment": "model_b", "isDefault": false}},
      "cohort": "c1",
      "testName": "t1"
    }
  }
})";

constexpr const char* kFullSnake = R"({
  "geo_ip_data": {"countryCode": "DE", "nested": {"a": [1, 2]}},
  "update_data": {
    "version": 9007199254740993,
    "generation_id": "gen-7",
    "model_info_per_flow": {
      "home_screen": {
        "is_control": false,
        "model_url": "https://models.example/home.mlmodel",
        "model_version": "home-12",
        "upsell_threshold": 0.25,
        "hourly_upsell_thresholds": [[0.1, 0.2], [0.3]],
        "context_push_thresholds": [0.5, 0.75],
        "random_upsell_chance": 0.1,
        "supported_duration": 3.0,
        "use_instant_context": true,
        "timing_configuration": {
          "at_least_every": {"unit": "days", "value": 2},
          "act_by_skew": 0.5,
          "at_most_once_per": {"unit": "hours", "value": 1.5}
        }
      },
      "paywallV2": {"is_control": true}
    },
    "configuration": {"error_reporting_sample_rate": 0.05, "golden_signals": [1, 65535],
                      "activities": ["couch"], "golden_signals_duration_seconds": 5},
    "assignment_id": "asg-1",
    "ab_test_info": {
      "assignments_by_flow": {"home_screen": {"assignment": "model_b", "is_default": false}},
      "cohort": "c1",
      "test_name": "t1"
    }
  }
})";

ServerPayload decodeOrFail(const std::string& body) {
  std::string error;
  auto payload = decodeServerPayload(body, &error);
  EXPECT_TRUE(payload) << error;
  return payload.value_or(ServerPayload{});
}

// Decoding `base` with the value at `pointer` replaced (or removed when `value` is absent)
// fails with exactly `expectedError`.
void expectFailure(const std::string& pointer, std::optional<json> value,
                   const std::string& expectedError) {
  json doc = json::parse(kFullCamel);
  const json::json_pointer p(pointer);
  if (value) {
    doc[p] = *value;
  } else {
    doc.at(p.parent_pointer()).erase(p.back());
  }
  std::string error;
  EXPECT_FALSE(decodeServerPayload(doc.dump(), &error)) << pointer;
  EXPECT_EQ(error, expectedError) << pointer;
}

TEST(ServerPayloadTest, DecodesEveryFieldAtItsWidth) {
  const ServerPayload payload = decodeOrFail(kFullCamel);
  ASSERT_TRUE(payload.geoIpData && payload.updateData);
  EXPECT_EQ(payload.geoIpData->raw, json::parse(R"({"countryCode":"DE","nested":{"a":[1,2]}})"));
  const ServerUpdatePayload& update = *payload.updateData;
  EXPECT_EQ(update.version, 9007199254740993);  // one past what a double holds exactly
  EXPECT_EQ(update.generationId, "gen-7");
  EXPECT_EQ(update.assignmentId, "asg-1");

  ASSERT_EQ(update.modelInfoPerFlow.size(), 2u);
  const ServerModelInfo& home = update.modelInfoPerFlow.at("home_screen");
  EXPECT_FALSE(home.isControl);
  EXPECT_EQ(home.modelUrl, "https://models.example/home.mlmodel");
  EXPECT_EQ(home.modelVersion, "home-12");
  EXPECT_EQ(home.upsellThreshold, 0.25);
  EXPECT_EQ(home.hourlyUpsellThresholds, (std::vector<std::vector<double>>{{0.1, 0.2}, {0.3}}));
  EXPECT_EQ(home.contextPushThresholds, (std::vector<double>{0.5, 0.75}));
  EXPECT_EQ(home.randomUpsellChance, 0.1);  // a double, not a float widened back
  EXPECT_EQ(home.supportedDuration, 3);
  EXPECT_EQ(home.useInstantContext, true);
  ASSERT_TRUE(home.timingConfiguration);
  EXPECT_EQ(home.timingConfiguration->atLeastEvery, (ServerTiming{"days", 2.0}));
  EXPECT_EQ(home.timingConfiguration->actBySkew, 0.5);
  EXPECT_EQ(home.timingConfiguration->atMostOncePer, (ServerTiming{"hours", 1.5}));
  EXPECT_TRUE(update.modelInfoPerFlow.at("paywallV2").isControl);

  ASSERT_TRUE(update.configuration);
  EXPECT_EQ(update.configuration->errorReportingSampleRate, 0.05f);
  EXPECT_EQ(update.configuration->goldenSignals, (std::vector<uint16_t>{1, 65535}));
  EXPECT_EQ(update.configuration->goldenSignalsDurationSeconds, 5);
  EXPECT_EQ(update.configuration->activities, (std::vector<std::string>{"couch"}));
  EXPECT_EQ(update.configuration->additionalAccelDataSampleRate, std::nullopt);

  ASSERT_TRUE(update.abTestInfo);
  EXPECT_EQ(update.abTestInfo->cohort, "c1");
  EXPECT_EQ(update.abTestInfo->testName, "t1");
  EXPECT_EQ(update.abTestInfo->assignmentsByFlow,
            (std::map<std::string, ServerAssignmentInfo>{{"home_screen", {"model_b", false}}}));
}

TEST(ServerPayloadTest, SnakeCaseKeysDecodeTheSameAndFlowNamesStayAsSent) {
  const ServerPayload camel = decodeOrFail(kFullCamel);
  const ServerPayload snake = decodeOrFail(kFullSnake);
  EXPECT_EQ(camel, snake);
  ASSERT_TRUE(snake.updateData);
  EXPECT_TRUE(snake.updateData->modelInfoPerFlow.count("home_screen"));
  EXPECT_TRUE(snake.updateData->modelInfoPerFlow.count("paywallV2"));
  EXPECT_FALSE(snake.updateData->modelInfoPerFlow.count("homeScreen"));
  // The geo-IP object is kept as sent, its keys included.
  EXPECT_TRUE(snake.geoIpData->raw.contains("countryCode"));
}

TEST(ServerPayloadTest, OptionalPartsMayBeAbsentOrNull) {
  EXPECT_EQ(decodeOrFail("{}"), ServerPayload{});
  EXPECT_EQ(decodeOrFail(R"({"geoIpData": null, "updateData": null})"), ServerPayload{});

  const ServerPayload minimal =
      decodeOrFail(R"({"updateData": {"version": 4, "modelInfoPerFlow": {"f": {"isControl": true,
          "modelUrl": null, "timingConfiguration": {}}}, "abTestInfo": {}}})");
  ServerUpdatePayload expected;
  expected.version = 4;
  expected.modelInfoPerFlow["f"].isControl = true;
  expected.modelInfoPerFlow["f"].timingConfiguration = ServerTimingConfiguration{};
  expected.abTestInfo = ServerABTestInfo{};
  EXPECT_EQ(minimal.updateData, expected);
}

TEST(ServerPayloadTest, MissingRequiredKeyAtEachLevelFailsTheWholePayload) {
  const std::string flow = "/updateData/modelInfoPerFlow/home_screen";
  const std::string timing = flow + "/timingConfiguration";
  const std::string assignment = "/updateData/abTestInfo/assignmentsByFlow/home_screen";
  struct Case {
    std::string pointer;
    std::string error;
  };
  const std::vector<Case> cases = {
      {"/updateData/version", "updateData.version: missing required key"},
      {"/updateData/modelInfoPerFlow", "updateData.modelInfoPerFlow: missing required key"},
      {flow + "/isControl",
       "updateData.modelInfoPerFlow.home_screen.isControl: missing required key"},
      {timing + "/atLeastEvery/unit",
       "updateData.modelInfoPerFlow.home_screen.timingConfiguration.atLeastEvery.unit: missing "
       "required key"},
      {timing + "/atMostOncePer/value",
       "updateData.modelInfoPerFlow.home_screen.timingConfiguration.atMostOncePer.value: missing "
       "required key"},
      {assignment + "/assignment",
       "updateData.abTestInfo.assignmentsByFlow.home_screen.assignment: missing required key"},
      {assignment + "/isDefault",
       "updateData.abTestInfo.assignmentsByFlow.home_screen.isDefault: missing required key"},
  };
  for (const auto& c : cases) expectFailure(c.pointer, std::nullopt, c.error);
  // A required key that is present but null counts as missing too.
  expectFailure("/updateData/version", json(nullptr), "updateData.version: null for required key");
}

TEST(ServerPayloadTest, WrongTypesAndOutOfRangeNumbersFail) {
  const std::string flow = "/updateData/modelInfoPerFlow/home_screen";
  const std::string config = "/updateData/configuration";
  struct Case {
    std::string pointer;
    json value;
    std::string error;
  };
  const std::vector<Case> cases = {
      {"/updateData/version", "3", "updateData.version: expected integer, found string"},
      {"/updateData/version", 1.5, "updateData.version: expected integer, found fractional number"},
      {"/updateData/version", 9223372036854775808ull, "updateData.version: integer out of range"},
      {"/updateData/version", 1e19, "updateData.version: integer out of range"},
      {"/updateData/modelInfoPerFlow", json::array(),
       "updateData.modelInfoPerFlow: expected object, found array"},
      {flow + "/isControl", 1,
       "updateData.modelInfoPerFlow.home_screen.isControl: expected boolean, found number"},
      {flow + "/modelUrl", 5,
       "updateData.modelInfoPerFlow.home_screen.modelUrl: expected string, found number"},
      {flow + "/upsellThreshold", "0.5",
       "updateData.modelInfoPerFlow.home_screen.upsellThreshold: expected number, found string"},
      {flow + "/hourlyUpsellThresholds", json::parse(R"([[0.1], [0.2, true]])"),
       "updateData.modelInfoPerFlow.home_screen.hourlyUpsellThresholds[1][1]: expected number, "
       "found boolean"},
      {config + "/goldenSignals", json::parse("[1, 65536]"),
       "updateData.configuration.goldenSignals[1]: integer out of range for 16-bit unsigned"},
      {config + "/goldenSignals", json::parse("[-1]"),
       "updateData.configuration.goldenSignals[0]: integer out of range for 16-bit unsigned"},
      {config + "/additionalAccelDataSampleRate", 1e39,
       "updateData.configuration.additionalAccelDataSampleRate: number out of range for 32-bit "
       "float"},
      {config + "/activities", json::parse(R"(["couch", 3])"),
       "updateData.configuration.activities[1]: expected string, found number"},
      {"/updateData/abTestInfo/cohort", false,
       "updateData.abTestInfo.cohort: expected string, found boolean"},
      {"/geoIpData", "DE", "geoIpData: expected object, found string"},
  };
  for (const auto& c : cases) expectFailure(c.pointer, c.value, c.error);

  std::string error;
  EXPECT_FALSE(decodeServerPayload("[]", &error));
  EXPECT_EQ(error, "(root): expected object, found array");
}

TEST(ServerPayloadTest, IntegralFloatsAndFloatExtremesAreAccepted) {
  const ServerPayload payload = decodeOrFail(
      R"({"updateData": {"version": -2.0, "modelInfoPerFlow": {},
          "configuration": {"additionalAccelDataDurationSeconds": 1e3,
                            "additionalAccelDataSampleRate": 3.4028235e38,
                            "errorReportingSampleRate": 1}}})");
  const ServerConfiguration& config = *payload.updateData->configuration;
  EXPECT_EQ(payload.updateData->version, -2);
  EXPECT_EQ(config.additionalAccelDataDurationSeconds, 1000);
  EXPECT_EQ(config.additionalAccelDataSampleRate, std::numeric_limits<float>::max());
  EXPECT_EQ(config.errorReportingSampleRate, 1.0f);
}

TEST(ServerPayloadTest, MalformedBodiesFailWithoutThrowing) {
  const std::string deep =
      R"({"geoIpData": {"x": )" + std::string(100000, '[') + std::string(100000, ']') + "}}";
  for (const std::string& body : {std::string(), std::string("{"), std::string("not json"),
                                  std::string("{\"updateData\": 1e999}"), deep}) {
    std::string error;
    EXPECT_FALSE(decodeServerPayload(body, &error)) << body.substr(0, 40);
    EXPECT_FALSE(error.empty());
  }
}

}  // namespace
}  // namespace orvane
