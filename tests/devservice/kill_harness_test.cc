// A host process that logs outcomes and uploads is killed with SIGKILL at random moments,
// many times, and restarted on the same data folder. At the end every record it reported as
// queued before a kill must have reached the service at least once.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>

#include <iostream>
#include <set>

#include "devservice/ServiceProcess.h"

namespace {

using devservice_testing::Service;
using devservice_testing::TempDir;
using nlohmann::json;

// orvane-sim host with its stdout read line by line.
class Host {
 public:
  explicit Host(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {ORVANE_SIM, "host"});
    std::tie(pid_, fd_) = devservice_testing::spawnReadingStdout(std::move(arguments), true);
  }
  ~Host() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    if (fd_ >= 0) close(fd_);
  }
  // Reads what the host printed for `seconds` (or until it exits); returns the queued ids.
  std::vector<std::string> readFor(double seconds, bool* ended = nullptr) {
    std::vector<std::string> ids;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (std::chrono::steady_clock::now() < deadline) {
      pollfd p{fd_, POLLIN, 0};
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      if (poll(&p, 1, static_cast<int>(std::max<int64_t>(left.count(), 0))) <= 0) continue;
      char buffer[4096];
      const ssize_t n = read(fd_, buffer, sizeof buffer);
      if (n <= 0) {
        if (ended) *ended = true;
        break;
      }
      pending_.append(buffer, static_cast<size_t>(n));
      for (size_t end; (end = pending_.find('\n')) != std::string::npos;) {
        const std::string line = pending_.substr(0, end);
        pending_.erase(0, end + 1);
        if (line.starts_with("queued ")) ids.push_back(line.substr(7));
      }
    }
    return ids;
  }
  void killNow() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }

 private:
  pid_t pid_ = -1;
  int fd_ = -1;
  std::string pending_;
};

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
    for (const auto& id : host.readFor(lifetime(random))) queued.insert(id);
    host.killNow();
  }
  // A last run uploads what is left.
  Host last({"--service", url, "--data-dir", data, "--outcomes", "0", "--drain", "20"});
  bool ended = false;
  last.readFor(30, &ended);
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
