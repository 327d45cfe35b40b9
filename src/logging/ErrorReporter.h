// File: ErrorReporter.h
// The one way internal failures are reported. Reports are fire-and-forget: they never block
// and never fail the caller.
#pragma once

#include <optional>
#include <string_view>

#include "orvane/PlistValue.h"
#include "util/PlatformError.h"

namespace orvane {

class ErrorReporter {
 public:
  virtual ~ErrorReporter() = default;
  virtual void reportError(std::string_view message, const std::optional<PlatformError>& error,
                           bool usingDefaultConfiguration,
                           const std::optional<PlistDictionary>& additionalData) = 0;

  void reportError(std::string_view message) {
    reportError(message, std::nullopt, false, std::nullopt);
  }
  void reportError(std::string_view message, const PlatformError& error) {
    reportError(message, error, false, std::nullopt);
  }
  void reportError(std::string_view message, PlistDictionary additionalData) {
    reportError(message, std::nullopt, false, std::move(additionalData));
  }
};

}  // namespace orvane
