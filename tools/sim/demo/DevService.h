// File: DevService.h
// The development service as the demo's child process, and the few things the demo asks of a
// service: what it answers uploads with from now on, a scripted outage, and what it stored.
#pragma once

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "orvane/platform/HttpTransport.h"

namespace orvane::sim::demo {

// orvane-devservice beside `simExecutable` (installed side by side, or the build tree's
// tools/devservice); empty when there is none.
std::string findDevService(const std::string& simExecutable);

struct DevServiceOptions {
  std::string program;
  std::string payloadFile;  // uploads are answered with it, re-read when it changes
  // The control arm: installations the service keeps on the control rule, and their answer.
  std::string controlPayloadFile;
  double controlShare = 0;
  int port = 0;           // 0: a free one
  std::string modelsDir;  // served at /models/<name>
  std::string database;   // empty: a temporary file the service removes
  std::string logFile;    // the service's request lines
  double timeLimit = 600;
};

class DevService {
 public:
  // Starts the service on its loopback port (a free one by default) and waits until it accepts
  // requests. Null with `error` set when it does not come up.
  static std::unique_ptr<DevService> start(const DevServiceOptions& options, std::string* error);
  // Stops the service.
  ~DevService();
  DevService(const DevService&) = delete;
  DevService& operator=(const DevService&) = delete;

  const std::string& url() const { return url_; }

 private:
  DevService(pid_t pid, std::string url) : pid_(pid), url_(std::move(url)) {}
  pid_t pid_;
  std::string url_;
};

// A running service, ours or one named on the command line.
class ServiceClient {
 public:
  explicit ServiceClient(std::string url);
  // Replaces the upload answers with the next steps of a fault script ("503", "timeout:1");
  // false when the service does not take scripts.
  bool scriptFaults(const nlohmann::json& steps);
  // The service's listing of what it stored; none when it has no such listing.
  std::optional<nlohmann::json> stored();

 private:
  std::optional<HttpResponse> exchange(HttpRequest request);
  std::string url_;
  std::shared_ptr<HttpTransport> http_;
};

// Writes `payload` to `path` so that a reader sees the old file or the new one, never a part.
bool writePayloadFile(const std::string& path, const nlohmann::json& payload);

}  // namespace orvane::sim::demo
