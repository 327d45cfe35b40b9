// File: OrvaneErrorReporting.h
// Sends internal failures to the service's error endpoint: one request per report, from one
// serial queue, never retried. The host's switch turns it off; a per-installation draw
// against the remotely configured sampling rate thins it out; transient network failures are
// never sent. Every text a report carries is cut to 4 KiB (ReportTextLimit.h), so a server
// answer echoed into a report cannot make it large.
#pragma once

#include <memory>
#include <string>

#include "logging/ErrorReporter.h"
#include "orvane/platform/Executors.h"
#include "util/Result.h"

namespace orvane {

class Engine;

class OrvaneErrorReporting : public ErrorReporter {
 public:
  static constexpr const char* kPath = "/v2/error-reporting";

  explicit OrvaneErrorReporting(Engine& owner);
  // Reports already queued are sent first: they use this object.
  ~OrvaneErrorReporting() override;

  using ErrorReporter::reportError;
  // Returns at once; the request is built and sent on the reporting queue.
  void reportError(std::string_view message, const std::optional<PlatformError>& error,
                   bool usingDefaultConfiguration,
                   const std::optional<PlistDictionary>& additionalData) override;

  bool shouldReportError(bool usingDefaultConfiguration);
  static bool shouldSkipError(const std::optional<PlatformError>& error);

  // The request body, or the encoding failure.
  Result<std::string> requestBody(std::string_view message,
                                  const std::optional<PlatformError>& error,
                                  const std::optional<PlistDictionary>& additionalData);

 private:
  void send(const std::string& message, const std::optional<PlatformError>& error,
            const std::optional<PlistDictionary>& additionalData);

  Engine& owner_;  // not owned; the manager outlives its components
  std::shared_ptr<SerialQueue> reportingOperationQueue_;
};

}  // namespace orvane
