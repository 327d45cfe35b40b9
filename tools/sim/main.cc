// orvane-sim: plays a host app against the SDK.
#include <CLI/CLI.hpp>
#include <iostream>

#include "orvane/ContextManager.h"

int main(int argc, char** argv) {
  CLI::App app{"orvane-sim: a host-app simulator for the OrvanePellam SDK"};
  std::string key = "ORVANE-SIM-KEY-0123456789ABCDEF";
  app.add_option("--key", key, "the app key to set up with");
  CLI11_PARSE(app, argc, argv);

  orvane::ContextManager::setup(key);
  auto& manager = orvane::ContextManager::shared();
  std::cout << "OrvanePellam SDK " << orvane::ContextManager::sdkVersion() << "\n";
  std::cout << "installation " << manager.installationUUID() << "\n";
  return 0;
}
