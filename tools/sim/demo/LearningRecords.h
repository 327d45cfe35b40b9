// File: LearningRecords.h
// How often users said yes in each act of a learning run, read back from the service's SQLite
// file and paired the way orvane-train pairs records (tools/train/README.md): re-sent copies
// dropped by log id; an answer is an outcome log (event type 2) with outcome 1..4 (positive),
// -3..-1 (negative) or 0 (skipped); a context is positive when any answer is, else negative
// when any is, and left out when only skipped or never answered. Only contexts shown (decision
// yes, read from the first answer) count: acceptance is positive answers over shown contexts.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace orvane::sim::demo {

struct Tally {
  int64_t shown = 0;
  int64_t positive = 0;
  bool operator==(const Tally&) const = default;
};

// A rate with its 95 % Wilson score interval; all 0 when nothing was shown.
struct Interval {
  double rate = 0, low = 0, high = 0;
};
Interval wilson(const Tally& tally);

struct FlowAcceptance {
  Tally before;  // act 1: every installation on the control rule
  // Act 2, contexts decided under the trained update (both arms), and per arm.
  Tally after;
  Tally model;
  Tally control;
  // Act 2 contexts decided before the installation had the trained update: left out above.
  int64_t beforeUpdate = 0;
};

struct ActCounts {
  int64_t uploads = 0;
  int64_t events = 0;
  int64_t installations = 0;
};

struct LearningRecords {
  std::map<std::string, FlowAcceptance> flows;
  ActCounts act1, act2;
  int64_t modelInstallations = 0;  // act 2, by the arm the service stored
  int64_t controlInstallations = 0;
  int64_t duplicates = 0;  // re-sent copies dropped
};

// Uploads numbered up to `act1LastRequest` are act 1, later ones act 2, where the update the
// contexts must have been decided under is `trainedVersion`. None with `error` set when the
// file cannot be read.
std::optional<LearningRecords> readLearningRecords(const std::string& database,
                                                   int64_t act1LastRequest, int64_t trainedVersion,
                                                   std::string* error);

// The number of the last upload stored so far (0 for none); none when the file cannot be read.
std::optional<int64_t> lastRequestNumber(const std::string& database, std::string* error);

}  // namespace orvane::sim::demo
