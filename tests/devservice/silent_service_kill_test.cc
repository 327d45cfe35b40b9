// A host logs outcomes steadily against a service that accepts the connection and never
// answers, and is killed with SIGKILL at random moments. Every outcome it handed to the SDK
// more than half a second before the kill must be in its store on disk afterwards: an upload
// waiting for its answer never holds a record in memory.
#include <gtest/gtest.h>

#include <iostream>
#include <set>

#include "devservice/HostProcess.h"
#include "devservice/SilentServer.h"
#include "logging/OrvaneLogSender.h"
#include "orvane/platform/linux/LinuxPlatform.h"

namespace {

using devservice_testing::Host;
using devservice_testing::PrintedId;
using devservice_testing::SilentServer;
using devservice_testing::TempDir;

constexpr auto kDurableWithin = std::chrono::milliseconds(500);

// The log ids of the main upload queue in the data folder's defaults suite.
std::set<std::string> storedLogIds(const std::string& dataDir) {
  auto suite =
      orvane::makeSqliteKeyValueStoreProvider(dataDir + "/defaults")->openSuite("com.orvane.ads");
  std::set<std::string> ids;
  if (!suite) return ids;
  for (const auto& record :
       orvane::readStoredQueue(suite->get(orvane::OrvaneLogSender::kMainQueueKey))) {
    auto id = record.find("ctx_8");
    if (id != record.end() && id->second.asString()) ids.insert(*id->second.asString());
  }
  return ids;
}

TEST(SilentServiceKillTest, EveryRecordLoggedHalfASecondBeforeAKillIsOnDisk) {
  SilentServer service;
  constexpr int kRuns = 15;
  std::mt19937 random(20261124);
  // A fresh installation each run, logging every 20 ms for under 1.8 s: its queue stays below
  // the 100-record cap, so nothing may be missing.
  std::uniform_real_distribution<double> lifetime(0.6, 1.8);
  size_t logged = 0;
  size_t due = 0;
  size_t lost = 0;
  // The oldest record not on disk at a kill: how far behind the writes were.
  std::chrono::duration<double> furthestBehind{0};
  for (int run = 0; run < kRuns; ++run) {
    TempDir dir;
    const std::string data = (dir.path() / "data").string();
    std::vector<PrintedId> printed;
    std::chrono::steady_clock::time_point killedAt;
    {
      Host host({"--service", service.url(), "--data-dir", data, "--outcomes", "100000",
                 "--interval-ms", "20", "--no-wait"});
      printed = host.readFor(lifetime(random), "logged ");
      killedAt = std::chrono::steady_clock::now();
      host.killNow();
    }
    const std::set<std::string> stored = storedLogIds(data);
    logged += printed.size();
    for (const PrintedId& id : printed) {
      if (!stored.count(id.id))
        furthestBehind =
            std::max<std::chrono::duration<double>>(furthestBehind, killedAt - id.readAt);
      if (killedAt - id.readAt < kDurableWithin) continue;
      ++due;
      if (!stored.count(id.id)) {
        ++lost;
        ADD_FAILURE() << "run " << run << ": " << id.id << " logged "
                      << std::chrono::duration<double>(killedAt - id.readAt).count()
                      << " s before the kill is not on disk";
      }
    }
  }
  std::cout << "silent service kills: runs " << kRuns << ", records logged " << logged
            << ", logged over 0.5 s before a kill " << due << ", lost " << lost
            << ", oldest not on disk " << furthestBehind.count() << " s, connections "
            << service.connections() << std::endl;
  EXPECT_GT(due, 200u);
  EXPECT_GT(service.connections(), 0);  // uploads were waiting on the silent service
  EXPECT_EQ(lost, 0u);
}

}  // namespace
