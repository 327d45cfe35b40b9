// What the SDK adds to a host: threads and resident memory. Each run forks a child from the
// host as it stands, without the SDK; the child counts its threads (/proc/self/task) and reads
// VmRSS (/proc/self/status), then sets the SDK up on the Linux platform (SQLite suites, curl
// towards a closed loopback port), asks for an instant context, logs it and flushes (an
// upload attempt), and counts again:
// - BM_FootprintWithoutSensor: a device without motion hardware;
// - BM_FootprintWithSensor: a device replaying motion at 100 Hz, sampled for four seconds.
// Counters: threads_added, rss_kb_added and its anonymous part anon_kb_added (what the SDK
// allocates, as opposed to code pages of the SDK and its libraries). Targets: at most 3 threads
// without the sensor, at most 3 MB (3072 kB) with it. With $ORVANE_FOOTPRINT_DUMP set to a folder,
// the child also leaves there its memory map (smaps) and thread names before and after, to find
// where the memory goes.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>

#include "orvane/Context.h"
#include "orvane/ContextManager.h"
#include "orvane/platform/ApplicationService.h"
#include "orvane/platform/MotionService.h"
#include "orvane/platform/linux/LinuxPlatform.h"

namespace {

using namespace orvane;

struct Footprint {
  long threads = 0;
  long rssKb = 0;
  long anonKb = 0;  // the part of VmRSS no file backs: heap, arenas, stacks
};

long threadCount() {
  long count = 0;
  if (DIR* tasks = opendir("/proc/self/task")) {
    while (const dirent* entry = readdir(tasks)) {
      if (entry->d_name[0] != '.') ++count;
    }
    closedir(tasks);
  }
  return count;
}

// A "Name:   123 kB" line of /proc/self/status.
long statusKb(const char* field) {
  long kb = -1;
  const size_t length = std::strlen(field);
  if (FILE* status = std::fopen("/proc/self/status", "r")) {
    char line[256];
    while (std::fgets(line, sizeof line, status)) {
      if (std::strncmp(line, field, length) == 0) kb = std::strtol(line + length, nullptr, 10);
    }
    std::fclose(status);
  }
  return kb;
}

Footprint measure() { return {threadCount(), statusKb("VmRSS:"), statusKb("RssAnon:")}; }

void copyFile(const std::string& from, const std::string& to) {
  FILE* in = std::fopen(from.c_str(), "r");
  FILE* out = std::fopen(to.c_str(), "a");
  char buffer[4096];
  size_t n = 0;
  while (in && out && (n = std::fread(buffer, 1, sizeof buffer, in)) > 0) {
    std::fwrite(buffer, 1, n, out);
  }
  if (in) std::fclose(in);
  if (out) std::fclose(out);
}

// For the folder in $ORVANE_FOOTPRINT_DUMP: <stage>.smaps and <stage>.threads.
void dumpState(const std::string& stage) {
  const char* folder = std::getenv("ORVANE_FOOTPRINT_DUMP");
  if (!folder) return;
  const std::string prefix = std::string(folder) + "/" + stage;
  std::filesystem::remove(prefix + ".smaps");
  std::filesystem::remove(prefix + ".threads");
  copyFile("/proc/self/smaps", prefix + ".smaps");
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    copyFile(task.path().string() + "/comm", prefix + ".threads");
  }
}

// A hand moving gently: every motion feature has something to compute.
std::optional<DeviceMotion> gentleMotion(uint64_t i) {
  DeviceMotion motion;
  const double t = static_cast<double>(i) / 100.0;
  motion.userAcceleration = {0.05 * std::sin(6.0 * t), 0.03 * std::cos(4.0 * t), 0.01};
  motion.gravity = {0, -0.7, -0.7};
  return motion;
}

// In the child: the host's first minutes with the SDK, reduced to what starts its threads
// and fills its buffers.
Footprint addSdk(bool withSensor) {
  const std::string dir = std::filesystem::temp_directory_path() /
                          ("orvane-bench-footprint-" + std::to_string(getpid()));
  std::filesystem::remove_all(dir);
  setenv("ORVANE_DATA_DIR", dir.c_str(), 1);
  setenv("ORVANE_SERVICE_URL", "http://127.0.0.1:9", 1);  // refused at once, never off the host
  unsetenv("ORVANE_MOTION_TRACE");

  dumpState("before");
  const Footprint before = measure();
  Platform platform = makeLinuxPlatform();
  platform.motion = withSensor ? makeReplayMotionService(platform.clock, 100, gentleMotion)
                               : makeUnsupportedMotionService();
  auto application = std::dynamic_pointer_cast<HostApplicationService>(platform.application);
  ContextManager::installDefaultPlatform(std::move(platform));
  ContextManager::setup("FOOTPRINT-KEY-0123456789ABCDEF");
  if (application) application->becomeActive();
  if (auto context = ContextManager::instantContext("checkout", 1, {})) {
    context->log(EventOutcome::kPositive);
  }
  ContextManager::flush(2.0);
  std::this_thread::sleep_for(withSensor ? std::chrono::seconds(4) : std::chrono::seconds(1));
  const Footprint after = measure();
  dumpState(withSensor ? "after-sensor" : "after");
  std::filesystem::remove_all(dir);
  return {after.threads - before.threads, after.rssKb - before.rssKb, after.anonKb - before.anonKb};
}

// Runs addSdk in a child forked from this process, which has never set the SDK up.
bool addedInChild(bool withSensor, Footprint& added) {
  int channel[2];
  if (pipe(channel) != 0) return false;
  const pid_t child = fork();
  if (child < 0) return false;
  if (child == 0) {
    close(channel[0]);
    const Footprint result = addSdk(withSensor);
    const bool written = write(channel[1], &result, sizeof result) == sizeof result;
    _exit(written ? 0 : 1);  // no exit handlers: the SDK's threads are still running
  }
  close(channel[1]);
  const bool read = ::read(channel[0], &added, sizeof added) == sizeof added;
  close(channel[0]);
  int status = 0;
  waitpid(child, &status, 0);
  return read && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

void runFootprint(benchmark::State& state, bool withSensor) {
  Footprint added;
  for (auto _ : state) {
    if (!addedInChild(withSensor, added)) {
      state.SkipWithError("the measuring child failed");
      return;
    }
  }
  state.counters["threads_added"] = static_cast<double>(added.threads);
  state.counters["rss_kb_added"] = static_cast<double>(added.rssKb);
  state.counters["anon_kb_added"] = static_cast<double>(added.anonKb);
}

void BM_FootprintWithoutSensor(benchmark::State& state) { runFootprint(state, false); }
void BM_FootprintWithSensor(benchmark::State& state) { runFootprint(state, true); }

BENCHMARK(BM_FootprintWithoutSensor)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FootprintWithSensor)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
