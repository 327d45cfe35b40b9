#include "DemoCommand.h"

#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <future>
#include <iostream>
#include <thread>

#include "DemoOptions.h"
#include "DevService.h"
#include "HostApp.h"
#include "LearnRun.h"
#include "PostureMotionService.h"
#include "Recorder.h"
#include "RecordingServices.h"
#include "Report.h"
#include "Scheduler.h"
#include "Script.h"
#include "ScriptedUser.h"
#include "Summary.h"
#include "UpdatePayload.h"
#include "orvane/ContextManager.h"

namespace orvane::sim {
namespace demo {

namespace fs = std::filesystem;

std::string simExecutable() {
  std::error_code error;
  return fs::read_symlink("/proc/self/exe", error).string();
}

namespace {

std::string freshDataDirectory() {
  std::string pattern = (fs::temp_directory_path() / "orvane-demo-XXXXXX").string();
  return mkdtemp(pattern.data()) ? pattern : "";
}

std::string formatSeconds(double seconds) {
  char text[32];
  std::snprintf(text, sizeof text, "%.3g s", seconds);
  return text;
}

// How each flow is decided now, for the timeline.
std::map<std::string, std::string> currentAssignments(const Script& script) {
  std::map<std::string, std::string> flows;
  for (const FlowPlan& flow : script.flows) {
    auto info = ContextManager::getCustomModel(flow.name);
    if (!info) {
      flows[flow.name] = "no assignment (always upsell)";
    } else if (info->isControl) {
      char text[64];
      std::snprintf(text, sizeof text, "control, upsell chance %.0f%%",
                    info->randomUpsellChance * 100);
      flows[flow.name] = text;
    } else {
      flows[flow.name] = "model " + info->modelVersion;
    }
  }
  return flows;
}

std::string joined(const std::map<std::string, std::string>& flows) {
  std::string text;
  for (const auto& [flow, how] : flows) {
    if (!text.empty()) text += "; ";
    text.append(flow).append(": ").append(how);
  }
  return text;
}

class DemoRun {
 public:
  explicit DemoRun(DemoOptions options)
      : options_(std::move(options)),
        script_(makeScript(options_.seconds)),
        recorder_(std::make_shared<Recorder>(&std::cout)),
        scheduler_(*recorder_),
        user_(options_.seed) {}

  int run();

 private:
  bool prepareDataDirectory();
  bool startService();
  bool installPlatform();
  void scheduleScript();
  void scheduleService();
  void scheduleFlow(const FlowPlan& flow, double t);
  void tick();
  void flush();
  void finish();

