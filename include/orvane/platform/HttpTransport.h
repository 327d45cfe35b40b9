// File: HttpTransport.h
// HTTP for uploads, error reports and model downloads. Completions run on the transport's
// own threads; a failure carries a platform error (URL-loading domain codes -1001 time-out,
// -1003 host not found, -1004 cannot connect, -1005 connection lost; POSIX domain for
// system errors, numbered as on mobile platforms) so callers can tell transient failures.
//
// Every transport must also honour, whatever the server sends:
// - the size caps below: an answer body (counted after any content decoding) or a download
//   that would pass its cap fails with kResourceExceedsMaximumSize (-1103) as soon as it
//   does, without holding more than the cap; a declared length above the cap fails at once;
// - no downgrade: a redirect from https to anything but https is not followed and fails
//   with kRedirectLeavesSecureConnection (-1022), so a body sent over TLS never goes out in
//   clear. Redirects between plain http URLs (a development service) are followed.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "orvane/Export.h"
#include "orvane/PlatformError.h"
#include "orvane/PlistValue.h"

namespace orvane {

// URL-loading codes of the two refusals above, as mobile platforms number them.
inline constexpr int64_t kResourceExceedsMaximumSize = -1103;
inline constexpr int64_t kRedirectLeavesSecureConnection = -1022;

// Service answers are small JSON documents.
inline constexpr uint64_t kDefaultMaximumResponseBytes = uint64_t{1} << 20;  // 1 MiB
// Model files are a few hundred KB; the cap also bounds what compiling one may allocate.
inline constexpr uint64_t kDefaultMaximumDownloadBytes = uint64_t{16} << 20;  // 16 MiB

struct ORVANE_API HttpRequest {
  std::string url;
  std::string method = "POST";
  std::vector<std::pair<std::string, std::string>> headers;
  Bytes body;
  double timeoutSeconds = 60;
  // The most the answer's body may hold once decoded.
  uint64_t maximumResponseBytes = kDefaultMaximumResponseBytes;
};

struct ORVANE_API DownloadRequest {
  std::string url;
  std::string temporaryDirectory;  // where the downloaded file is written
  double timeoutSeconds = 300;
  // The most the downloaded file may hold once decoded.
  uint64_t maximumFileBytes = kDefaultMaximumDownloadBytes;
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
  // GET of `request.url` into a temporary file in `request.temporaryDirectory`.
  virtual void download(DownloadRequest request, DownloadCompletion completion) = 0;
};

// Whether a redirect from `fromUrl` to `location` (a Location header: absolute, scheme-relative
// or relative) may be followed: not when it leaves https. Transports check every hop.
ORVANE_API bool mayFollowRedirect(std::string_view fromUrl, std::string_view location) noexcept;

// A transport for platforms that have none: every request fails at once with a URL-loading
// error (-1004) that says so, and uploads back off as for any failed connection.
ORVANE_API std::shared_ptr<HttpTransport> makeUnavailableHttpTransport();

}  // namespace orvane
