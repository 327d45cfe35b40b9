#include "HostApp.h"

#include <cstdio>

#include <nlohmann/json.hpp>

#include "orvane/ContextManager.h"
#include "orvane/Log.h"

namespace orvane::sim::demo {
namespace {

// Signals that say how the SDK decided.
constexpr uint16_t kModelExecuted = 16;
constexpr uint16_t kModelVersion = 18;
constexpr uint16_t kProbabilities = 24;
constexpr uint16_t kBlockedByTiming = 650;
constexpr uint16_t kForcedByTiming = 651;
constexpr uint16_t kLogId = 8;

Decision readDecision(const Context& context) {
  Decision d;
  d.flow = context.flowName();
  d.upsell = context.shouldUpsell();
  d.forced = context.wasForcedUpsell();
  bool executed = false;
  std::string version;
  for (const Signal& s : context.signals()) {
    const uint16_t id = s.id().rawValue();
    if (id == kBlockedByTiming) d.blocked = s.value() == SignalValue(true);
    if (id == kForcedByTiming) d.forcedAct = s.value() == SignalValue(true);
    if (id == kModelExecuted) executed = s.value() == SignalValue(int64_t{1});
    if (id == kModelVersion) {
      if (const auto* text = std::get_if<std::string>(&s.value())) version = *text;
    }
    if (id == kProbabilities) {
      if (const auto* text = std::get_if<std::string>(&s.value())) {
        const auto json = nlohmann::json::parse(*text, nullptr, /*allow_exceptions=*/false);
        if (json.is_object() && json.contains("1") && json["1"].is_number()) {
          d.probability = json["1"].get<double>();
        }
      }
    }
  }
  d.decidedBy = executed ? version : "control";
  return d;
}

std::string describe(const Decision& d) {
  std::string text = d.upsell ? "upsell" : "no upsell";
  if (d.blocked) {
    text += ", blocked by timing";
  } else if (d.forcedAct) {
    text += ", forced: the flow was due";
  } else if (d.forced) {
    text += ", forced by chance";
  }
  if (d.probability) {
    char p[48];
    std::snprintf(p, sizeof p, " (model says %.2f)", *d.probability);
    text += p;
  }
  if (d.waited >= 0.5) {
    char w[48];
    std::snprintf(w, sizeof w, " after %.1f s", d.waited);
    text += w;
  }
  return text;
}

std::string shortName(EventOutcome outcome) {
  const std::string_view full = orvane::description(outcome);
  return std::string(full.substr(full.find('.') + 1));
}

std::string padded(const std::string& text, int width = 23) {
  char out[96];
  std::snprintf(out, sizeof out, "%-*s", width, text.c_str());
  return out;
}

}  // namespace

HostApp::HostApp(const Script& script, std::shared_ptr<Recorder> recorder, Scheduler& scheduler,
                 ScriptedUser& user, std::shared_ptr<HostApplicationService> application)
    : script_(script),
      recorder_(std::move(recorder)),
      scheduler_(scheduler),
      user_(user),
      application_(std::move(application)) {}

void HostApp::launch(const std::string& key, const std::string& serviceURL) {
  // Nothing is kept or sent before the user agrees (grantConsent).
  Configuration configuration;
  configuration.requireConsent = true;
  ContextManager::applicationDidFinishLaunchingWithOptions(std::nullopt, key, configuration);
  ContextManager::setServiceBaseURL(serviceURL);
  // Watch each record on its way to the upload queue, then hand it on as the SDK would.
  ContextManager::setLogSender([recorder = recorder_](const std::shared_ptr<Log>& log) {
    if (!log) return;
    // Without consent the SDK keeps no record: only count what it queues.
    if (ContextManager::consent() != ConsentState::kGranted) return log->send();
    for (const Signal& s : log->signals()) {
      if (s.id().rawValue() != kLogId) continue;
      if (const auto* id = std::get_if<std::string>(&s.value())) {
        recorder->edit([&](RunRecord& r) { r.queuedLogIds.push_back(*id); });
      }
    }
    log->send();
  });
  ContextManager::setGlobalCustomSignal("plan", "free");
}

void HostApp::grantConsent() {
  ContextManager::setConsent(ConsentState::kGranted);
  recorder_->edit([t = recorder_->now()](RunRecord& r) { r.consentAt = t; });
  recorder_->note("user", "grants consent: the SDK keeps and uploads records from now on");
}

void HostApp::becomeActive() {
  ++sessions_;
  application_->becomeActive();
}
void HostApp::resignActive() { application_->resignActive(); }
bool HostApp::isActive() const {
  return application_->applicationState() == ApplicationState::kActive;
}

void HostApp::request(const FlowPlan& flow) {
  const double askedAt = recorder_->now();
  const int number = ++requestNumber_;
  std::weak_ptr<HostApp> weak = weak_from_this();
  auto onContext = [weak, flow, askedAt](const std::shared_ptr<Context>& context) {
    if (auto app = weak.lock(); app && context) app->decided(flow, context, askedAt);
  };
  switch (flow.form) {
    case RequestForm::kOptimize: {
      // The model of this flow reads how many sessions the user has had.
      const CustomSignalList signals = {CustomSignalInt("sessions", sessions_.load())};
      ContextManager::optimize(flow.name, flow.seconds, signals, onContext);
      break;
    }
    case RequestForm::kFetchContext: {
      const CustomSignalList signals = {CustomSignalInt("level", number)};
      ContextManager::fetchContext(flow.name, flow.seconds, signals, onContext);
      break;
    }
    case RequestForm::kInstantContext: {
      const CustomSignalList signals = {CustomSignalString("screen", "settings")};
      onContext(ContextManager::instantContext(flow.name, flow.seconds, signals));
      break;
    }
    case RequestForm::kObserver:
      // Called once, at the flow's first good moment; the app registers again afterwards.
      ContextManager::registerContextObserver(flow.name, onContext);
      break;
  }
}

void HostApp::cancelWaitingRequests() {
  for (const FlowPlan& flow : script_.flows) {
    if (flow.form == RequestForm::kObserver) ContextManager::unregisterContextObserver(flow.name);
    ContextManager::cancelContextCallback(flow.name);
  }
}

void HostApp::decided(const FlowPlan& flow, const std::shared_ptr<Context>& context,
                      double askedAt) {
  Decision d = readDecision(*context);
  d.t = recorder_->now();
  d.method = demo::describe(flow.form);
  d.waited = d.t - askedAt;
  recorder_->edit([&](RunRecord& r) { r.decisions.push_back(d); });
  recorder_->note("decision", padded(flow.name) + " " + padded(d.method, 15) + describe(d));

  const bool observed = flow.form == RequestForm::kObserver;
  if (!d.upsell || !isActive()) {
    // Nothing shown. A flow whose model said no has its outcome logged already; an observer's
    // context takes no skipped outcome, and the app waits for the next good moment.
    if (observed) {
      request(flow);
    } else {
      context->logIfNotLoggedYet(EventOutcome::kSkipped);
    }
    return;
  }
  if (flow.bidsForAds) bidForAd(flow);
  std::weak_ptr<HostApp> weak = weak_from_this();
  scheduler_.at(d.t + user_.reactionTime(), [weak, flow, context] {
    if (auto app = weak.lock()) app->answer(flow, context);
  });
}

void HostApp::bidForAd(const FlowPlan& flow) {
  const std::string bidID = "bid-" + std::to_string(++bids_);
  const PlistDictionary golden = ContextManager::goldenSignals(flow.name, bidID);
  GoldenBid bid{recorder_->now(), flow.name, bidID, golden.size()};
  recorder_->edit([&](RunRecord& r) { r.goldenBids.push_back(bid); });
  std::string context = "none";
  if (auto id = golden.find("ctxId"); id != golden.end() && id->second.asString()) {
    context = *id->second.asString();
  }
  recorder_->note("golden", padded(flow.name) + " " + bidID + ": " + std::to_string(golden.size()) +
                                " values for the ad's bid, context " + context);
}

void HostApp::answer(const FlowPlan& flow, const std::shared_ptr<Context>& context) {
  const double now = recorder_->now();
  // An observed flow waits for its next good moment once this one is over.
  const bool observeAgain = flow.form == RequestForm::kObserver && now < script_.length - 1;
  if (!isActive()) {
    // The creation record waits in the queue of unanswered contexts.
    recorder_->note("user", padded(flow.name) + " left the app before answering");
    if (observeAgain) request(flow);
    return;
  }
  const EventOutcome outcome = user_.answer(flow.name, script_.postureAt(now));
  context->log(outcome);
  recorder_->edit([&](RunRecord& r) {
    r.outcomes.push_back({now, flow.name, std::string(orvane::description(outcome))});
  });
  recorder_->note("user", padded(flow.name) + " " +
                              (static_cast<int>(outcome) > 0 ? "says yes, " : "says no, ") +
                              shortName(outcome));
  if (observeAgain) request(flow);
  if (outcome == EventOutcome::kPositiveConverted && !upgraded_) {
    upgraded_ = true;
    ContextManager::setGlobalCustomSignal("plan", "trial");
    recorder_->note("app", "global custom signal plan = trial from now on");
  }
}

}  // namespace orvane::sim::demo
