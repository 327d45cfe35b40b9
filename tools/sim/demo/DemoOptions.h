// File: DemoOptions.h
// The command line of orvane-sim demo, shared by the single run and the learning run.
#pragma once

#include <cstdint>
#include <string>

namespace orvane::sim::demo {

struct DemoOptions {
  double seconds = 60;
  std::string service;
  std::string dataDir;
  std::string report;
  std::string devservice;
  std::string serviceDb;
  std::string fixtures = ORVANE_SIM_FIXTURES;
  std::string key = "ORVANE-DEMO-KEY-0123456789ABCDEF";
  uint32_t seed = 7;
  // Only play the script against --service: no update, no outage, no listing of what the
  // service stored. The learning run starts its installations this way; the parent owns the
  // service.
  bool playOnly = false;
  // The learning run: collect with the control rule, train, ship, and play on.
  bool learn = false;
  int installations = 48;
  std::string trainer;  // orvane-train; found beside orvane-sim or in the source tree
};

// orvane-sim itself, to start installations and to check trained models with.
std::string simExecutable();

}  // namespace orvane::sim::demo
