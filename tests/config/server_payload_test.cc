#include "config/ServerPayload.h"

#include <string>

#include <gtest/gtest.h>

namespace orvane {
namespace {

using nlohmann::json;

// Every key of every level. The flow names must survive untouched: one has underscores that
// key conversion would mangle, the other is camel case.
constexpr const char* kFull = R"({
  "geoIpData": {"countryCode": "DE"},
  "updateData": {"version": 9007199254740993, "generationId": "gen-7", "assignmentId": "asg-1",
    "modelInfoPerFlow": {
      "home_screen": {"isControl": false, "modelUrl": "https://m.example/h", "modelVersion": "h-12",
        "upsellThreshold": 0.25, "hourlyUpsellThresholds": [[0.1, 0.2], [0.3]],
        "contextPushThresholds": [0.5], "randomUpsellChance": 0.1, "supportedDuration": 3.0,
        "useInstantContext": true,
        "timingConfiguration": {"atLeastEvery": {"unit": "days", "value": 2}, "actBySkew": 0.5,
                                "atMostOncePer": {"unit": "hours", "value": 1.5}}},
      "paywallV2": {"isControl": true}},
    "configuration": {"errorReportingSampleRate": 0.05, "goldenSignals": [1, 65535]},
    "abTestInfo": {"cohort": "c1", "testName": "t1",
      "assignmentsByFlow": {"home_screen": {"assignment": "model_b", "isDefault": false}}}}})";

// The same document with every field name in snake case and every map key as it was.
json toSnakeCase(const json& value, bool isMap = false) {
  if (value.is_array()) {
    json out = json::array();
    for (const auto& item : value) out.push_back(toSnakeCase(item));
    return out;
  }
  if (!value.is_object()) return value;
  json out = json::object();
  for (const auto& [key, item] : value.items()) {
    const bool childIsMap =
        !isMap && (key == "modelInfoPerFlow" || key == "assignmentsByFlow" || key == "geoIpData");
    std::string snake;
    for (char c : key) {
      const bool upper = !isMap && c >= 'A' && c <= 'Z';
      snake += upper ? std::string("_") + char(c - 'A' + 'a') : std::string(1, c);
    }
    out[snake] = toSnakeCase(item, childIsMap);
  }
  return out;
}

// Decoding kFull with the value at `pointer` replaced, or removed when `value` is absent,
// fails with exactly `expectedError`.
void expectFailure(const std::string& pointer, const std::optional<json>& value,
                   const std::string& expectedError) {
  json doc = json::parse(kFull);
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
  std::string error;
  const auto payload = decodeServerPayload(kFull, &error);
  ASSERT_TRUE(payload && payload->updateData) << error;
  EXPECT_EQ(payload->geoIpData->raw, json::parse(R"({"countryCode": "DE"})"));
  const ServerUpdatePayload& update = *payload->updateData;
  EXPECT_EQ(update.version, 9007199254740993);  // one past what a double holds exactly
  EXPECT_EQ(update.generationId, "gen-7");
  EXPECT_EQ(update.assignmentId, "asg-1");
  const ServerModelInfo& home = update.modelInfoPerFlow.at("home_screen");
  EXPECT_EQ(home, (ServerModelInfo{false, "https://m.example/h", "h-12", 0.25,
                                   std::vector<std::vector<double>>{{0.1, 0.2}, {0.3}},
                                   std::vector<double>{0.5},
                                   0.1,  // a double, not a float widened back
                                   3, true,
                                   ServerTimingConfiguration{ServerTiming{"days", 2.0}, 0.5,
                                                             ServerTiming{"hours", 1.5}}}));
  EXPECT_TRUE(update.modelInfoPerFlow.at("paywallV2").isControl);
  EXPECT_EQ(update.configuration->errorReportingSampleRate, 0.05f);
  EXPECT_EQ(update.configuration->goldenSignals, (std::vector<uint16_t>{1, 65535}));
  EXPECT_EQ(update.configuration->additionalAccelDataSampleRate, std::nullopt);
  EXPECT_EQ(update.abTestInfo, (ServerABTestInfo{std::map<std::string, ServerAssignmentInfo>{
                                                     {"home_screen", {"model_b", false}}},
                                                 "c1", "t1"}));
}

TEST(ServerPayloadTest, SnakeCaseKeysDecodeTheSameAndFlowNamesStayAsSent) {
  const std::string snake = toSnakeCase(json::parse(kFull)).dump();
  ASSERT_NE(snake.find("\"model_info_per_flow\""), std::string::npos);
  const auto fromSnake = decodeServerPayload(snake);
  ASSERT_TRUE(fromSnake);
  EXPECT_EQ(fromSnake, decodeServerPayload(kFull));
  EXPECT_EQ(fromSnake->updateData->modelInfoPerFlow.count("home_screen"), 1u);
  EXPECT_EQ(fromSnake->updateData->modelInfoPerFlow.count("paywallV2"), 1u);
}

