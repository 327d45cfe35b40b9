#include "LearnRun.h"

#include <stdlib.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>

#include "ChildProcess.h"
#include "DevService.h"
#include "LearnReport.h"
#include "LearningRecords.h"
#include "Script.h"
#include "UpdatePayload.h"

namespace orvane::sim::demo {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using Clock = std::chrono::steady_clock;

constexpr const char* kPython = "/usr/bin/python3";
constexpr int64_t kCollectVersion = 1;
constexpr int64_t kTrainedVersion = 2;
constexpr double kControlShare = 0.5;
// What the trainer needs per flow, lowered from its defaults (200 contexts, 20 of each answer
// and 20 held-out contexts shown) to what a few minutes of demo installations collect.
constexpr int kMinContexts = 80;
constexpr int kMinEachClass = 15;
constexpr int kMinShown = 15;
// An installation's flush at the end may wait out a back-off; past this it is ended.
constexpr double kInstallationGrace = 180;

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

std::string formatNumber(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%g", value);
  return text;
}

std::optional<json> readJson(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  json parsed = json::parse(in, nullptr, /*allow_exceptions=*/false);
  if (parsed.is_discarded()) return std::nullopt;
  return parsed;
}

// The last non-empty line of a log, to say why a helper failed.
std::string lastLine(const fs::path& path) {
  std::ifstream in(path);
  std::string line, last;
  while (std::getline(in, line)) {
    if (!line.empty()) last = line;
  }
  return last;
}

int portOf(const std::string& url) {
  const size_t colon = url.rfind(':');
  return colon == std::string::npos ? 0 : std::atoi(url.c_str() + colon + 1);
}

class Learning {
 public:
  explicit Learning(DemoOptions options)
      : options_(std::move(options)), script_(makeScript(options_.seconds)) {}
  int run();

 private:
  bool prepare();
  bool startService(const std::string& payload, const std::string& controlPayload, double share,
                    const std::string& models, const std::string& logName);
  // Plays the script with fresh installations; the number that did not end well.
  int playAct(int act);
  void train();
  void prepareActTwo(std::string* payload, std::string* controlPayload, double* share);
  void printTrainedFlows();

