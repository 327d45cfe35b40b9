// File: TrainerRun.h
// Runs orvane-train (Python, under /usr/bin/python3) on a folder of upload bodies and reads
// what it wrote. The trainer needs Debian's numpy, scikit-learn, protobuf and protoc; without
// them the suite says so and skips.
#pragma once

#include <filesystem>
#include <fstream>
#include <map>
#include <string>

#include <nlohmann/json.hpp>

#include "testutil/ToolProcess.h"

namespace orvane::testing {

struct TrainerRun {
  int status = -1;
  std::string output;
  std::filesystem::path out;
  nlohmann::json report;
  std::string payloadText;
  std::string controlPayloadText;
  // Each trained context's row, by context id: {"inputs": {...} in input order, ...}.
  std::map<std::string, nlohmann::ordered_json> rows;

  const nlohmann::json* flowReport(const std::string& flow) const {
    for (const auto& f : report["flows"]) {
      if (f["flow"] == flow) return &f;
    }
    return nullptr;
  }
};

inline TrainerRun runTrainer(const std::filesystem::path& data, const std::filesystem::path& out,
                             const std::string& extraArguments = "") {
  TrainerRun run;
  run.out = out;
  const std::string command = std::string("/usr/bin/python3 ") + ORVANE_TRAIN + " --data '" +
                              data.string() + "' --out '" + out.string() + "' --sim '" +
                              ORVANE_SIM + "' --rows '" + (out / "rows.jsonl").string() + "' " +
                              extraArguments;
  const Finished finished = runCommand(command);
  run.status = finished.status;
  run.output = finished.output;
  if (run.status != 0) return run;
  run.report = nlohmann::json::parse(readText(out / "report.json"), nullptr, false);
  run.payloadText = readText(out / "payload.json");
  run.controlPayloadText = readText(out / "payload-control.json");
  std::ifstream rows(out / "rows.jsonl");
  for (std::string line; std::getline(rows, line);) {
    auto row = nlohmann::ordered_json::parse(line, nullptr, false);
    if (!row.is_object() || !row["context"].is_string()) continue;
    const std::string context = row["context"];
    run.rows[context] = std::move(row);
  }
  return run;
}

}  // namespace orvane::testing
