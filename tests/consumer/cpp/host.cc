// The smallest useful host: set the SDK up, ask for a decision, record the outcome, and see
// the record arrive at the host's own log sender. Exits non-zero when any step fails.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <thread>

#include "orvane/ContextManager.h"
#include "orvane/Log.h"
#include "orvane/Version.h"

int main() {
  using namespace orvane;
  std::atomic<int> logs{0};
  ContextManager::setup(
      "0123456789abcdef0123456789abcdef",
      [&logs](const std::shared_ptr<Log>& log) {
        if (log && !log->toBase64().empty()) ++logs;
      },
      Configuration{});
  std::shared_ptr<Context> context = ContextManager::instantContext("consumer_check", 1, {});
  if (!context) {
    std::fprintf(stderr, "no context\n");
    return 1;
  }
  context->log(EventOutcome::kPositive);
  for (int i = 0; i < 200 && logs.load() == 0; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  const std::string version = ContextManager::sdkVersion();
  std::printf("sdk %s (headers %s), decision %s, logs %d\n", version.c_str(), ORVANE_VERSION_STRING,
              context->shouldUpsell() ? "yes" : "no", logs.load());
  if (version != ORVANE_VERSION_STRING || logs.load() < 1) return 1;
  return 0;
}
