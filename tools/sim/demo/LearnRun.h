// File: LearnRun.h
// orvane-sim demo --learn: closes the loop on loopback. Act 1 collects: the service answers
// every installation with the control rule (always upsell) while several installations, each
// an orvane-sim process of its own, play the demo's script at once. Then orvane-train learns a
// model per flow from the service's file, and act 2 plays on with fresh installations, the
// service answering all but a control share with the trained update. The report compares the
// acts, and the arms of act 2, from the records the service stored.
#pragma once

#include "DemoOptions.h"

namespace orvane::sim::demo {

// orvane-train beside `simExecutable` (installed side by side), else the source tree's;
// empty when there is neither.
std::string findTrainer(const std::string& simExecutable);

class LearnRun {
 public:
  explicit LearnRun(DemoOptions options) : options_(std::move(options)) {}
  int run();

 private:
  DemoOptions options_;
};

}  // namespace orvane::sim::demo
