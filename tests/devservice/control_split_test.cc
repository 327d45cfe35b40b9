// The service's control arm: installations split by a hash of their uuid, each answered with
// its arm's file, the arm stored with every upload.
#include <gtest/gtest.h>

#include <sqlite3.h>

#include <map>

#include "devservice/ServiceProcess.h"

namespace {

namespace fs = std::filesystem;
using devservice_testing::Service;
using devservice_testing::TempDir;
using nlohmann::json;

json uploadFrom(const std::string& installation) {
  return {{"events", json::array({{{"ctx_8", installation + "-log"}, {"ctx_20", "paywall"}}})},
          {"installation_uuid", installation},
          {"sdk_version", "5.13.0"}};
}

// The file each installation was answered with, by the payload's version.
int64_t answeredVersion(const Service& service, const std::string& installation) {
  auto res = service.post("/v3/queue/tech", uploadFrom(installation));
  if (!res || res->status != 200) return -1;
  return json::parse(res->body)["updateData"]["version"].get<int64_t>();
}

json versioned(int64_t version) {
  return {{"updateData", {{"version", version}, {"modelInfoPerFlow", json::object()}}}};
}

TEST(DevServiceControlSplit, EachInstallationKeepsItsArmAndGetsItsArmsFile) {
  TempDir dir;
  const fs::path model = dir.write("payload.json", versioned(7).dump());
  const fs::path control = dir.write("control.json", versioned(5).dump());
  Service service({"--payload", model.string(), "--control-payload", control.string(),
                   "--control-share", "0.5"});
  ASSERT_NE(service.port(), 0);

  std::map<std::string, int64_t> first;
  for (int i = 0; i < 40; ++i) {
    const std::string installation = "install-" + std::to_string(i);
    first[installation] = answeredVersion(service, installation);
  }
  int controlCount = 0;
  for (const auto& [installation, version] : first) {
    ASSERT_TRUE(version == 7 || version == 5) << installation << " got " << version;
    controlCount += version == 5;
  }
  // 40 draws at one half: both arms come up (the chance of either being empty is 2^-39).
  EXPECT_GT(controlCount, 0);
  EXPECT_LT(controlCount, 40);

  // Files are read again when they change; each installation stays in its arm.
  dir.write("payload.json", versioned(9).dump());
  dir.write("control.json", versioned(8).dump());
  for (const auto& [installation, version] : first) {
    EXPECT_EQ(answeredVersion(service, installation), version == 7 ? 9 : 8) << installation;
  }

  const json stored = service.stored();
  EXPECT_EQ(stored["control_share"], 0.5);
  std::map<std::string, std::string> armOf;
  for (const json& upload : stored["uploads"]) {
    const std::string installation = upload["installation_uuid"];
    const std::string arm = upload["arm"];
    EXPECT_EQ(arm, first[installation] == 5 ? "control" : "payload") << installation;
    armOf[installation] = arm;
  }
  EXPECT_EQ(armOf.size(), 40u);
  EXPECT_EQ(stored["arms"]["control"]["installations"], controlCount);
  EXPECT_EQ(stored["arms"]["control"]["uploads"], 2 * controlCount);
  EXPECT_EQ(stored["arms"]["payload"]["installations"], 40 - controlCount);
  EXPECT_EQ(stored["arms"]["payload"]["events"], 2 * (40 - controlCount));

  const json health = json::parse(service.client().Get("/health")->body);
  EXPECT_EQ(health["control_share"], 0.5);
  EXPECT_EQ(health["arms"], stored["arms"]);
  EXPECT_EQ(health["control_payload"]["loads"], 2);

  // Another service with the same share splits the same way: the hash is the service's own.
  Service again({"--payload", model.string(), "--control-payload", control.string(),
                 "--control-share", "0.5"});
  for (const auto& [installation, version] : first) {
    EXPECT_EQ(answeredVersion(again, installation), version == 7 ? 9 : 8) << installation;
  }
}

TEST(DevServiceControlSplit, TheControlArmHoldsRoughlyTheShareOfInstallations) {
  TempDir dir;
  const fs::path model = dir.write("payload.json", versioned(2).dump());
  const fs::path control = dir.write("control.json", versioned(1).dump());
  Service service({"--payload", model.string(), "--control-payload", control.string(),
                   "--control-share", "0.2"});
  const int installations = 1000;
  int controlCount = 0;
  for (int i = 0; i < installations; ++i) {
    // Uuid-shaped names that differ only in their last characters, as real ones may.
    char uuid[40];
    std::snprintf(uuid, sizeof uuid, "6f1c2a9e-0b7d-4c55-9e3a-%012d", i);
    controlCount += answeredVersion(service, uuid) == 1;
  }
  // Binomial(1000, 0.2): mean 200, standard deviation about 12.6; 5 deviations either side.
  EXPECT_GT(controlCount, 137);
  EXPECT_LT(controlCount, 263);

  // Without an installation uuid an upload cannot be kept in an arm: it gets the payload file.
  auto res = service.post("/v3/queue/tech", {{"events", json::array()}});
  ASSERT_TRUE(res);
  EXPECT_EQ(json::parse(res->body)["updateData"]["version"], 2);
}

TEST(DevServiceControlSplit, ZeroShareAnswersEveryoneWithThePayloadAndAShareNeedsAFile) {
  TempDir dir;
  const fs::path model = dir.write("payload.json", versioned(3).dump());
  const fs::path control = dir.write("control.json", versioned(1).dump());
  Service service({"--payload", model.string(), "--control-payload", control.string()});
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(answeredVersion(service, "install-" + std::to_string(i)), 3);
  }
  EXPECT_EQ(service.stored()["arms"]["payload"]["installations"], 20);

