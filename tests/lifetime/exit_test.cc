// A host that calls exit() at any moment of the SDK's work must end by that exit, never by a
// signal from a worker thread that ran into torn-down state.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace {

#ifdef ORVANE_EXIT_HOST

constexpr int kRuns = 200;
constexpr int kExpectedExitCode = 7;  // exit_host.cc
constexpr auto kHangLimit = std::chrono::seconds(30);

struct HostRun {
  pid_t pid = 0;
  std::chrono::steady_clock::time_point started;
  std::string description;
  int slot = 0;  // data folder; two runs never share one, each reuses its folder's last data
};

pid_t spawnHost(const std::string& dataDir, long delayMicros, bool fromThread) {
  std::vector<std::string> env;
  for (char** e = environ; *e != nullptr; ++e) {
    if (std::strncmp(*e, "ORVANE_", 7) != 0 && std::strncmp(*e, "ASAN_OPTIONS=", 13) != 0) {
      env.emplace_back(*e);
    }
  }
  env.push_back("ORVANE_DATA_DIR=" + dataDir);
  env.push_back("ORVANE_SERVICE_URL=http://127.0.0.1:9");  // refused at once, never off the host
  // Under the sanitizers: what counts here is how the process ends, not what exit() leaves.
  env.push_back("ASAN_OPTIONS=detect_leaks=0");
  std::vector<char*> envp;
  for (std::string& entry : env) envp.push_back(entry.data());
  envp.push_back(nullptr);
  std::string program = ORVANE_EXIT_HOST;
  std::string delay = std::to_string(delayMicros);
  std::string mode = fromThread ? "thread" : "main";
  char* argv[] = {program.data(), delay.data(), mode.data(), nullptr};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  // The SDK's log lines are expected noise here.
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  pid_t pid = 0;
  const int error = posix_spawn(&pid, program.c_str(), &actions, nullptr, argv, envp.data());
  posix_spawn_file_actions_destroy(&actions);
  return error == 0 ? pid : -1;
}

TEST(ExitAtAnyMoment, NoRunEndsBySignal) {
  const auto root =
      std::filesystem::temp_directory_path() / ("orvane-exit-" + std::to_string(::getpid()));
  std::filesystem::create_directories(root);
  std::mt19937 random(20261124);
  // Most exits land while requests and uploads run; some right at start-up.
  std::uniform_int_distribution<long> busyDelay(0, 300'000);
  std::uniform_int_distribution<long> startupDelay(0, 5'000);

  std::map<std::string, int> endings;  // "exit 7", "signal 11", ...
  std::vector<std::string> failures;
  std::vector<HostRun> running;
  int started = 0;
  auto reap = [&] {
    for (auto it = running.begin(); it != running.end();) {
      int status = 0;
      const pid_t done = ::waitpid(it->pid, &status, WNOHANG);
      if (done == 0) {
        if (std::chrono::steady_clock::now() - it->started > kHangLimit) {
          ::kill(it->pid, SIGKILL);
          ::waitpid(it->pid, &status, 0);
          failures.push_back(it->description + ": hung");
          endings["hung"]++;
          it = running.erase(it);
        } else {
          ++it;
        }
        continue;
      }
      if (WIFSIGNALED(status)) {
        endings["signal " + std::to_string(WTERMSIG(status))]++;
        failures.push_back(it->description + ": signal " + std::to_string(WTERMSIG(status)));
      } else {
        const int code = WEXITSTATUS(status);
        endings["exit " + std::to_string(code)]++;
        if (code != kExpectedExitCode) {
          failures.push_back(it->description + ": exit " + std::to_string(code));
        }
      }
      it = running.erase(it);
    }
  };

  while (started < kRuns || !running.empty()) {
    while (started < kRuns && running.size() < 2) {
      const int slot = !running.empty() && running.front().slot == 0 ? 1 : 0;
      const bool fromThread = started % 3 == 2;
      const long delay = started % 10 == 0 ? startupDelay(random) : busyDelay(random);
      HostRun run;
      run.description = "run " + std::to_string(started) + " (exit after " + std::to_string(delay) +
                        " us from " + (fromThread ? "a thread" : "main") + ")";
      run.pid = spawnHost((root / ("slot" + std::to_string(slot))).string(), delay, fromThread);
      ASSERT_GT(run.pid, 0) << "cannot start " << ORVANE_EXIT_HOST;
      run.started = std::chrono::steady_clock::now();
      run.slot = slot;
      running.push_back(run);
      ++started;
    }
    reap();
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  std::filesystem::remove_all(root);

  std::string summary;
  for (const auto& [ending, count] : endings)
    summary += ending + ": " + std::to_string(count) + "  ";
  std::cout << kRuns << " runs; " << summary << std::endl;
  EXPECT_TRUE(failures.empty()) << failures.size() << " runs failed, first: " << failures.front();
}

#else

TEST(ExitAtAnyMoment, NoRunEndsBySignal) { GTEST_SKIP() << "needs the Linux exit host"; }

#endif

}  // namespace
