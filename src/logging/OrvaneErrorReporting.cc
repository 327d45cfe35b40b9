#include "logging/OrvaneErrorReporting.h"

#include <string>

#include "orvane/ContextManager.h"

namespace orvane {

void OrvaneErrorReporting::reportError(std::string_view message,
                                       const std::optional<PlatformError>& error,
                                       bool /*usingDefaultConfiguration*/,
                                       const std::optional<PlistDictionary>& additionalData) {
  if (!owner_.configuration().enableErrorReporting) return;
  std::string line = "[Orvane] Error report: " + std::string(message);
  if (error) line += " (" + error->domain + " " + std::to_string(error->code) + ")";
  if (additionalData) line += " " + describe(PlistValue(*additionalData));
  owner_.platform().log->write(LogLevel::kDebug, line);
}

}  // namespace orvane
