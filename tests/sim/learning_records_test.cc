// The learning run's acceptance figures, read from a service file written here: pairing by
// context as the trainer pairs records, acts split by upload number, arms from the uploads.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>
#include <random>
#include <string>

#include <nlohmann/json.hpp>

#include "LearningRecords.h"

namespace orvane::sim::demo {
void PrintTo(const Tally& t, std::ostream* out) { *out << t.positive << "/" << t.shown; }
}  // namespace orvane::sim::demo

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using orvane::sim::demo::Interval;
using orvane::sim::demo::LearningRecords;
using orvane::sim::demo::readLearningRecords;
using orvane::sim::demo::Tally;
using orvane::sim::demo::wilson;

// The columns the reader uses, as orvane-devservice names them.
class ServiceFile {
 public:
  ServiceFile()
      : path_(fs::temp_directory_path() /
              ("learning-records-" + std::to_string(std::random_device()()) + ".sqlite")) {
    sqlite3_open(path_.c_str(), &db_);
    exec(
        "CREATE TABLE uploads (request_number INTEGER PRIMARY KEY, installation_uuid TEXT,"
        " event_count INTEGER NOT NULL, arm TEXT);"
        "CREATE TABLE events (id INTEGER PRIMARY KEY AUTOINCREMENT, request_number INTEGER,"
        " event TEXT NOT NULL);");
  }
  ~ServiceFile() {
    sqlite3_close(db_);
    fs::remove(path_);
  }

  void upload(const std::string& installation, const std::string& arm,
              const std::vector<json>& records) {
    exec("INSERT INTO uploads (installation_uuid, event_count, arm) VALUES ('" + installation +
         "', " + std::to_string(records.size()) + ", '" + arm + "')");
    const auto number = sqlite3_last_insert_rowid(db_);
    for (const json& record : records) {
      exec("INSERT INTO events (request_number, event) VALUES (" + std::to_string(number) + ", '" +
           record.dump() + "')");
    }
  }
  std::string path() const { return path_.string(); }

 private:
  void exec(const std::string& sql) { ASSERT_EQ(sqlite3_exec(db_, sql.c_str(), 0, 0, 0), 0); }
  fs::path path_;
  sqlite3* db_ = nullptr;
};

int logCounter = 0;

// An outcome log (event type 2) of a context; `version` is the update it was decided under.
json answer(const std::string& context, const std::string& flow, json outcome, bool shown,
            int version = 1) {
  return {{"ctx_8", "log-" + std::to_string(++logCounter)},
          {"ctx_29", context},
          {"ctx_20", flow},
          {"ctx_3", outcome},
          {"ctx_23", 2},
          {"ctx_12", shown},
          {"ctx_402", version}};
}

TEST(LearningRecords, PairsContextsAsTheTrainerDoesAndSplitsActsAndArms) {
  ServiceFile file;
  const json resent = answer("c4", "banner", 2, true);
  const json creation = {{"ctx_8", "log-creation"}, {"ctx_29", "c1"}, {"ctx_20", "paywall"},
                         {"ctx_3", -101},           {"ctx_23", 1},    {"ctx_12", true}};
  const json tracked = {
      {"ctx_8", "log-tracked"}, {"ctx_20", "paywall"}, {"ctx_3", -100}, {"ctx_23", 2}};
  // Act 1, one installation.
  file.upload("A", "payload",
              {creation, answer("c1", "paywall", -1, true),  // dismissed first...
               answer("c2", "paywall", 0, true),             // only skipped: left out
               answer("c3", "paywall", -1, false),           // not shown: left out
               resent, tracked});
  file.upload("A", "payload",
              {answer("c1", "paywall", 1, true),  // ...then bought: positive
               resent,                            // the same log again: dropped
               answer("c5", "paywall", -2, true),
               {{"ctx_8", "log-no-context"}, {"ctx_20", "paywall"}, {"ctx_3", 1}, {"ctx_23", 2}}});
  // Act 2: a control installation and a model one; one context decided before the update.
  file.upload("B", "control",
              {answer("c6", "paywall", 1, true, 2), answer("c7", "paywall", -1, true, 1)});
  file.upload("C", "payload",
              {answer("c8", "paywall", 3, true, 2), answer("c9", "paywall", -3.0, true, 2),
               answer("c9", "paywall", 0, true, 2)});

  std::string error;
  const auto records = readLearningRecords(file.path(), 2, 2, &error);
  ASSERT_TRUE(records) << error;
  const auto& paywall = records->flows.at("paywall");
  EXPECT_EQ(paywall.before, (Tally{2, 1}));  // c1 positive, c5 negative
  EXPECT_EQ(paywall.after, (Tally{3, 2}));   // c6, c8 positive, c9 negative
  EXPECT_EQ(paywall.model, (Tally{2, 1}));
  EXPECT_EQ(paywall.control, (Tally{1, 1}));
  EXPECT_EQ(paywall.beforeUpdate, 1);  // c7
  EXPECT_EQ(records->flows.at("banner").before, (Tally{1, 1}));
  EXPECT_EQ(records->duplicates, 1);
  EXPECT_EQ(records->act1.uploads, 2);
  EXPECT_EQ(records->act1.installations, 1);
  EXPECT_EQ(records->act1.events, 10);
  EXPECT_EQ(records->act2.uploads, 2);
  EXPECT_EQ(records->act2.installations, 2);
  EXPECT_EQ(records->modelInstallations, 1);
  EXPECT_EQ(records->controlInstallations, 1);

  EXPECT_FALSE(readLearningRecords(file.path() + ".missing", 2, 2, &error));
  EXPECT_FALSE(error.empty());
}

TEST(LearningRecords, WilsonIntervalsMatchTheirClosedForm) {
  const Interval half = wilson({10, 5});
  EXPECT_DOUBLE_EQ(half.rate, 0.5);
  EXPECT_NEAR(half.low, 0.236593, 1e-6);
  EXPECT_NEAR(half.high, 0.763407, 1e-6);
  // No yes at all still leaves room above zero, unlike a normal approximation.
  const Interval none = wilson({10, 0});
  EXPECT_EQ(none.low, 0);
  EXPECT_NEAR(none.high, 0.277533, 1e-6);
  const Interval all = wilson({40, 40});
  EXPECT_NEAR(all.low, 0.912378, 1e-6);
  EXPECT_EQ(all.high, 1);
  const Interval empty = wilson({0, 0});
  EXPECT_EQ(empty.rate, 0);
  EXPECT_EQ(empty.high, 0);
}

}  // namespace
