// orvane-devservice: the upload and error-reporting service on loopback, for development and
// tests. Prints "listening on http://127.0.0.1:PORT" once it accepts requests, and stops by
// itself after --time-limit seconds (or on SIGINT / SIGTERM).
#include <httplib.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <iostream>
#include <thread>

#include "ControlSplit.h"
#include "FaultScript.h"
#include "PayloadFile.h"
#include "Routes.h"
#include "StopSignal.h"
#include "Storage.h"

namespace {

// A fresh database file in the temporary folder; the caller removes it.
std::string temporaryDatabase() {
  std::string name =
      (std::filesystem::temp_directory_path() / "orvane-devservice-XXXXXX.sqlite").string();
  const int fd = mkstemps(name.data(), 7);
  if (fd < 0) throw std::runtime_error("cannot create a temporary database file");
  close(fd);
  return name;
}

// Blocks until a termination signal or the deadline; says which on stderr.
void waitForStop(sigset_t signals, double seconds) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (std::chrono::steady_clock::now() < deadline) {
    const timespec tick{0, 100'000'000};
    const int signal = sigtimedwait(&signals, nullptr, &tick);
    if (signal > 0) {
      std::cerr << "stopping: signal " << signal << "\n";
      return;
    }
  }
  std::cerr << "stopping: time limit reached\n";
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"Loopback upload and error-reporting service for development and tests"};
  int port = 0;
  std::string database, payloadPath, controlPayloadPath, modelsDir, faultList;
  double timeLimit = 600, controlShare = 0;
  app.add_option("--port", port, "Port on 127.0.0.1; 0 picks a free one")
      ->check(CLI::Range(0, 65535));
  app.add_option("--db", database,
                 "SQLite file for what is received (default: a temporary "
                 "file, removed when the service stops)");
  app.add_option("--payload", payloadPath,
                 "JSON file uploads are answered with, read again when it changes (default: "
                 "empty answers)");
  app.add_option("--control-payload", controlPayloadPath,
                 "JSON file the control arm's uploads are answered with, read again when it "
                 "changes");
  app.add_option("--control-share", controlShare,
                 "Share of installations (by a hash of their uuid) answered with "
                 "--control-payload (default 0: everyone gets --payload)")
      ->check(CLI::Range(0.0, 1.0));
  app.add_option("--models", modelsDir, "Folder served at /models/<name>")
      ->check(CLI::ExistingDirectory);
  app.add_option("--faults", faultList,
                 "Answers for the next uploads, e.g. 500,500,timeout:2,200:0.5");
  app.add_option("--time-limit", timeLimit, "Seconds before the service stops by itself")
      ->check(CLI::PositiveNumber);
  CLI11_PARSE(app, argc, argv);
  if (controlShare > 0 && controlPayloadPath.empty()) {
    std::cerr << "orvane-devservice: --control-share needs --control-payload\n";
    return 1;
  }

  // Before any thread starts, so that every thread leaves these signals to waitForStop.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  const bool temporary = database.empty();
  try {
    devservice::FaultScript faults;
    faults.replace(devservice::parseFaultList(faultList));
    if (temporary) database = temporaryDatabase();
    std::cerr << "storing in " << database << "\n";
    {
      devservice::Storage storage(database);
      devservice::PayloadFile payload(payloadPath);
      devservice::PayloadFile controlPayload(controlPayloadPath);
      const devservice::ControlSplit split(controlShare);
      devservice::StopSignal stop;
      devservice::Services services{storage, payload, controlPayload, split,
                                    faults,  stop,    modelsDir};
      httplib::Server server;
      // httplib's default SO_REUSEPORT would let a second service share a port already taken.
      server.set_socket_options([](int socket) {
        const int yes = 1;
        setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
      });
      devservice::installRoutes(server, services);

      const int bound = port == 0 ? server.bind_to_any_port("127.0.0.1")
                                  : (server.bind_to_port("127.0.0.1", port) ? port : -1);
      if (bound < 0) throw std::runtime_error("cannot bind 127.0.0.1:" + std::to_string(port));
      std::thread listener([&server] { server.listen_after_bind(); });
      while (!server.is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
      std::cout << "listening on http://127.0.0.1:" << bound << std::endl;

      waitForStop(signals, timeLimit);
      stop.request();
      server.stop();
      listener.join();
    }
  } catch (const std::exception& error) {
    std::cerr << "orvane-devservice: " << error.what() << "\n";
    if (temporary && !database.empty()) std::filesystem::remove(database);
    return 1;
  }
  if (temporary) std::filesystem::remove(database);
  return 0;
}
