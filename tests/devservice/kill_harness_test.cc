// A host process that logs outcomes and uploads is killed with SIGKILL at random moments,
// many times, and restarted on the same data folder. At the end every record it reported as
// queued before a kill must have reached the service at least once.
#include <gtest/gtest.h>

#include <iostream>
#include <map>
#include <set>

#include "devservice/HostProcess.h"

namespace {

using devservice_testing::Host;
using devservice_testing::Service;
using devservice_testing::TempDir;
using nlohmann::json;

TEST(KillHarnessTest, NothingQueuedIsLostAcrossKills) {
  TempDir dir;
  Service service(std::vector<std::string>{"--time-limit", "300"});
  ASSERT_GT(service.port(), 0);
  const std::string url = "http://127.0.0.1:" + std::to_string(service.port());
  const std::string data = (dir.path() / "data").string();

  constexpr int kRuns = 12;
  std::mt19937 random(20261123);
  std::uniform_real_distribution<double> lifetime(0.15, 1.2);
  std::set<std::string> queued;
  for (int run = 0; run < kRuns; ++run) {
    Host host({"--service", url, "--data-dir", data, "--outcomes", "100000", "--interval-ms", "5"});
    for (const auto& printed : host.readFor(lifetime(random))) queued.insert(printed.id);
    host.killNow();
  }
  // A last run uploads what is left.
  Host last({"--service", url, "--data-dir", data, "--outcomes", "0", "--drain", "20"});
  bool ended = false;
  last.readFor(30, "queued ", &ended);
  EXPECT_TRUE(ended);

  const json stored = service.stored();
  std::map<std::string, int> received;
  for (const json& event : stored["events"]) {
    if (event["log_id"].is_string()) ++received[event["log_id"].get<std::string>()];
  }
  size_t lost = 0;
  size_t duplicates = 0;
  for (const auto& id : queued) {
    auto it = received.find(id);
    if (it == received.end()) {
      ++lost;
    } else if (it->second > 1) {
      duplicates += static_cast<size_t>(it->second - 1);
    }
  }
  std::cout << "kill harness: runs " << kRuns << ", records queued " << queued.size()
            << ", events received " << stored["events"].size() << ", duplicates " << duplicates
            << ", lost " << lost << std::endl;
  EXPECT_GT(queued.size(), 20u);
  EXPECT_EQ(lost, 0u);
}

}  // namespace
