// File: LearnReport.h
// What a learning run ends with: per flow, the acceptance before (act 1, control rule) and
// after (act 2, trained update), and in act 2 the model arm against the control arm, each with
// its 95 % Wilson interval; as two terminal lines, an HTML page in the demo report's style,
// and a JSON file for tools.
#pragma once

#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "LearningRecords.h"

namespace orvane::sim::demo {

struct LearnResult {
  std::string folder;
  std::string serviceURL;
  std::string database;
  int installations = 0;
  double actSeconds = 0;
  double controlShare = 0;
  int64_t collectVersion = 0;   // act 1's update
  int64_t trainedVersion = 0;   // act 2's
  int64_t act1LastRequest = 0;  // the service's upload numbers up to this one are act 1
  std::vector<std::string> flowOrder;
  double act1WallSeconds = 0, trainWallSeconds = 0, act2WallSeconds = 0, wallSeconds = 0;
  int act1Failures = 0, act2Failures = 0;  // installations that did not end well
  // The trainer: its command, exit status, the minimum counts given, and its report.json.
  std::string trainCommand;
  int trainStatus = -1;
  std::string trainProblem;  // why act 2 runs without a trained update, empty when it has one
  int minContexts = 0, minEachClass = 0, minShown = 0;
  nlohmann::json trainReport;  // null when the trainer wrote none
  std::optional<LearningRecords> records;
  std::string recordsProblem;
};

// The trainer's entry for `flow`, null when it has none.
nlohmann::json trainedFlow(const LearnResult& result, const std::string& flow);

void printLearnSummary(std::ostream& out, const LearnResult& result);
std::string renderLearnReport(const LearnResult& result);
nlohmann::json learnFigures(const LearnResult& result);
bool writeLearnReport(const std::string& htmlPath, const std::string& jsonPath,
                      const LearnResult& result, std::string* error);

}  // namespace orvane::sim::demo
