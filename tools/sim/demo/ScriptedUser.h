// File: ScriptedUser.h
// The person holding the phone. Shown an upsell, they take a moment and then say yes or no;
// they say yes more often at good moments (the phone lying still in front of them) than at bad
// ones (walking). Seeded, so a run can be repeated.
#pragma once

#include <cstdint>
#include <mutex>
#include <random>
#include <string>

#include "Script.h"
#include "orvane/Context.h"

namespace orvane::sim::demo {

class ScriptedUser {
 public:
  explicit ScriptedUser(uint32_t seed) : engine_(seed) {}

  // The chance of a yes to an upsell shown in `posture`.
  static double receptiveness(Posture posture);

  // The answer to an upsell shown in `flow`: the yes that fits the flow, or a dismissal.
  EventOutcome answer(const std::string& flow, Posture posture);
  // Seconds between seeing the upsell and answering it.
  double reactionTime();

 private:
  std::mutex mutex_;
  std::mt19937 engine_;
};

}  // namespace orvane::sim::demo
