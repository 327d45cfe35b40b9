// File: HttpTransport.h
// HTTP for uploads, error reports and model downloads. Completions run on the transport's
// own threads; a failure carries a platform error (URL-loading domain codes -1001 time-out,
// -1003 host not found, -1004 cannot connect, -1005 connection lost; POSIX domain for
// system errors, numbered as on mobile platforms) so callers can tell transient failures.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "orvane/Export.h"
#include "orvane/PlatformError.h"
#include "orvane/PlistValue.h"

namespace orvane {

struct ORVANE_API HttpRequest {
  std::string url;
  std::string method = "POST";
  std::vector<std::pair<std::string, std::string>> headers;
  Bytes body;
  double timeoutSeconds = 60;
};

struct ORVANE_API HttpResponse {
  int statusCode = 0;
  std::vector<std::pair<std::string, std::string>> headers;
  Bytes body;
};

// Exactly one of response and error is set.
using HttpCompletion =
    std::function<void(std::optional<HttpResponse> response, std::optional<PlatformError> error)>;
// On success `temporaryFile` names the downloaded file, which the callee must move away
// before returning; the transport removes it afterwards.
using DownloadCompletion =
    std::function<void(std::optional<std::string> temporaryFile,
                       std::optional<HttpResponse> response, std::optional<PlatformError> error)>;

class ORVANE_API HttpTransport {
 public:
  virtual ~HttpTransport() = default;
  virtual void send(HttpRequest request, HttpCompletion completion) = 0;
  // GET of `url` into a temporary file in `temporaryDirectory`.
  virtual void download(std::string url, std::string temporaryDirectory, double timeoutSeconds,
                        DownloadCompletion completion) = 0;
};

// A transport for platforms that have none: every request fails at once with a URL-loading
// error (-1004) that says so, and uploads back off as for any failed connection.
ORVANE_API std::shared_ptr<HttpTransport> makeUnavailableHttpTransport();

}  // namespace orvane
