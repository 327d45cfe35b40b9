// File: LogCommands.h
// orvane-sim encode-log / decode-log: the encoded log form from the command line.
#pragma once

#include <CLI/CLI.hpp>

namespace orvane::sim {

void addLogCommands(CLI::App& app, int& exitCode);

}  // namespace orvane::sim