  DemoOptions options_;
  const Script script_;
  fs::path folder_;
  std::string sim_;
  std::unique_ptr<DevService> service_;
  int port_ = 0;
  LearnResult result_;
};

bool Learning::prepare() {
  sim_ = simExecutable();
  if (!options_.service.empty()) {
    std::cerr << "orvane-sim demo --learn: the run starts its own service; --service does not "
                 "apply\n";
    return false;
  }
  if (options_.dataDir.empty()) {
    std::string pattern = (fs::temp_directory_path() / "orvane-learn-XXXXXX").string();
    if (!mkdtemp(pattern.data())) {
      std::cerr << "orvane-sim demo --learn: cannot create a folder for the run\n";
      return false;
    }
    options_.dataDir = pattern;
  }
  std::error_code error;
  fs::create_directories(options_.dataDir, error);
  folder_ = fs::absolute(options_.dataDir);
  if (error || !fs::is_empty(folder_, error)) {
    std::cerr << "orvane-sim demo --learn: " << folder_.string()
              << " must be a new or empty folder: each act starts fresh installations there\n";
    return false;
  }
  if (options_.report.empty()) options_.report = (folder_ / "report.html").string();
  options_.report = fs::absolute(options_.report).string();
  if (options_.serviceDb.empty()) options_.serviceDb = (folder_ / "service.sqlite").string();
  if (fs::exists(options_.serviceDb, error)) {
    // The acts are told apart by upload numbers, and the trainer reads the whole file.
    std::cerr << "orvane-sim demo --learn: " << options_.serviceDb
              << " exists; a learning run needs a service database of its own\n";
    return false;
  }
  options_.serviceDb = fs::absolute(options_.serviceDb).string();
  if (options_.devservice.empty()) options_.devservice = findDevService(sim_);
  if (options_.devservice.empty()) {
    std::cerr << "orvane-sim demo --learn: orvane-devservice is not beside orvane-sim; name it "
                 "with --devservice PATH\n";
    return false;
  }
  if (options_.trainer.empty()) options_.trainer = findTrainer(sim_);

  result_.folder = folder_.string();
  result_.database = options_.serviceDb;
  result_.installations = options_.installations;
  result_.actSeconds = script_.length;
  result_.collectVersion = kCollectVersion;
  result_.trainedVersion = kTrainedVersion;
  result_.minContexts = kMinContexts;
  result_.minEachClass = kMinEachClass;
  result_.minShown = kMinShown;
  for (const FlowPlan& flow : script_.flows) result_.flowOrder.push_back(flow.name);
  return true;
}

bool Learning::startService(const std::string& payload, const std::string& controlPayload,
                            double share, const std::string& models, const std::string& logName) {
  service_.reset();  // the same port again: the trained payload names it in its model URLs
  DevServiceOptions service;
  service.program = options_.devservice;
  service.payloadFile = payload;
  service.controlPayloadFile = controlPayload;
  service.controlShare = share;
  service.modelsDir = models;
  service.database = options_.serviceDb;
  service.logFile = (folder_ / logName).string();
  service.timeLimit = script_.length + kInstallationGrace + 600;
  service.port = port_;
  std::string error;
  service_ = DevService::start(service, &error);
  if (!service_) {
    std::cerr << "orvane-sim demo --learn: " << error << "\n";
    return false;
  }
  result_.serviceURL = service_->url();
  port_ = portOf(service_->url());
  return true;
}

int Learning::playAct(int act) {
  const fs::path actFolder = folder_ / ("act" + std::to_string(act));
  std::vector<ChildProcess> installations;
  for (int i = 1; i <= options_.installations; ++i) {
    const fs::path data = actFolder / ("installation-" + std::to_string(i));
    std::error_code error;
    fs::create_directories(data, error);
    // A seed of its own per installation, so that the users do not answer in step.
    const uint32_t seed = options_.seed * 1000 + static_cast<uint32_t>(act * 100 + i);
    installations.emplace_back(
        std::vector<std::string>{sim_, "demo", "--play-only", "--service", result_.serviceURL,
                                 "--seconds", formatNumber(script_.length), "--data-dir",
                                 data.string(), "--seed", std::to_string(seed), "--fixtures",
                                 options_.fixtures, "--key", options_.key, "--report",
                                 (data / "report.html").string()},
        (data / "terminal.log").string());
  }
  const auto deadline =
      Clock::now() + std::chrono::duration<double>(script_.length + kInstallationGrace);
  int failures = 0;
  for (size_t i = 0; i < installations.size(); ++i) {
    const double left = std::chrono::duration<double>(deadline - Clock::now()).count();
    if (installations[i].wait(std::max(left, 0.0)) != 0) {
      ++failures;
      std::cout << "  installation " << i + 1 << " of act " << act << " did not end well; see "
                << (actFolder / ("installation-" + std::to_string(i + 1)) / "terminal.log") << "\n";
    }
  }
  return failures;
}

void Learning::train() {
  const fs::path out = folder_ / "trained";
  if (options_.trainer.empty()) {
    result_.trainProblem = "orvane-train was not found (name it with --trainer PATH)";
    return;
  }
  std::vector<std::string> command = {kPython,
                                      options_.trainer,
                                      "--data",
                                      options_.serviceDb,
                                      "--out",
                                      out.string(),
                                      "--model-base-url",
                                      result_.serviceURL + "/models",
                                      "--control-share",
                                      formatNumber(kControlShare),
                                      "--payload-version",
                                      std::to_string(kTrainedVersion),
                                      "--min-contexts",
                                      std::to_string(kMinContexts),
                                      "--min-each-class",
                                      std::to_string(kMinEachClass),
                                      "--min-shown",
                                      std::to_string(kMinShown),
                                      "--sim",
                                      sim_};
  for (const std::string& part : command) {
    result_.trainCommand += (result_.trainCommand.empty() ? "" : " ") + part;
  }
  const fs::path log = folder_ / "train.log";
  ChildProcess trainer(command, log.string());
  result_.trainStatus = trainer.wait(1800);
  if (auto report = readJson(out / "report.json")) result_.trainReport = std::move(*report);
  if (result_.trainStatus != 0) {
    result_.trainProblem = "orvane-train failed (exit " + std::to_string(result_.trainStatus) +
                           "): " + lastLine(log) + " (see " + log.string() + ")";
  }
}

void Learning::prepareActTwo(std::string* payload, std::string* controlPayload, double* share) {
  const fs::path trained = folder_ / "trained";
  *payload = (folder_ / "act2-payload.json").string();
  auto model = readJson(trained / "payload.json");
  auto control = readJson(trained / "payload-control.json");
  if (result_.trainProblem.empty() && model && control) {
    *controlPayload = (folder_ / "act2-control-payload.json").string();
    *share = kControlShare;
    writePayloadFile(*payload, withDemoConfiguration(std::move(*model), script_));
    writePayloadFile(*controlPayload, withDemoConfiguration(std::move(*control), script_));
    return;
  }
  if (result_.trainProblem.empty()) {
    result_.trainProblem = "orvane-train wrote no payload.json and payload-control.json";
  }
  // Act 2 still plays, on the control rule for everyone, so the report shows the same acts.
  *share = 0;
  writePayloadFile(*payload, makeCollectionPayload(kTrainedVersion, script_));
}

void Learning::printTrainedFlows() {
  for (const std::string& flow : result_.flowOrder) {
    const json entry = trainedFlow(result_, flow);
    std::cout << "  " << flow << ": ";
    if (entry.is_null()) {
      std::cout << "no answered contexts\n";
      continue;
    }
    std::cout << entry.value("shownContexts", 0) << " shown contexts; ";
    if (entry.value("ships", false)) {
      const json& auc = entry["holdout"]["auc"];
      char text[96];
      std::snprintf(text, sizeof text, "ships (held-out AUC %.2f, %.2f..%.2f)",
                    auc.value("value", 0.0), auc.value("low", 0.0), auc.value("high", 0.0));
      std::cout << text << "\n";
    } else {
      const json refused = entry.value("refused", json::array());
      const json& reason = refused.empty() ? json("no reason given") : refused[0];
      std::cout << "not shipped: "
                << (reason.is_string() ? reason.get<std::string>() : reason.dump()) << "\n";
    }
  }
}

int Learning::run() {
  const auto start = Clock::now();
  if (!prepare()) return 1;
  const std::string collectPayload = (folder_ / "act1-payload.json").string();
  writePayloadFile(collectPayload, makeCollectionPayload(kCollectVersion, script_));
  if (!startService(collectPayload, "", 0, "", "devservice-act1.log")) return 1;

  std::cout << "orvane-sim demo --learn: " << options_.installations
            << " installations per act, acts of " << formatNumber(script_.length)
            << " s\n  folder   " << folder_.string() << "\n  service  " << result_.serviceURL
            << " (orvane-devservice, file " << options_.serviceDb << ")\n\n";
  std::cout << "act 1: collecting; every flow on the control rule, always upselling" << std::endl;
  auto phase = Clock::now();
  result_.act1Failures = playAct(1);
  result_.act1WallSeconds = secondsSince(phase);
  std::string error;
  const auto act1Last = lastRequestNumber(options_.serviceDb, &error);
  if (!act1Last) {
    std::cerr << "orvane-sim demo --learn: cannot read the service's file: " << error << "\n";
    return 1;
  }

  result_.act1LastRequest = *act1Last;
  std::cout << "training: orvane-train on the " << *act1Last << " uploads of act 1" << std::endl;
  phase = Clock::now();
  train();
  result_.trainWallSeconds = secondsSince(phase);
  printTrainedFlows();
  std::string payload, controlPayload;
  double share = 0;
  prepareActTwo(&payload, &controlPayload, &share);
  result_.controlShare = share;
  if (!result_.trainProblem.empty()) std::cout << "  " << result_.trainProblem << "\n";

  const fs::path models = folder_ / "trained" / "models";
  std::error_code ignored;
  fs::create_directories(models, ignored);
  if (!startService(payload, controlPayload, share, models.string(), "devservice-act2.log")) {
    return 1;
  }
  std::cout << "act 2: playing on with fresh installations; " << formatNumber(share * 100)
            << " % of them kept on the control rule" << std::endl;
  phase = Clock::now();
  result_.act2Failures = playAct(2);
  result_.act2WallSeconds = secondsSince(phase);
  service_.reset();

  result_.records =
      readLearningRecords(options_.serviceDb, *act1Last, kTrainedVersion, &result_.recordsProblem);
  result_.wallSeconds = secondsSince(start);
  std::cout << "\n";
  printLearnSummary(std::cout, result_);
  const std::string figures = (fs::path(options_.report).parent_path() / "learning.json").string();
  if (writeLearnReport(options_.report, figures, result_, &error)) {
    std::cout << "\nreport: " << options_.report << "\nfigures: " << figures << "\n";
  } else {
    std::cerr << "orvane-sim demo --learn: cannot write the report: " << error << "\n";
  }
  return result_.records ? 0 : 1;
}

}  // namespace

std::string findTrainer(const std::string& simExecutable) {
  const fs::path dir = fs::path(simExecutable).parent_path();
  for (const fs::path& candidate : {dir / "orvane-train", fs::path(ORVANE_SIM_TRAINER)}) {
    std::error_code error;
    if (fs::is_regular_file(candidate, error)) return fs::weakly_canonical(candidate).string();
  }
  return "";
}

int LearnRun::run() { return Learning(options_).run(); }

}  // namespace orvane::sim::demo
