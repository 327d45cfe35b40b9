#include "logging/UploadFailureNotes.h"

#include <cstdio>

namespace orvane {
namespace {

// Certificates and handshakes: the codes the transports give a failed TLS connection.
bool isTlsFailure(const PlatformError& error) {
  return error.domain == kUrlErrorDomain && error.code <= -1200 && error.code >= -1206;
}

}  // namespace

std::optional<UploadFailureNotes::Failure> UploadFailureNotes::describe(
    const std::optional<HttpResponse>& response, const std::optional<PlatformError>& error) {
  if (response) {
    const int status = response->statusCode;
    if (status >= 200 && status <= 202) return std::nullopt;
    return Failure{"status " + std::to_string(status),
                   "the service answered with HTTP status " + std::to_string(status)};
  }
  if (error) {
    const std::string kind = error->domain + " " + std::to_string(error->code);
    const std::string what =
        isTlsFailure(*error) ? "the secure connection failed" : "the request failed";
    return Failure{kind, what + ": " + error->description + " (" + kind + ")"};
  }
  return Failure{"no answer", "the request got no answer in time"};
}

void UploadFailureNotes::noteFailure(SystemLog& log, const Failure& failure,
                                     const std::string& sessionId) {
  if (sessionId != session_) {
    session_ = sessionId;
    kindsLogged_.clear();
  }
  if (!kindsLogged_.insert(failure.kind).second) return;
  log.info("[Orvane] Upload failed: " + failure.sentence +
           ". Records wait for a later attempt; this is logged once per kind of failure.");
}

void UploadFailureNotes::noteBackoff(SystemLog& log, double backoffSeconds, size_t recordsWaiting) {
  char seconds[32];
  std::snprintf(seconds, sizeof seconds, "%.1f", backoffSeconds);
  log.write(LogLevel::kDebug, "[Orvane] Upload back-off " + std::string(seconds) + " s; " +
                                  std::to_string(recordsWaiting) + " records waiting.");
}

}  // namespace orvane