  Service withoutFile({"--payload", model.string(), "--control-share", "0.3"});
  EXPECT_EQ(withoutFile.port(), 0);
  EXPECT_EQ(withoutFile.exitStatus(5), 1);
  Service outOfRange({"--control-payload", control.string(), "--control-share", "1.5"});
  EXPECT_EQ(outOfRange.port(), 0);
  EXPECT_NE(outOfRange.exitStatus(5).value_or(0), 0);
}

// A database kept from before uploads had an arm gains the column and keeps its rows.
TEST(DevServiceControlSplit, AnOlderDatabaseGainsTheArmColumn) {
  TempDir dir;
  const std::string database = (dir.path() / "old.sqlite").string();
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(database.c_str(), &db), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(db,
                         "CREATE TABLE uploads (request_number INTEGER PRIMARY KEY AUTOINCREMENT,"
                         " received_at TEXT NOT NULL, installation_uuid TEXT, bundle_id TEXT,"
                         " sdk_version TEXT, platform TEXT, last_ota_update INTEGER,"
                         " event_count INTEGER NOT NULL, answered INTEGER, problem TEXT,"
                         " envelope TEXT);"
                         "INSERT INTO uploads (received_at, installation_uuid, event_count)"
                         " VALUES ('2024-06-01T00:00:00.000Z', 'old-install', 0);",
                         nullptr, nullptr, nullptr),
            SQLITE_OK);
  sqlite3_close(db);

  const fs::path control = dir.write("control.json", versioned(1).dump());
  Service service(
      {"--db", database, "--control-payload", control.string(), "--control-share", "1"});
  ASSERT_NE(service.port(), 0);
  EXPECT_EQ(answeredVersion(service, "new-install"), 1);
  const json uploads = service.stored()["uploads"];
  ASSERT_EQ(uploads.size(), 2u);
  EXPECT_EQ(uploads[0]["installation_uuid"], "old-install");
  EXPECT_TRUE(uploads[0]["arm"].is_null());
  EXPECT_EQ(uploads[1]["arm"], "control");
}

}  // namespace