TEST(ServerPayloadTest, OptionalPartsMayBeAbsentOrNull) {
  EXPECT_EQ(decodeServerPayload("{}"), ServerPayload{});
  EXPECT_EQ(decodeServerPayload(R"({"geoIpData": null, "updateData": null})"), ServerPayload{});
  ServerUpdatePayload expected;
  expected.version = 4;
  expected.modelInfoPerFlow["f"].isControl = true;
  expected.abTestInfo = ServerABTestInfo{};
  const auto minimal = decodeServerPayload(R"({"updateData": {"version": 4, "abTestInfo": {},
      "modelInfoPerFlow": {"f": {"isControl": true, "modelUrl": null}}}})");
  EXPECT_EQ(minimal, (ServerPayload{std::nullopt, expected}));
}

TEST(ServerPayloadTest, MissingRequiredKeyAtEachLevelFailsTheWholePayload) {
  const std::string flow = "/updateData/modelInfoPerFlow/home_screen";
  const std::string flowPath = "updateData.modelInfoPerFlow.home_screen.";
  const std::string assignment = "/updateData/abTestInfo/assignmentsByFlow/home_screen";
  const std::string assignmentPath = "updateData.abTestInfo.assignmentsByFlow.home_screen.";
  const std::string missing = ": missing required key";
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"/updateData/version", "updateData.version" + missing},
      {flow + "/isControl", flowPath + "isControl" + missing},
      {flow + "/timingConfiguration/atLeastEvery/unit",
       flowPath + "timingConfiguration.atLeastEvery.unit" + missing},
      {assignment + "/assignment", assignmentPath + "assignment" + missing},
  };
  for (const auto& [pointer, error] : cases) expectFailure(pointer, std::nullopt, error);
  expectFailure("/updateData/version", json(nullptr), "updateData.version: null for required key");
}

TEST(ServerPayloadTest, WrongTypesAndOutOfRangeNumbersFail) {
  const std::string flow = "/updateData/modelInfoPerFlow/home_screen";
  struct Case {
    std::string pointer;
    json value;
    std::string error;
  };
  const std::vector<Case> cases = {
      {"/updateData/version", "3", "updateData.version: expected integer, found string"},
      {"/updateData/version", 1.5, "updateData.version: expected integer, found fractional number"},
      {"/updateData/version", 9223372036854775808ull, "updateData.version: integer out of range"},
      {flow + "/isControl", 1,
       "updateData.modelInfoPerFlow.home_screen.isControl: expected boolean, found number"},
      {flow + "/hourlyUpsellThresholds", json::parse("[[0.1], [0.2, true]]"),
       "updateData.modelInfoPerFlow.home_screen.hourlyUpsellThresholds[1][1]: expected number, "
       "found boolean"},
      {"/updateData/configuration/goldenSignals", json::parse("[1, 65536]"),
       "updateData.configuration.goldenSignals[1]: integer out of range for 16-bit unsigned"},
      {"/updateData/configuration/errorReportingSampleRate", 1e39,
       "updateData.configuration.errorReportingSampleRate: number out of range for 32-bit float"},
      {"/geoIpData", "DE", "geoIpData: expected object, found string"},
  };
  for (const auto& c : cases) expectFailure(c.pointer, c.value, c.error);
  std::string error;
  EXPECT_FALSE(decodeServerPayload("[]", &error));
  EXPECT_EQ(error, "(root): expected object, found array");
}

TEST(ServerPayloadTest, IntegralFloatsAndTheLargestFloatAreAccepted) {
  const auto payload = decodeServerPayload(R"({"updateData": {"version": -2.0,
      "modelInfoPerFlow": {}, "configuration": {"additionalAccelDataDurationSeconds": 1e3,
      "additionalAccelDataSampleRate": 3.4028235e38, "errorReportingSampleRate": 1}}})");
  ASSERT_TRUE(payload);
  const ServerConfiguration& config = *payload->updateData->configuration;
  EXPECT_EQ(payload->updateData->version, -2);
  EXPECT_EQ(config.additionalAccelDataDurationSeconds, 1000);
  EXPECT_EQ(config.additionalAccelDataSampleRate, std::numeric_limits<float>::max());
  EXPECT_EQ(config.errorReportingSampleRate, 1.0f);
}

TEST(ServerPayloadTest, MalformedBodiesFailWithAReason) {
  const std::string deep =
      R"({"geoIpData": {"x": )" + std::string(100000, '[') + std::string(100000, ']') + "}}";
  for (const std::string& body : {std::string(), std::string("{"), std::string("not json"),
                                  std::string(R"({"updateData": 1e999})"), deep}) {
    std::string error;
    EXPECT_FALSE(decodeServerPayload(body, &error)) << body.substr(0, 40);
    EXPECT_FALSE(error.empty());
  }
}

}  // namespace
}  // namespace orvane
