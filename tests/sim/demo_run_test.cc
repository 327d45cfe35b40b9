// orvane-sim demo end to end, shortened to ten seconds: it starts its own service, plays the
// script, and ends with a summary and a report. What the service received is read from its
// database, not from the demo's own account.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <random>
#include <string>

#include "sim/ToolRun.h"

namespace {

namespace fs = std::filesystem;

using sim_testing::Finished;
using sim_testing::queryNumber;
using sim_testing::readText;
using sim_testing::run;

TEST(DemoRun, TenSecondsReachTheServiceApplyTheUpdateAndWriteTheReport) {
  const fs::path dir =
      fs::temp_directory_path() / ("orvane-demo-test-" + std::to_string(std::random_device()()));
  fs::create_directories(dir);
  const fs::path database = dir / "service.sqlite";
  const fs::path report = dir / "report.html";

  const Finished demo =
      run(std::string(ORVANE_SIM) + " demo --seconds 10 --data-dir " + (dir / "data").string() +
          " --service-db " + database.string() + " --report " + report.string());
  ASSERT_EQ(demo.status, 0) << demo.output;
  EXPECT_NE(demo.output.find("Summary of"), std::string::npos) << demo.output;
  EXPECT_NE(demo.output.find("models applied    demo-update-1 at"), std::string::npos)
      << demo.output;
  EXPECT_NE(demo.output.find("report: " + report.string()), std::string::npos) << demo.output;
  // The summary's account of uploaded records agrees with what the service stored as accepted.
  const size_t records = demo.output.find("records           ");
  ASSERT_NE(records, std::string::npos) << demo.output;
  const size_t colon = demo.output.find(": ", records);
  const int64_t uploaded = std::stoll(demo.output.substr(colon + 2));
  EXPECT_EQ(uploaded, queryNumber(database,
                                  "SELECT COUNT(DISTINCT log_id) FROM events JOIN uploads USING "
                                  "(request_number) WHERE answered BETWEEN 200 AND 202"))
      << demo.output;

  // The service stored outcomes and the contexts logged for golden signals, accepted uploads,
  // and later uploads name the applied update.
  EXPECT_GT(queryNumber(database, "SELECT COUNT(*) FROM events WHERE outcome >= -3"), 0);
  EXPECT_GT(queryNumber(database, "SELECT COUNT(*) FROM events WHERE outcome = -104"), 0);
  EXPECT_GT(
      queryNumber(database, "SELECT COUNT(*) FROM uploads WHERE answered BETWEEN 200 AND 202"), 1);
  EXPECT_EQ(queryNumber(database, "SELECT MAX(last_ota_update) FROM uploads"), 1);
  // Each flow that asks on its own reached it (the observed one may not fire in ten seconds).
  EXPECT_GE(queryNumber(database, "SELECT COUNT(DISTINCT flow) FROM events"), 3);

  const std::string html = readText(report);
  for (const char* section : {"id=\"motion-decisions\"", "id=\"decisions-per-flow\"",
                              "id=\"upload-queue\"", "id=\"uploads-backoff\""}) {
    EXPECT_NE(html.find(section), std::string::npos) << section;
  }
  EXPECT_NE(html.find("</html>"), std::string::npos);
  EXPECT_EQ(std::count(html.begin(), html.end(), '<'), std::count(html.begin(), html.end(), '>'));
  for (const char* broken : {"=\"nan", "=\"-nan", "=\"inf", "width=\"-", "height=\"-"}) {
    EXPECT_EQ(html.find(broken), std::string::npos) << broken;
  }
  fs::remove_all(dir);
}

}  // namespace
