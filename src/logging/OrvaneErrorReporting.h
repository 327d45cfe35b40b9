// File: OrvaneErrorReporting.h
// Sends internal failures to the service's error endpoint, when the host allows it. Until
// the transport is in place a report is written to the system log at debug level.
#pragma once

#include "logging/ErrorReporter.h"

namespace orvane {

class ContextManager;

class OrvaneErrorReporting : public ErrorReporter {
 public:
  explicit OrvaneErrorReporting(ContextManager& owner) : owner_(owner) {}

  using ErrorReporter::reportError;
  void reportError(std::string_view message, const std::optional<PlatformError>& error,
                   bool usingDefaultConfiguration,
                   const std::optional<PlistDictionary>& additionalData) override;

 private:
  ContextManager& owner_;  // not owned; the manager outlives its components
};

}  // namespace orvane
