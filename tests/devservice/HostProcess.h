// File: HostProcess.h
// orvane-sim host as a child process, its standard output read line by line.
#pragma once

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <string_view>
#include <vector>

#include "devservice/ServiceProcess.h"

namespace devservice_testing {

// A log id the host printed, and when the line was read.
struct PrintedId {
  std::string id;
  std::chrono::steady_clock::time_point readAt;
};

class Host {
 public:
  explicit Host(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {ORVANE_SIM, "host"});
    std::tie(pid_, fd_) = spawnReadingStdout(std::move(arguments), true);
  }
  ~Host() {
    if (pid_ > 0) killNow();
    if (fd_ >= 0) close(fd_);
  }
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

  // Reads what the host prints for `seconds` (or until it exits); returns the ids of the lines
  // that start with `prefix` ("queued 1a2b..." for "queued ").
  std::vector<PrintedId> readFor(double seconds, std::string_view prefix = "queued ",
                                 bool* ended = nullptr) {
    std::vector<PrintedId> ids;
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
      const auto readAt = std::chrono::steady_clock::now();
      pending_.append(buffer, static_cast<size_t>(n));
      for (size_t end; (end = pending_.find('\n')) != std::string::npos;) {
        const std::string line = pending_.substr(0, end);
        pending_.erase(0, end + 1);
        if (line.starts_with(prefix)) ids.push_back({line.substr(prefix.size()), readAt});
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

}  // namespace devservice_testing
