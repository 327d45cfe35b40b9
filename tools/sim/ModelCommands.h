// File: ModelCommands.h
// orvane-sim predict / model-info: run and inspect model files from the command line.
#pragma once

#include <CLI/CLI.hpp>

namespace orvane::sim {

void addModelCommands(CLI::App& app, int& exitCode);

}  // namespace orvane::sim
