// orvane-sim: plays a host app against the SDK, and the developer tools around it.
#include <CLI/CLI.hpp>
#include <iostream>

#include "DemoCommand.h"
#include "HostCommands.h"
#include "LogCommands.h"
#include "ModelCommands.h"
#include "MotionCommands.h"
#include "orvane/ContextManager.h"

int main(int argc, char** argv) {
  CLI::App app{"orvane-sim: a host-app simulator and developer tools for the OrvanePellam SDK"};
  std::string key = "ORVANE-SIM-KEY-0123456789ABCDEF";
  app.add_option("--key", key, "the app key to set up with (no subcommand)");
  int exitCode = 0;
  orvane::sim::addLogCommands(app, exitCode);
  orvane::sim::addModelCommands(app, exitCode);
  orvane::sim::addHostCommands(app, exitCode);
  orvane::sim::addMotionCommands(app, exitCode);
  orvane::sim::addDemoCommand(app, exitCode);
  CLI11_PARSE(app, argc, argv);

  if (app.get_subcommands().empty()) {
    orvane::ContextManager::setup(key);
    const orvane::Diagnostics diagnostics = orvane::ContextManager::diagnostics();
    std::cout << "OrvanePellam SDK " << orvane::ContextManager::sdkVersion() << "\n";
    std::cout << "installation " << diagnostics.installationID << "\n";
    std::cout << "app launches " << diagnostics.appLaunches << "\n";
  }
  return exitCode;
}
