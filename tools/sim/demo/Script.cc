#include "Script.h"

#include <algorithm>

namespace orvane::sim::demo {

const char* traceFileName(Posture posture) {
  switch (posture) {
    case Posture::kTableFaceUp:
      return "table_still_face_up.json";
    case Posture::kWalkingInHand:
      return "walking_in_hand.json";
    case Posture::kTableFaceDown:
      return "table_face_down.json";
  }
  return "";
}

const char* describe(Posture posture) {
  switch (posture) {
    case Posture::kTableFaceUp:
      return "flat on a table, face up";
    case Posture::kWalkingInHand:
      return "in a hand while walking";
    case Posture::kTableFaceDown:
      return "face down on a table";
  }
  return "";
}

const char* describe(RequestForm form) {
  switch (form) {
    case RequestForm::kFetchContext:
      return "fetchContext";
    case RequestForm::kInstantContext:
      return "instantContext";
    case RequestForm::kOptimize:
      return "optimize";
    case RequestForm::kObserver:
      return "observer";
  }
  return "";
}

Posture Script::postureAt(double t) const {
  for (const PostureSpan& span : postures) {
    if (t < span.end) return span.posture;
  }
  return postures.empty() ? Posture::kTableFaceUp : postures.back().posture;
}

Script makeScript(double seconds) {
  Script s;
  s.length = std::max(seconds, 5.0);
  const double L = s.length;
  const double k = L / 60.0;
  s.postures = {{0, 0.3 * L, Posture::kTableFaceUp},
                {0.3 * L, 0.7 * L, Posture::kWalkingInHand},
                {0.7 * L, L, Posture::kTableFaceDown}};
  // The update lands while the device lies still, with time for uploads to fetch it before the
  // outage, which comes early enough that the back-off of a one-minute run runs out.
  // The app asks for consent as it starts; the user grants it a few seconds in.
  s.consentAt = std::min(3.0, 0.05 * L);
  s.updateAt = 0.15 * L;
  s.outageAt = 0.4 * L;
  s.recoveryAt = 0.45 * L;
  s.resignAt = 0.55 * L;
  s.becomeActiveAt = 0.62 * L;
  s.statusEvery = std::max(5 * k, 2.0);
  s.atMostOncePer = std::max(4 * k, 1.5);
  s.atLeastEvery = std::max(8 * k, 2.0);
  s.observerPolling = std::max(8 * k, 2.0);
  // The model flow waits for the three seconds of motion its model reads.
  s.flows = {
      {kModelFlow, RequestForm::kOptimize, 1.0 * std::min(k, 1.0), std::max(5 * k, 2.0), 3},
      {kCappedFlow, RequestForm::kFetchContext, 0.5 * std::min(k, 1.0), std::max(3 * k, 1.5), 2,
       /*bidsForAds=*/true},
      {kDueFlow, RequestForm::kInstantContext, 1.5 * std::min(k, 1.0), std::max(2.5 * k, 1.2), 3},
      // Registered once at launch and again after each answer; the SDK evaluates it on 3 s.
      {kObservedFlow, RequestForm::kObserver, 0, 0, 3},
  };
  return s;
}

}  // namespace orvane::sim::demo
