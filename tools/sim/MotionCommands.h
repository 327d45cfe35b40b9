// File: MotionCommands.h
// orvane-sim features: the motion signals of a recorded trace from the command line.
#pragma once

#include <CLI/CLI.hpp>

namespace orvane::sim {

void addMotionCommands(CLI::App& app, int& exitCode);

}  // namespace orvane::sim
