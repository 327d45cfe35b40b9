// A host app that exits while the SDK is busy: threads ask for contexts, log outcomes, track
// events and flush through the public API, and after the given delay the process calls exit()
// from the main thread or from one of its own threads. The lifetime suite runs it many times
// and checks that no run ends by a signal.
//
//   orvane_exit_host DELAY_MICROSECONDS main|thread
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "orvane/Context.h"
#include "orvane/ContextManager.h"
#include "orvane/platform/ApplicationService.h"
#include "orvane/platform/linux/LinuxPlatform.h"

namespace {

using orvane::ContextManager;

constexpr int kExitCode = 7;  // tells an exit of ours from any other end

void busyHost(int worker, const std::atomic<bool>& stop) {
  const std::string flow = "flow" + std::to_string(worker);
  for (int i = 0; !stop.load(std::memory_order_relaxed); ++i) {
    if (auto context = ContextManager::instantContext(flow, 1, {})) {
      context->log(i % 2 == 0 ? orvane::EventOutcome::kPositive : orvane::EventOutcome::kNegative);
    }
    ContextManager::fetchContext(flow, 1, {}, [](std::shared_ptr<orvane::Context> context) {
      if (context) context->logIfNotLoggedYet(orvane::EventOutcome::kSkipped);
    });
    ContextManager::trackEvent("event" + std::to_string(i % 4), {});
    ContextManager::setGlobalCustomSignal("round", static_cast<int64_t>(i));
    if (i % 16 == 0) ContextManager::flush(0.01);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  const auto delay = std::chrono::microseconds(std::strtoll(argv[1], nullptr, 10));
  const bool fromThread = std::strcmp(argv[2], "thread") == 0;

  orvane::Platform platform = orvane::makeLinuxPlatform();
  auto application =
      std::dynamic_pointer_cast<orvane::HostApplicationService>(platform.application);
  ContextManager::installDefaultPlatform(std::move(platform));
  ContextManager::setup("EXIT-HOST-KEY-0123456789ABCDEF");
  if (application) application->becomeActive();

  std::atomic<bool> stop{false};
  std::vector<std::thread> workers;
  for (int worker = 0; worker < 3; ++worker) {
    workers.emplace_back(busyHost, worker, std::cref(stop));
  }
  if (fromThread) {
    // The threads are never joined: exit() ends the process under them, as apps do.
    std::thread([delay] {
      std::this_thread::sleep_for(delay);
      std::exit(kExitCode);
    }).detach();
    for (std::thread& worker : workers) worker.join();  // never returns
  }
  std::this_thread::sleep_for(delay);
  for (std::thread& worker : workers) worker.detach();
  std::exit(kExitCode);
}
