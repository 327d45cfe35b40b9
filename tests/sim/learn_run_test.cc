// orvane-sim demo --learn end to end at a small scale: three installations per act of fifteen
// seconds, too few answers for the trainer to ship a model, so act 2 compares two arms that
// both run the control rule. What is checked is that the figures the run reports are the
// service's records: counted here again with SQL, and against the trainer's own pairing.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <random>
#include <string>

#include <nlohmann/json.hpp>

#include "sim/ToolRun.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using sim_testing::Finished;
using sim_testing::queryNumber;
using sim_testing::readText;
using sim_testing::run;

// Shown contexts of `flow` answered yes or no (`positive`: yes) in uploads `from`..`to`, as
// SQL sees them: every answer of a context carries the decision it was shown under.
int64_t contexts(const fs::path& database, const std::string& flow, int64_t from, int64_t to,
                 bool positive) {
  const std::string outcomes = positive ? "BETWEEN 1 AND 4" : "IN (-3, -2, -1, 1, 2, 3, 4)";
  return queryNumber(database,
                     "SELECT COUNT(DISTINCT json_extract(event, '$.ctx_29')) FROM events"
                     " WHERE request_number BETWEEN " +
                         std::to_string(from) + " AND " + std::to_string(to) +
                         " AND json_extract(event, '$.ctx_20') = '" + flow +
                         "' AND json_extract(event, '$.ctx_23') = 2"
                         " AND json_extract(event, '$.ctx_12') = 1"
                         " AND json_extract(event, '$.ctx_3') " +
                         outcomes);
}

TEST(LearnRun, ReportsFiguresThatAreTheServicesRecords) {
  if (const std::string missing = orvane::testing::trainerMissing(); !missing.empty()) {
    GTEST_SKIP() << "orvane-train cannot run: " << missing;
  }
  const fs::path dir =
      fs::temp_directory_path() / ("orvane-learn-test-" + std::to_string(std::random_device()()));
  const Finished learn =
      run(std::string(ORVANE_SIM) + " demo --learn --seconds 15 --installations 3 --data-dir " +
          dir.string());
  ASSERT_EQ(learn.status, 0) << learn.output;
  EXPECT_NE(learn.output.find("act 1 -> act 2:"), std::string::npos) << learn.output;
  EXPECT_NE(learn.output.find("model vs control:"), std::string::npos) << learn.output;

  const fs::path database = dir / "service.sqlite";
  const json figures = json::parse(readText(dir / "learning.json"), nullptr, false);
  ASSERT_TRUE(figures.is_object()) << learn.output;
  // Every installation ended well (a sanitizer's report would end it with an error).
  EXPECT_EQ(figures["installationFailures"], json({0, 0})) << learn.output;
  const int64_t act1Last = figures["act1LastRequest"];
  const int64_t last = queryNumber(database, "SELECT MAX(request_number) FROM uploads");
  ASSERT_GT(act1Last, 0);
  ASSERT_GT(last, act1Last);

  // Fresh installations in each act, all answered by the service; act 2 split into arms.
  const std::string act1 = " WHERE request_number <= " + std::to_string(act1Last);
  const std::string act2 = " WHERE request_number > " + std::to_string(act1Last);
  EXPECT_EQ(figures["act1"]["installations"], 3);
  EXPECT_EQ(figures["act2"]["installations"], 3);
  EXPECT_EQ(figures["act1"]["uploads"],
            queryNumber(database, "SELECT COUNT(*) FROM uploads" + act1));
  EXPECT_EQ(figures["act2"]["events"],
            queryNumber(database, "SELECT TOTAL(event_count) FROM uploads" + act2));
  EXPECT_EQ(figures["act2"]["controlInstallations"],
            queryNumber(database, "SELECT COUNT(DISTINCT installation_uuid) FROM uploads" + act2 +
                                      " AND arm = 'control'"));
  EXPECT_EQ(queryNumber(database, "SELECT COUNT(*) FROM uploads" + act1 + " AND arm = 'control'"),
            0);

  const json trained = json::parse(readText(dir / "trained" / "report.json"), nullptr, false);
  ASSERT_TRUE(trained.is_object()) << readText(dir / "train.log");
  int64_t act1Shown = 0;
  for (const auto& [flow, f] : figures["flows"].items()) {
    SCOPED_TRACE(flow);
    EXPECT_EQ(f["act1"]["shown"], contexts(database, flow, 1, act1Last, false));
    EXPECT_EQ(f["act1"]["positive"], contexts(database, flow, 1, act1Last, true));
    // Act 2 counts the contexts decided under the trained update, in one arm or the other.
    const int64_t act2Shown = contexts(database, flow, act1Last + 1, last, false);
    EXPECT_EQ(f["act2"]["shown"].get<int64_t>() + f["act2BeforeUpdate"].get<int64_t>(), act2Shown);
    EXPECT_EQ(f["act2Model"]["shown"].get<int64_t>() + f["act2Control"]["shown"].get<int64_t>(),
              f["act2"]["shown"].get<int64_t>());
    EXPECT_FALSE(f["modelShipped"].get<bool>());
    // The trainer saw act 1 only, and paired it the same way.
    for (const json& entry : trained["flows"]) {
      if (entry["flow"] == flow) {
        EXPECT_EQ(entry["shownContexts"], f["act1"]["shown"]);
      }
    }
    act1Shown += f["act1"]["shown"].get<int64_t>();
  }
  EXPECT_GT(act1Shown, 0);
  EXPECT_NE(learn.output.find("(no model shipped)"), std::string::npos);

  const std::string html = readText(dir / "report.html");
  EXPECT_NE(html.find("id=\"acceptance\""), std::string::npos);
  EXPECT_NE(html.find("</html>"), std::string::npos);
  EXPECT_EQ(std::count(html.begin(), html.end(), '<'), std::count(html.begin(), html.end(), '>'));
  fs::remove_all(dir);
}

}  // namespace
