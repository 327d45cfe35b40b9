// File: UploadFailureNotes.h
// What a host sees in its log when uploads fail: one info line per kind of failure a session
// (an HTTP status, a transport error, a refused certificate, no answer at all), so a team
// debugging its integration learns why nothing arrives without a line per attempt; and, at
// debug level, the back-off and what waits after every failed attempt.
#pragma once

#include <cstddef>
#include <optional>
#include <set>
#include <string>

#include "orvane/PlatformError.h"
#include "orvane/platform/HttpTransport.h"
#include "orvane/platform/SystemLog.h"

namespace orvane {

class UploadFailureNotes {
 public:
  // The kind of a failed answer ("status 503", "NSURLErrorDomain -1001", "no answer") and a
  // sentence for the host; none for an accepted answer.
  struct Failure {
    std::string kind;
    std::string sentence;
  };
  static std::optional<Failure> describe(const std::optional<HttpResponse>& response,
                                         const std::optional<PlatformError>& error);

  // Logs the failure at info level unless its kind was logged before in the session
  // `sessionId`; a new session starts over. Not thread-safe: the sender calls it from its
  // own queue.
  void noteFailure(SystemLog& log, const Failure& failure, const std::string& sessionId);
  // The state after a failed attempt, at debug level.
  static void noteBackoff(SystemLog& log, double backoffSeconds, size_t recordsWaiting);

 private:
  std::string session_;
  std::set<std::string> kindsLogged_;  // in session_
};

}  // namespace orvane
