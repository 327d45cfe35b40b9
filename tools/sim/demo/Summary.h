// File: Summary.h
// The numbers a run ends with, counted from its record, and their text for the terminal.
#pragma once

#include <cstddef>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "RunRecord.h"

namespace orvane::sim::demo {

struct FlowSummary {
  std::string flow;
  std::string method;
  size_t contexts = 0;
  size_t upsells = 0;
  size_t forced = 0;      // upsells imposed by chance or timing
  size_t blocked = 0;     // timing turned a yes into a no
  size_t forcedActs = 0;  // timing turned a no into a yes
  size_t byModel = 0;     // decided by a model rather than by a control rule
  size_t answeredYes = 0;
  size_t answeredNo = 0;

  double upsellRate() const { return contexts ? double(upsells) / contexts : 0; }
  double forcedRate() const { return contexts ? double(forced) / contexts : 0; }
};

struct Summary {
  double length = 0;
  std::vector<FlowSummary> flows;  // in the script's order
  FlowSummary all;
  // Records this run handed to the upload queue, and what became of them.
  size_t queued = 0;
  size_t uploaded = 0;
  size_t waiting = 0;
  size_t replaced = 0;  // creation records dropped once their outcome was logged
  size_t uploadedFromEarlierRuns = 0;
  size_t uploadAttempts = 0;
  size_t uploadsAccepted = 0;
  size_t uploadsFailed = 0;
  double longestBackoff = 0;
  std::vector<std::string> modelsApplied;  // "demo-update-1 at 12.6 s"
  size_t modelDownloads = 0;
  size_t goldenBids = 0;
  double goldenValuesPerBid = 0;
  size_t errorReports = 0;
  size_t sdkErrorLines = 0;
  std::optional<int64_t> serviceStoredEvents;
  std::optional<double> consentAt;
};

Summary summarize(const RunRecord& record);
void printSummary(std::ostream& out, const Summary& summary);
// "42 %".
std::string percent(double share);

}  // namespace orvane::sim::demo
