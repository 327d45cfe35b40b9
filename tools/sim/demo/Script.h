// File: Script.h
// What the demo plays, as a plain description: where the device lies over time, when the app
// goes to the background and back, when the service starts answering with an update and when
// it has an outage, and which flows the app asks about, how and how often. The default run
// lasts a minute; a shorter run scales every moment with it, while request periods and timing
// spans keep a floor so a short run still shows each effect.
#pragma once

#include <string>
#include <vector>

namespace orvane::sim::demo {

enum class Posture { kTableFaceUp, kWalkingInHand, kTableFaceDown };

// The trace file of a posture (in the motion fixtures folder) and how it reads in the timeline.
const char* traceFileName(Posture posture);
const char* describe(Posture posture);

// kObserver registers a context observer: the SDK evaluates the flow in the background and
// calls back at its first good moment.
enum class RequestForm { kFetchContext, kInstantContext, kOptimize, kObserver };
const char* describe(RequestForm form);

struct FlowPlan {
  std::string name;
  RequestForm form;
  double firstAt;  // seconds into the run
  double period;   // seconds between requests while the app is active (not for observers)
  int seconds;     // duration (fetch, instant), maxDelay (optimize), evaluation (observer)
  // The flow shows an ad: before showing it the app asks for golden signals for the ad's bid.
  bool bidsForAds = false;
};

struct PostureSpan {
  double start;
  double end;
  Posture posture;
};

struct Script {
  double length = 60;
  std::vector<PostureSpan> postures;
  double resignAt = 0;        // the user leaves the app...
  double becomeActiveAt = 0;  // ...and comes back
  double consentAt = 0;       // the user grants consent: collection starts
  double updateAt = 0;        // the service starts answering with an update
  double outageAt = 0;        // the service fails the next upload...
  double recoveryAt = 0;      // ...and is healthy again
  double statusEvery = 5;     // seconds between status lines on the terminal
  // Timing rules the update gives: at most one upsell per `atMostOncePer` seconds in one flow,
  // at least one per `atLeastEvery` seconds in another.
  double atMostOncePer = 4;
  double atLeastEvery = 8;
  // How often the SDK evaluates observed flows once the update sets it.
  double observerPolling = 8;
  std::vector<FlowPlan> flows;

  Posture postureAt(double t) const;
  bool isActiveAt(double t) const { return t < resignAt || t >= becomeActiveAt; }
};

// The run of `seconds` (at least 5).
Script makeScript(double seconds);

// The flows by role: the one the update gives a model, the one it limits to one upsell per
// span, the one it makes act at least once per span, and the one the app observes (it gets the
// model too).
inline constexpr const char* kModelFlow = "article_paywall";
inline constexpr const char* kCappedFlow = "level_end_interstitial";
inline constexpr const char* kDueFlow = "settings_banner";
inline constexpr const char* kObservedFlow = "home_screen_offer";

}  // namespace orvane::sim::demo
