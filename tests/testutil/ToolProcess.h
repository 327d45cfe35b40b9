// File: ToolProcess.h
// Running the project's command-line tools from a test: a shell command with its output, a
// file read whole, and whether orvane-train's Python modules are here.
#pragma once

#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace orvane::testing {

struct Finished {
  int status = -1;  // the exit status; -1 when the command could not run or was killed
  std::string output;
};

// `command` through the shell, with its stdout and stderr.
inline Finished runCommand(const std::string& command) {
  Finished finished;
  FILE* pipe = popen((command + " 2>&1").c_str(), "r");
  if (!pipe) return finished;
  char buffer[4096];
  size_t n;
  while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) finished.output.append(buffer, n);
  const int status = pclose(pipe);
  finished.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return finished;
}

inline std::string readText(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// Empty when orvane-train can run here, else what is missing.
inline std::string trainerMissing() {
  if (std::system("/usr/bin/python3 -c 'import numpy, sklearn, google.protobuf' 2>/dev/null") !=
      0) {
    return "/usr/bin/python3 lacks numpy, sklearn or protobuf (scripts/install-deps.sh)";
  }
  if (std::system("command -v protoc >/dev/null 2>&1") != 0) return "protoc is not installed";
  return "";
}

}  // namespace orvane::testing