  DemoOptions options_;
  const Script script_;
  std::shared_ptr<Recorder> recorder_;
  Scheduler scheduler_;
  ScriptedUser user_;
  bool continuing_ = false;
  std::string payloadFile_;
  std::unique_ptr<DevService> service_;
  std::unique_ptr<ServiceClient> client_;
  std::shared_ptr<PostureMotionService> motion_;
  std::shared_ptr<HostApp> app_;
  std::string generation_;
  double nextStatus_ = 0;
};

bool DemoRun::prepareDataDirectory() {
  if (options_.dataDir.empty()) {
    options_.dataDir = freshDataDirectory();
    if (options_.dataDir.empty()) {
      std::cerr << "orvane-sim demo: cannot create a data directory\n";
      return false;
    }
  } else {
    std::error_code error;
    continuing_ = fs::exists(fs::path(options_.dataDir) / "defaults", error);
    fs::create_directories(options_.dataDir, error);
    if (error) {
      std::cerr << "orvane-sim demo: cannot create " << options_.dataDir << ": " << error.message()
                << "\n";
      return false;
    }
  }
  options_.dataDir = fs::absolute(options_.dataDir).string();
  if (options_.report.empty()) options_.report = options_.dataDir + "/report.html";
  return true;
}

bool DemoRun::startService() {
  if (options_.playOnly && options_.service.empty()) {
    std::cerr << "orvane-sim demo: --play-only needs --service\n";
    return false;
  }
  if (!options_.service.empty()) {
    client_ = std::make_unique<ServiceClient>(options_.service);
    return true;
  }
  DevServiceOptions service;
  service.program =
      options_.devservice.empty() ? findDevService(simExecutable()) : options_.devservice;
  if (service.program.empty()) {
    std::cerr << "orvane-sim demo: orvane-devservice is not beside orvane-sim; name it with "
                 "--devservice PATH or a service with --service URL\n";
    return false;
  }
  payloadFile_ = options_.dataDir + "/service-payload.json";
  std::ofstream empty(payloadFile_, std::ios::trunc);  // no update yet: empty answers
  service.payloadFile = payloadFile_;
  service.modelsDir = options_.fixtures + "/coreml";
  service.database = options_.serviceDb;
  service.logFile = options_.dataDir + "/devservice.log";
  service.timeLimit = script_.length + 600;
  std::string error;
  service_ = DevService::start(service, &error);
  if (!service_) {
    std::cerr << "orvane-sim demo: " << error << "\n";
    return false;
  }
  options_.service = service_->url();
  client_ = std::make_unique<ServiceClient>(options_.service);
  return true;
}

bool DemoRun::installPlatform() {
  // The Linux platform, with the host's own motion device and two watchers around the HTTP
  // transport and the log.
  setenv("ORVANE_DATA_DIR", options_.dataDir.c_str(), 1);
  Platform platform = Platform::defaultPlatform();
  std::string error;
  motion_ = PostureMotionService::load(
      platform.clock, options_.fixtures + "/motion",
      [recorder = recorder_](double magnitude) { recorder->motion(magnitude); }, &error);
  if (!motion_) {
    std::cerr << "orvane-sim demo: cannot read a motion trace: " << error << "\n";
    return false;
  }
  platform.motion = motion_;
  platform.http = std::make_shared<RecordingHttpTransport>(platform.http, recorder_);
  platform.log = std::make_shared<RecordingLog>(options_.dataDir + "/sdk.log", recorder_);
  platform.bundle.bundleIdentifier = "com.orvane.demo";
  platform.bundle.shortVersion = "1.0";
  platform.bundle.buildVersion = "1";
  auto application = std::dynamic_pointer_cast<HostApplicationService>(platform.application);
  if (!application || !ContextManager::installDefaultPlatform(std::move(platform))) {
    std::cerr << "orvane-sim demo: cannot install the demo's platform\n";
    return false;
  }
  app_ = std::make_shared<HostApp>(script_, recorder_, scheduler_, user_, application);
  return true;
}

void DemoRun::scheduleFlow(const FlowPlan& flow, double t) {
  if (flow.form == RequestForm::kObserver) {
    scheduler_.at(t, [this, flow] { app_->request(flow); });
    return;
  }
  // Stop asking once an answer could no longer come before the end.
  if (t > script_.length - flow.seconds - 1) return;
  scheduler_.at(t, [this, flow, t] {
    if (script_.isActiveAt(t)) app_->request(flow);
    scheduleFlow(flow, t + flow.period);
  });
}

// The service's part of the script: the update, the outage and the recovery.
void DemoRun::scheduleService() {
  scheduler_.at(script_.updateAt, [this] {
    if (payloadFile_.empty()) {
      recorder_->note("service", "not started by the demo: no update offered");
      return;
    }
    const int64_t version = ContextManager::diagnostics().appliedUpdateVersion + 1;
    writePayloadFile(payloadFile_, makeUpdatePayload(version, options_.service, script_));
    recorder_->note("service", "answers uploads with update v" + std::to_string(version) + ": " +
                                   kModelFlow + " and " + kObservedFlow + " get model " +
                                   kModelVersion + ", " + kCappedFlow + " at most once per " +
                                   formatSeconds(script_.atMostOncePer) + ", " + kDueFlow +
                                   " at least once per " + formatSeconds(script_.atLeastEvery) +
                                   ", observers evaluated every " +
                                   formatSeconds(script_.observerPolling));
  });
  scheduler_.at(script_.outageAt, [this] {
    if (client_->scriptFaults({"503"})) {
      recorder_->note("service", "outage: the next upload gets 503");
      recorder_->edit([&](RunRecord& r) {
        r.outages.push_back({script_.outageAt, script_.recoveryAt, "outage"});
      });
    }
  });
  scheduler_.at(script_.recoveryAt, [this] {
    if (client_->scriptFaults(nlohmann::json::array())) {
      recorder_->note("service", "healthy again");
    }
  });
}

void DemoRun::scheduleScript() {
  for (const PostureSpan& span : script_.postures) {
    scheduler_.at(span.start, [this, span] {
      motion_->setPosture(span.posture);
      recorder_->note("motion", std::string("device ") + describe(span.posture));
    });
    recorder_->edit([&](RunRecord& r) {
      r.postures.push_back({span.start, span.end, describe(span.posture)});
    });
  }
  for (const FlowPlan& flow : script_.flows) scheduleFlow(flow, flow.firstAt);

  scheduler_.at(script_.consentAt, [this] { app_->grantConsent(); });
  if (!options_.playOnly) scheduleService();

  scheduler_.at(script_.resignAt, [this] {
    app_->resignActive();
    recorder_->note("app", "resigned active: the user switched to another app");
  });
  scheduler_.at(script_.becomeActiveAt, [this] {
    app_->becomeActive();
    recorder_->note("app", "active again: a new session");
  });
  recorder_->edit([&](RunRecord& r) {
    r.inactive.push_back({script_.resignAt, script_.becomeActiveAt, "in the background"});
  });
}

void DemoRun::tick() {
  const Diagnostics now = ContextManager::diagnostics();
  QueuePoint point{recorder_->now(), now.queuedRecords, now.unansweredContexts,
                   now.uploadBackoffSeconds};
  recorder_->edit([&](RunRecord& r) { r.queue.push_back(point); });

  const std::string generation = ContextManager::currentAppliedCustomModelVersion();
  if (generation != generation_) {
    generation_ = generation;
    ModelChange change{point.t, generation, currentAssignments(script_)};
    recorder_->edit([&](RunRecord& r) { r.modelChanges.push_back(change); });
    recorder_->note("models", "update " + generation + " applied: " + joined(change.flows));
  }

  if (point.t >= nextStatus_) {
    nextStatus_ = point.t + script_.statusEvery;
    size_t accepted = 0, failed = 0;
    recorder_->edit([&](RunRecord& r) {
      for (const Exchange& e : r.exchanges) {
        if (e.kind != Exchange::Kind::kUpload) continue;
        (e.accepted() ? accepted : failed)++;
      }
    });
    char text[160];
    std::snprintf(text, sizeof text,
                  "queue %zu outcomes + %zu unanswered; uploads %zu accepted, %zu failed; "
                  "back-off %.1f s",
                  point.main, point.unlogged, accepted, failed, point.backoff);
    recorder_->note("status", text);
  }
}

void DemoRun::flush() {
  app_->cancelWaitingRequests();
  recorder_->note("app", "end of the script: uploading what waits, as at the next launch");
  for (int attempt = 0; attempt < 5; ++attempt) {
    const bool emptied = ContextManager::flush(30);
    tick();
    if (emptied) break;
  }
  // An update that came with the last answers is applied on the model store's own queue
  // (download, compile); give it a moment so the summary tells the truth.
  int64_t offered = 0;
  recorder_->edit([&](RunRecord& r) {
    for (const Exchange& e : r.exchanges) offered = std::max(offered, e.updateVersion.value_or(0));
  });
  const auto applied = [] { return ContextManager::diagnostics().appliedUpdateVersion; };
  for (int i = 0; i < 50 && applied() < offered; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  tick();
}

void DemoRun::finish() {
  const Diagnostics last = ContextManager::diagnostics();
  std::vector<std::string> waiting = last.queuedLogIds;
  waiting.insert(waiting.end(), last.unansweredLogIds.begin(), last.unansweredLogIds.end());
  // An installation of a learning run leaves the listing to the parent, which reads the
  // service's file.
  auto stored = options_.playOnly ? std::nullopt : client_->stored();
  recorder_->edit([&](RunRecord& r) {
    r.length = recorder_->now();
    // The device stays where the script left it while the last uploads go out.
    if (!r.postures.empty()) r.postures.back().end = r.length;
    r.waitingLogIds = waiting;
    r.installation = last.installationID;
    r.serviceURL = options_.service;
    r.sdkVersion = ContextManager::sdkVersion();
    for (const FlowPlan& flow : script_.flows) r.flowOrder.push_back(flow.name);
    if (stored && (*stored)["counts"]["events"].is_number_integer()) {
      r.serviceStoredEvents = (*stored)["counts"]["events"].get<int64_t>();
    }
  });
  service_.reset();

  const RunRecord record = recorder_->snapshot();
  const Summary summary = summarize(record);
  std::cout << "\n";
  printSummary(std::cout, summary);
  std::string error;
  if (writeReport(options_.report, record, summary, &error)) {
    std::cout << "\nreport: " << options_.report << "\n";
  } else {
    std::cerr << "orvane-sim demo: cannot write the report: " << error << "\n";
  }
}

int DemoRun::run() {
  if (!prepareDataDirectory() || !startService() || !installPlatform()) return 1;

  std::cout << "orvane-sim demo: a host app on Linux for " << formatSeconds(script_.length)
            << "\n  data     " << options_.dataDir
            << (continuing_ ? " (continuing the installation)" : " (a new installation)")
            << "\n  service  " << options_.service
            << (service_ ? " (orvane-devservice, started for this run)" : "") << "\n  report   "
            << options_.report << "\n\n";

  app_->launch(options_.key, options_.service);
  app_->becomeActive();
  ContextManager::shared().platform().executors->mainQueue()->sync([] {});
  const Diagnostics started = ContextManager::diagnostics();
  generation_ = started.appliedModelGeneration;
  recorder_->note("app", "launched and active: installation " + started.installationID +
                             ", launch " + std::to_string(started.appLaunches));
  recorder_->note("models", "in use: " + generation_ + "; " + joined(currentAssignments(script_)));

  scheduleScript();
  scheduler_.runUntil(script_.length, 0.25, [this] { tick(); });
  flush();
  finish();
  return 0;
}

}  // namespace
}  // namespace demo

void addDemoCommand(CLI::App& app, int& exitCode) {
  auto options = std::make_shared<demo::DemoOptions>();
  auto* demo = app.add_subcommand("demo", "play a host app for about a minute and report on it");
  auto* seconds =
      demo->add_option("--seconds", options->seconds,
                       "length of the run (default 60), or of each act of --learn (default 30)")
          ->check(CLI::Range(5.0, 3600.0));
  demo->add_option("--service", options->service,
                   "the service's base URL (default: start orvane-devservice on loopback)");
  demo->add_option("--data-dir", options->dataDir,
                   "where the SDK keeps its data; the same folder again continues the same "
                   "installation (default: a new folder)");
  demo->add_option("--report", options->report, "the HTML report (default: in the data folder)");
  demo->add_option("--devservice", options->devservice, "the orvane-devservice program");
  demo->add_option("--service-db", options->serviceDb,
                   "keep what the started service receives in this SQLite file");
  demo->add_option("--fixtures", options->fixtures,
                   "folder with motion/ traces and coreml/ models");
  demo->add_option("--seed", options->seed, "seed of the scripted user");
  demo->add_option("--key", options->key, "the app key");
  demo->add_flag("--learn", options->learn,
                 "collect with the control rule, train a model per flow (orvane-train), ship it "
                 "to all but a control share of installations and play on; --seconds is each "
                 "act's length");
  demo->add_option("--installations", options->installations,
                   "installations per act of --learn, each a process of its own (default 48)")
      ->check(CLI::Range(1, 64));
  demo->add_option("--trainer", options->trainer, "the orvane-train program, for --learn");
  // The learning run's installations: not for people.
  demo->add_flag("--play-only", options->playOnly)->group("");
  demo->callback([options, seconds, &exitCode] {
    if (!options->learn) {
      exitCode = demo::DemoRun(*options).run();
      return;
    }
    // Request periods scale with the run, so a longer act brings no more answers: the
    // trainer's data comes from the number of installations, and short acts keep it quick.
    if (seconds->count() == 0) options->seconds = 30;
    exitCode = demo::LearnRun(*options).run();
  });
}

}  // namespace orvane::sim
