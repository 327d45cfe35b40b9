// The development service as a separate process, driven over loopback HTTP.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "devservice/ServiceProcess.h"

namespace {

namespace fs = std::filesystem;
using devservice_testing::Service;
using devservice_testing::TempDir;
using nlohmann::json;

json uploadOf(std::initializer_list<const char*> logIds) {
  json events = json::array();
  for (const char* id : logIds) {
    events.push_back({{"ctx_8", id}, {"ctx_3", 1}, {"ctx_20", "paywall"}, {"ctx_14", "s1"}});
  }
  return {{"events", events},     {"bundle_id", "com.example.app"},
          {"license_key", "key"}, {"sdk_version", "5.13.0"},
          {"last_ota_update", 3}, {"installation_uuid", "install-1"},
          {"platform", "ios_ads"}};
}

std::vector<json> column(const json& rows, const char* key) {
  std::vector<json> out;
  for (const json& row : rows) out.push_back(row[key]);
  return out;
}

TEST(DevService, StoresOneRowPerEventSoThatResentRecordsShowAsDuplicates) {
  TempDir dir;
  Service service({"--db", (dir.path() / "store.sqlite").string()});
  ASSERT_NE(service.port(), 0);

  auto first = service.post("/v3/queue/tech", uploadOf({"a", "b"}));
  ASSERT_TRUE(first);
  EXPECT_EQ(first->status, 200);
  EXPECT_EQ(first->body, "");  // no payload file
  ASSERT_TRUE(service.post("/v3/queue/tech", uploadOf({"b", "c"})));
  ASSERT_TRUE(service.post("/v3/queue/tech", uploadOf({})));
  ASSERT_TRUE(service.post("/v2/error-reporting", {{"message", "Failed to remove logs from queue"},
                                                   {"installation_uuid", "install-1"},
                                                   {"severity", "error"},
                                                   {"payload", {{"err", nullptr}}}}));
  auto unreadable = service.client().Post("/v3/queue/tech", "not json", "application/json");
  ASSERT_TRUE(unreadable);

  const json stored = service.stored();
  EXPECT_EQ(stored["counts"], json({{"uploads", 4}, {"events", 4}, {"error_reports", 1}}));
  EXPECT_EQ(stored["duplicates"], json({{"b", 2}}));
  const json& events = stored["events"];
  EXPECT_EQ(column(events, "log_id"), (std::vector<json>{"a", "b", "b", "c"}));
  EXPECT_EQ(column(events, "request_number"), (std::vector<json>{1, 1, 2, 2}));
  EXPECT_EQ(events[0]["outcome"], 1);
  EXPECT_EQ(events[0]["flow"], "paywall");
  EXPECT_EQ(events[0]["installation_uuid"], "install-1");
  EXPECT_EQ(events[0]["event"]["ctx_14"], "s1");
  const json& uploads = stored["uploads"];
  EXPECT_EQ(column(uploads, "event_count"), (std::vector<json>{2, 2, 0, 0}));
  EXPECT_EQ(uploads[0]["envelope"]["bundle_id"], "com.example.app");
  EXPECT_FALSE(uploads[0]["envelope"].contains("events"));
  EXPECT_EQ(uploads[3]["envelope"], "not json");
  EXPECT_TRUE(uploads[3]["problem"].is_string());
  EXPECT_EQ(stored["error_reports"][0]["message"], "Failed to remove logs from queue");
  EXPECT_EQ(stored["error_reports"][0]["body"]["payload"], json({{"err", nullptr}}));
}

TEST(DevService, AnswersWithThePayloadFileAndRereadsItWhenItChanges) {
  TempDir dir;
  const json first = {{"geoIpData", {{"country", "DE"}}}};
  const json second = {{"geoIpData", {{"country", "FR"}}},
                       {"updateData", {{"version", 3}, {"modelInfoPerFlow", json::object()}}}};
  const fs::path file = dir.write("payload.json", first.dump());
  Service service({"--payload", file.string()});

  auto answer = service.post("/v3/queue/tech", uploadOf({"a"}));
  ASSERT_TRUE(answer);
  EXPECT_EQ(json::parse(answer->body), first);

  dir.write("payload.json", second.dump());
  answer = service.post("/v3/queue/tech", uploadOf({"a"}));
  ASSERT_TRUE(answer);
  EXPECT_EQ(json::parse(answer->body), second);
  auto health = json::parse(service.client().Get("/health")->body);
  EXPECT_EQ(health["payload"], json({{"loads", 2}, {"problem", ""}}));

  // Served as written even though the SDK would reject it; the problem is reported.
  dir.write("payload.json", R"({"updateData": {"version": "three"}})");
  answer = service.post("/v3/queue/tech", uploadOf({"a"}));
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->body, R"({"updateData": {"version": "three"}})");
  health = json::parse(service.client().Get("/health")->body);
  EXPECT_NE(health["payload"]["problem"], "");
}

TEST(DevService, ScriptedFaultsAnswerTheNextUploadsInOrder) {
  Service service({"--faults", "500,timeout:0.2"});
  auto res = service.post("/v3/queue/tech", uploadOf({"a"}));
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 500);
  EXPECT_FALSE(service.post("/v3/queue/tech", uploadOf({"a"})));  // broken connection
  res = service.post("/v3/queue/tech", uploadOf({"a"}));
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 200);  // script used up

  res = service.client().Post("/control/faults", R"(["503", "202:0.3"])", "application/json");
  ASSERT_TRUE(res);
  EXPECT_EQ(json::parse(res->body)["faults"], json({"503", "202:0.3"}));
  EXPECT_EQ(service.post("/v3/queue/tech", uploadOf({"a"}))->status, 503);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(service.post("/v3/queue/tech", uploadOf({"a"}))->status, 202);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(300));

  res = service.client().Post("/control/faults", "500,oops", "text/plain");
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 400);
  const json stored = service.stored();
  EXPECT_EQ(column(stored["uploads"], "answered"),
            (std::vector<json>{500, nullptr, 200, 503, 202}));
  EXPECT_EQ(stored["duplicates"], json({{"a", 5}}));
}

TEST(DevService, ServesModelFiles) {
  TempDir dir;
  const std::string bytes("model\0bytes", 11);
  dir.write("home.mlmodel", bytes);
  Service service({"--models", dir.path().string()});
  auto res = service.client().Get("/models/home.mlmodel");
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 200);
  EXPECT_EQ(res->body, bytes);
  EXPECT_EQ(service.client().Get("/models/missing.mlmodel")->status, 404);
}

TEST(DevService, StopsByItselfAtTheTimeLimitAndRefusesBadArguments) {
  // The port's holder outlives the second service's start however slow that is (a time limit
  // of a second raced it).
  Service holder({"--time-limit", "60"});
  ASSERT_NE(holder.port(), 0);
  Service taken({"--port", std::to_string(holder.port())});
  EXPECT_EQ(taken.port(), 0);
  EXPECT_EQ(taken.exitStatus(5), 1);

  Service limited({"--time-limit", "1"});
  ASSERT_NE(limited.port(), 0);
  EXPECT_EQ(limited.exitStatus(5), 0);
  EXPECT_FALSE(limited.client().Get("/health"));

  Service bad({"--faults", "500,oops"});
  EXPECT_EQ(bad.port(), 0);
  EXPECT_EQ(bad.exitStatus(5), 1);
}

}  // namespace
