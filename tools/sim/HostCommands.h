// File: HostCommands.h
// orvane-sim host: a minimal host app that creates contexts, logs outcomes and uploads to a
// service, printing "queued <log id>" once each outcome record is durably in the upload queue. Used
// to check that nothing queued is lost when the process is killed.
#pragma once

#include <CLI/CLI.hpp>

namespace orvane::sim {

void addHostCommands(CLI::App& app, int& exitCode);

}  // namespace orvane::sim
