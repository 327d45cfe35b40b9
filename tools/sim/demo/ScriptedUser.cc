#include "ScriptedUser.h"

namespace orvane::sim::demo {

double ScriptedUser::receptiveness(Posture posture) {
  switch (posture) {
    case Posture::kTableFaceUp:
      return 0.65;
    case Posture::kWalkingInHand:
      return 0.15;
    case Posture::kTableFaceDown:
      return 0.35;  // picked up again: interrupted, but not on the move
  }
  return 0;
}

EventOutcome ScriptedUser::answer(const std::string& flow, Posture posture) {
  std::lock_guard<std::mutex> guard(mutex_);
  if (std::uniform_real_distribution<double>(0, 1)(engine_) >= receptiveness(posture)) {
    return EventOutcome::kNegativeDismissed;
  }
  if (flow == kModelFlow) return EventOutcome::kPositiveConverted;
  if (flow == kCappedFlow) return EventOutcome::kPositiveAdTapped;
  if (flow == kObservedFlow) return EventOutcome::kPositive;
  return EventOutcome::kPositiveInteracted;
}

double ScriptedUser::reactionTime() {
  std::lock_guard<std::mutex> guard(mutex_);
  return std::uniform_real_distribution<double>(0.4, 1.5)(engine_);
}

}  // namespace orvane::sim::demo
