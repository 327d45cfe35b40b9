// File: DemoCommand.h
// orvane-sim demo: plays a host app on Linux for about a minute, in real time, against the
// development service (started on loopback unless one is named), prints the timeline and a
// summary, and writes an HTML report.
#pragma once

#include <CLI/CLI.hpp>

namespace orvane::sim {

void addDemoCommand(CLI::App& app, int& exitCode);

}  // namespace orvane::sim
