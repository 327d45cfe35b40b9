// File: ServiceProcess.h
// orvane-devservice as a child process for tests, and a scratch folder.
#pragma once

#include <fcntl.h>
#include <httplib.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

namespace devservice_testing {

namespace fs = std::filesystem;
using nlohmann::json;

// Starts `arguments` (the program first) with its standard output on a pipe; returns the
// process id and the pipe's reading end. Standard error goes to /dev/null when `quiet`.
inline std::pair<pid_t, int> spawnReadingStdout(std::vector<std::string> arguments,
                                                bool quiet = false) {
  std::vector<char*> argv;
  for (auto& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  int out[2];
  if (pipe(out) != 0) throw std::runtime_error("pipe");
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(out[1], STDOUT_FILENO);
    close(out[0]);
    if (quiet) dup2(open("/dev/null", O_WRONLY), STDERR_FILENO);
    execv(argv[0], argv.data());
    _exit(127);
  }
  close(out[1]);
  return {pid, out[0]};
}

// The service started with `arguments`; its port is read from the line it prints.
class Service {
 public:
  explicit Service(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), ORVANE_DEVSERVICE);
    int fd = -1;
    std::tie(pid_, fd) = spawnReadingStdout(std::move(arguments));
    std::string line;
    char c;
    while (read(fd, &c, 1) == 1 && c != '\n') line += c;
    close(fd);
    const std::string prefix = "listening on http://127.0.0.1:";
    if (line.starts_with(prefix)) port_ = std::stoi(line.substr(prefix.size()));
  }
  ~Service() {
    if (pid_ > 0 && !exitStatus_) {
      kill(pid_, SIGTERM);
      waitpid(pid_, nullptr, 0);
    }
  }

  int port() const { return port_; }
  httplib::Client client() const {
    httplib::Client client("127.0.0.1", port_);
    client.set_read_timeout(5);
    return client;
  }
  httplib::Result post(const std::string& path, const json& body) const {
    return client().Post(path.c_str(), body.dump(), "application/json");
  }
  json stored() const {
    auto res = client().Get("/stored");
    return res && res->status == 200 ? json::parse(res->body) : json();
  }
  // The exit status once the process has ended, waiting at most `seconds`.
  std::optional<int> exitStatus(double seconds) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (!exitStatus_ && std::chrono::steady_clock::now() < deadline) {
      int status = 0;
      if (waitpid(pid_, &status, WNOHANG) == pid_) {
        exitStatus_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
      } else {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
      }
    }
    return exitStatus_;
  }

 private:
  pid_t pid_ = -1;
  int port_ = 0;
  std::optional<int> exitStatus_;
};

class TempDir {
 public:
  TempDir()
      : path_(fs::temp_directory_path() /
              ("devservice-test-" + std::to_string(std::random_device()()))) {
    fs::create_directories(path_);
  }
  ~TempDir() { fs::remove_all(path_); }
  fs::path write(const std::string& name, const std::string& content) const {
    std::ofstream(path_ / name, std::ios::binary) << content;
    return path_ / name;
  }
  const fs::path& path() const { return path_; }

 private:
  fs::path path_;
};

}  // namespace devservice_testing
