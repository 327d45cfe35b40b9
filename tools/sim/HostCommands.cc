#include "HostCommands.h"

#include <chrono>
#include <cstdlib>
#include <future>
#include <iostream>
#include <mutex>
#include <thread>

#include "api/ContextAccess.h"
#include "api/Engine.h"
#include "logging/OrvaneLogSender.h"
#include "orvane/Context.h"
#include "orvane/ContextManager.h"
#include "orvane/Log.h"
#include "orvane/platform/ApplicationService.h"

namespace orvane::sim {
namespace {

struct HostOptions {
  std::string service;
  std::string dataDir;
  std::string key = "ORVANE-SIM-KEY-0123456789ABCDEF";
  int outcomes = 100;
  int intervalMs = 20;
  double drainSeconds = 0;
  // Print "logged <id>" as each outcome is handed to the SDK and go on at once, rather than
  // printing "queued <id>" once it is stored.
  bool noWait = false;
};

// The identifier of an outcome record; empty for a creation record, which the outcome that
// follows replaces in the queues.
std::string outcomeLogIdOf(const Log& log) {
  std::string id;
  for (const Signal& s : log.signals()) {
    if (s.id() == SignalEnum::id(3) &&
        s.value() == SignalValue(int64_t{Context::kCreatedOutcome})) {
      return "";
    }
    if (s.id() == SignalEnum::id(8)) {
      if (const auto* text = std::get_if<std::string>(&s.value())) id = *text;
    }
  }
  return id;
}

// Waits until everything posted to the main queue and then to the upload queue has run: the
// records handed over so far are written and synchronised. The kill harness trusts a printed
// id only after this, so the tool reaches into the engine for it.
void waitUntilQueued(Engine& manager) {
  manager.platform().executors->mainQueue()->sync([] {});
  std::promise<void> done;
  manager.orvaneLogSender().onQueue([&done] { done.set_value(); });
  done.get_future().wait();
}

int runHost(const HostOptions& options) {
  if (!options.dataDir.empty()) setenv("ORVANE_DATA_DIR", options.dataDir.c_str(), 1);
  if (!options.service.empty()) setenv("ORVANE_SERVICE_URL", options.service.c_str(), 1);
  std::mutex mutex;
  std::vector<std::string> handedOver;
  ContextManager::setup(
      options.key,
      [&](std::shared_ptr<Log> log) {
        if (!log) return;
        log->send();
        const std::string id = outcomeLogIdOf(*log);
        std::lock_guard<std::mutex> guard(mutex);
        if (!options.noWait) {
          handedOver.push_back(id);
        } else if (!id.empty()) {
          std::cout << "logged " << id << std::endl;
        }
      },
      Configuration{});
  Engine& manager = ContextManagerAccess::engine(ContextManager::shared());
  if (auto host =
          std::dynamic_pointer_cast<HostApplicationService>(manager.platform().application)) {
    host->becomeActive();
  }
  std::cout << "installation " << manager.installationUUID() << std::endl;

  for (int i = 0; i < options.outcomes; ++i) {
    auto context = ContextAccess::create(manager, {}, "flow" + std::to_string(i % 3), {},
                                         MethodUsed::kFetchContext, {});
    std::this_thread::sleep_for(std::chrono::milliseconds(options.intervalMs));
    context->log(i % 2 == 0 ? EventOutcome::kPositive : EventOutcome::kNegative);
    if (options.noWait) continue;
    waitUntilQueued(manager);
    std::vector<std::string> queued;
    {
      std::lock_guard<std::mutex> guard(mutex);
      queued.swap(handedOver);
    }
    for (const auto& id : queued) {
      if (!id.empty()) std::cout << "queued " << id << std::endl;
    }
  }

  // Upload until the main queue is empty or the time is up.
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::duration<double>(options.drainSeconds);
  OrvaneLogSender& sender = manager.orvaneLogSender();
  while (options.drainSeconds > 0 && std::chrono::steady_clock::now() < deadline) {
    manager.platform().executors->mainQueue()->sync(
        [&] { sender.triggerUpload(UploadQueueKind::kMain, true); });
    waitUntilQueued(manager);
    if (sender.mainQueue().empty()) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
  }
  std::cout << "waiting " << sender.mainQueue().size() << std::endl;
  return 0;
}

}  // namespace

void addHostCommands(CLI::App& app, int& exitCode) {
  auto options = std::make_shared<HostOptions>();
  auto* host = app.add_subcommand("host", "log outcomes and upload them, like a host app");
  host->add_option("--service", options->service, "the service's base URL");
  host->add_option("--data-dir", options->dataDir, "where the SDK keeps its data");
  host->add_option("--key", options->key, "the app key");
  host->add_option("--outcomes", options->outcomes, "how many outcomes to log");
  host->add_option("--interval-ms", options->intervalMs, "pause between context and outcome");
  host->add_option("--drain", options->drainSeconds,
                   "afterwards, upload until the queue is empty, for at most this many seconds");
  host->add_flag("--no-wait", options->noWait,
                 "print \"logged <id>\" as each outcome is handed over, without waiting for it "
                 "to be stored");
  host->callback([options, &exitCode] { exitCode = runHost(*options); });
}

}  // namespace orvane::sim
