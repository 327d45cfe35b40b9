#include "logging/OrvaneErrorReporting.h"

#include <string>

#include "api/Engine.h"
#include "config/RemoteConfiguration.h"
#include "logging/AnyEncodable.h"
#include "logging/ReportTextLimit.h"
#include "models/ControlGrouper.h"
#include "util/UserDefaultsProvider.h"

namespace orvane {
namespace {

constexpr const char* kLastOtaUpdateKey = "ota_last_applied_version";

// Reading the sampling rate may itself report (an unreadable stored configuration); such a
// nested report is decided with the built-in rate instead of asking again.
thread_local int decisionDepth = 0;

bool isValidURL(const std::string& url) {
  for (const char* scheme : {"https://", "http://"}) {
    const std::string prefix = scheme;
    if (url.rfind(prefix, 0) == 0) {
      return url.size() > prefix.size() && url[prefix.size()] != '/' &&
             url.find_first_of(" \t\r\n") == std::string::npos;
    }
  }
  return false;
}

}  // namespace

OrvaneErrorReporting::OrvaneErrorReporting(Engine& owner)
    : owner_(owner),
      reportingOperationQueue_(
          owner.platform().executors->makeSerialQueue("com.orvane.OrvaneErrorReporting")) {}

OrvaneErrorReporting::~OrvaneErrorReporting() {
  if (!reportingOperationQueue_->isCurrent()) reportingOperationQueue_->sync([] {});
}

bool OrvaneErrorReporting::shouldReportError(bool usingDefaultConfiguration) {
  if (!owner_.configuration().enableErrorReporting || !owner_.collectionAllowed()) return false;
  if (usingDefaultConfiguration) return true;
  float rate = RemoteConfiguration::getDefaultConfiguration().errorReportingSampleRate;
  if (decisionDepth == 0) {
    ++decisionDepth;
    rate = owner_.remoteConfiguration().getConfiguration().errorReportingSampleRate;
    --decisionDepth;
  }
  if (rate >= 1.0f) return true;
  if (rate <= 0.0f) return false;
  const std::vector<ControlGroup<bool>> groups{{true, static_cast<double>(rate)}, {false, 1.0}};
  return ControlGrouper::getGroupAssignment<bool>(
      *owner_.platform().crypto, owner_.installationUUID(), "error_reporting", groups);
}

bool OrvaneErrorReporting::shouldSkipError(const std::optional<PlatformError>& error) {
  if (!error) return false;
  const int64_t code = error->code;
  if (error->domain == "CoreMLModelManager") return code == 123;
  if (error->domain == kPosixErrorDomain) {
    return code == 50 || code == 52 || code == 53 || code == 54 || code == 60;
  }
  if (error->domain == kUrlErrorDomain) return code == -1001 || code == -1003 || code == -1005;
  return false;
}

void OrvaneErrorReporting::reportError(std::string_view message,
                                       const std::optional<PlatformError>& error,
                                       bool usingDefaultConfiguration,
                                       const std::optional<PlistDictionary>& additionalData) {
  try {
    if (!shouldReportError(usingDefaultConfiguration) || shouldSkipError(error)) return;
    reportingOperationQueue_->async([this, message = std::string(message), error, additionalData] {
      send(message, error, additionalData);
    });
  } catch (...) {  // reporting must never fail its caller
  }
}

Result<std::string> OrvaneErrorReporting::requestBody(
    std::string_view message, const std::optional<PlatformError>& error,
    const std::optional<PlistDictionary>& additionalData) {
  const auto lastOta = owner_.userDefaultsProvider()->integer(kLastOtaUpdateKey).value_or(0);
  std::string out = "{";
  auto member = [&](const char* key) {
    if (out.size() > 1) out.push_back(',');
    appendJsonString(out, key);
    out.push_back(':');
  };
  member("message");
  appendJsonString(out, boundedReportText(message));
  member("bundle_id");
  appendJsonString(out, owner_.bundleIdentifier());
  member("license_key");
  appendJsonString(out, owner_.licenseKey().value_or(""));
  member("sdk_version");
  appendJsonString(out, ContextManager::sdkVersion());
  member("last_ota_update");
  out += std::to_string(lastOta);
  member("installation_uuid");
  appendJsonString(out, owner_.installationUUID());
  member("severity");
  appendJsonString(out, "error");
  member("payload");
  // The error details come first and keep their values: additional data cannot overwrite them.
  out += "{\"err\":";
  if (error) {
    appendJsonString(out, boundedReportText(error->description));
    out += ",\"err_domain\":";
    appendJsonString(out, boundedReportText(error->domain));
    out += ",\"err_code\":" + std::to_string(error->code);
  } else {
    out += "null,\"err_domain\":null,\"err_code\":null";
  }
  std::optional<PlatformError> encodingError;
  if (additionalData) {
    for (const auto& [key, value] : *additionalData) {
      if (key == "err" || key == "err_domain" || key == "err_code") continue;
      out.push_back(',');
      appendJsonString(out, boundedReportText(key));
      out.push_back(':');
      appendJsonValue(out, boundedReportValue(value), encodingError);
    }
  }
  out += "}}";
  if (encodingError) return *encodingError;
  return out;
}

void OrvaneErrorReporting::send(const std::string& message,
                                const std::optional<PlatformError>& error,
                                const std::optional<PlistDictionary>& additionalData) {
  const std::string url = owner_.serviceBaseURL() + kPath;
  if (!isValidURL(url)) return;
  auto body = requestBody(message, error, additionalData);
  if (!body) {
    owner_.platform().log->notice(
        "[Orvane] Failed to send error to backend. If this persists, please contact OrvanePellam "
        "support. " +
        body.error().description);
    return;
  }
  const auto& http = owner_.platform().http;
  if (!http) return;
  HttpRequest request;
  request.url = url;
  request.method = "POST";
  request.headers = {{"Content-Type", "application/json"}};
  request.body.assign(body->begin(), body->end());
  request.timeoutSeconds = 60;
  // The response is not examined and nothing is retried.
  http->send(std::move(request),
             [](const std::optional<HttpResponse>&, const std::optional<PlatformError>&) {});
}

}  // namespace orvane
