// File: HostApp.h
// The app the demo plays, written against the SDK's public API the way an app developer would:
// setup at launch, the service, global custom signals, three flows that ask for a context in
// three different ways, and the user's answer logged as the outcome.
#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "PostureMotionService.h"
#include "Recorder.h"
#include "Scheduler.h"
#include "Script.h"
#include "ScriptedUser.h"
#include "orvane/Context.h"
#include "orvane/platform/ApplicationService.h"

namespace orvane::sim::demo {

class HostApp : public std::enable_shared_from_this<HostApp> {
 public:
  HostApp(const Script& script, std::shared_ptr<Recorder> recorder, Scheduler& scheduler,
          ScriptedUser& user, std::shared_ptr<HostApplicationService> application);

  // What the app does as it starts: setup with its key, where logs and uploads go, the global
  // custom signals every log carries.
  void launch(const std::string& key, const std::string& serviceURL);
  // The user's answer to the app's consent prompt.
  void grantConsent();
  void becomeActive();
  void resignActive();
  bool isActive() const;

  // Asks for a context in `flow` as its plan says; shows the upsell when told to and logs what
  // the user did.
  void request(const FlowPlan& flow);
  // Drops requests still waiting for motion data; their callbacks never come.
  void cancelWaitingRequests();

 private:
  void decided(const FlowPlan& flow, const std::shared_ptr<Context>& context, double askedAt);
  void answer(const FlowPlan& flow, const std::shared_ptr<Context>& context);
  // Golden signals for the bid of the ad about to be shown in `flow`.
  void bidForAd(const FlowPlan& flow);

  const Script& script_;
  const std::shared_ptr<Recorder> recorder_;
  Scheduler& scheduler_;
  ScriptedUser& user_;
  const std::shared_ptr<HostApplicationService> application_;
  // Requests come from the demo's thread and, for the observer, from the main queue.
  std::atomic<int> requestNumber_{0};
  std::atomic<int> bids_{0};
  std::atomic<int> sessions_{0};  // the app's own count, read by the model flow's model
  bool upgraded_ = false;         // the demo's thread only
};

}  // namespace orvane::sim::demo
