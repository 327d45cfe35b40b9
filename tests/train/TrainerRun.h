// File: TrainerRun.h
// Runs orvane-train (Python, under /usr/bin/python3) on a folder of upload bodies and reads
// what it wrote. The trainer needs Debian's numpy, scikit-learn, protobuf and protoc; without
// them the suite says so and skips.
#pragma once

#include <sys/wait.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include <nlohmann/json.hpp>

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

inline std::string readText(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// Empty when the trainer can run here, else what is missing.
inline std::string trainerMissing() {
  if (std::system("/usr/bin/python3 -c 'import numpy, sklearn, google.protobuf' 2>/dev/null") !=
      0) {
    return "/usr/bin/python3 lacks numpy, sklearn or protobuf (scripts/install-deps.sh)";
  }
  if (std::system("command -v protoc >/dev/null 2>&1") != 0) return "protoc is not installed";
  return "";
}

inline TrainerRun runTrainer(const std::filesystem::path& data, const std::filesystem::path& out,
                             const std::string& extraArguments = "") {
  TrainerRun run;
  run.out = out;
  const std::string command = std::string("/usr/bin/python3 ") + ORVANE_TRAIN + " --data '" +
                              data.string() + "' --out '" + out.string() + "' --sim '" +
                              ORVANE_SIM + "' --rows '" + (out / "rows.jsonl").string() + "' " +
                              extraArguments + " 2>&1";
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) return run;
  char buffer[4096];
  size_t n;
  while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) run.output.append(buffer, n);
  const int status = pclose(pipe);
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
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
