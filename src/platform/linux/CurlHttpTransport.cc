// HTTP over libcurl. Requests are taken in order by runners on the shared worker pool, up to
// the worker limit at once; each request uses its own easy handle. A runner tells the pool it
// waits on the network, so queues are not held up behind a transfer, and no thread is kept
// for HTTP while nothing is being sent. Answers and downloads are capped as the request says, and
// redirects never leave https (see HttpTransport.h).
#include <curl/curl.h>

#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <exception>
#include <filesystem>
#include <limits>
#include <memory>
#include <mutex>
#include <string_view>

#include "orvane/platform/HttpTransport.h"
#include "orvane/platform/linux/LinuxPlatform.h"
#include "platform/WorkerPool.h"
#include "platform/linux/CurlHttpTransport.h"
#include "platform/linux/OpenSslInit.h"

namespace orvane {
namespace {

// System error numbers as mobile platforms number them, so that callers filter transient
// network failures the same way everywhere.
int64_t portablePosixCode(long err) {
  switch (err) {
    case ENETDOWN:
      return 50;
    case ENETUNREACH:
      return 51;
    case ENETRESET:
      return 52;
    case ECONNABORTED:
      return 53;
    case ECONNRESET:
      return 54;
    case ETIMEDOUT:
      return 60;
    case ECONNREFUSED:
      return 61;
    case EHOSTUNREACH:
      return 65;
    default:
      return err;
  }
}

PlatformError errorFor(CURLcode code, long osErrno) {
  const std::string text = curl_easy_strerror(code);
  switch (code) {
    case CURLE_OPERATION_TIMEDOUT:
      return {kUrlErrorDomain, -1001, "The request timed out. (" + text + ")"};
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
      return {kUrlErrorDomain, -1003,
              "A server with the specified hostname could not be found. (" + text + ")"};
    case CURLE_COULDNT_CONNECT:
      if (osErrno != 0) {
        return {kPosixErrorDomain, portablePosixCode(osErrno),
                std::strerror(static_cast<int>(osErrno))};
      }
      return {kUrlErrorDomain, -1004, "Could not connect to the server. (" + text + ")"};
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_GOT_NOTHING:
    case CURLE_PARTIAL_FILE:
      return {kUrlErrorDomain, -1005, "The network connection was lost. (" + text + ")"};
    case CURLE_URL_MALFORMAT:
    case CURLE_UNSUPPORTED_PROTOCOL:
      return {kUrlErrorDomain, -1000, "Bad URL. (" + text + ")"};
    case CURLE_PEER_FAILED_VERIFICATION:
      return {kUrlErrorDomain, -1202, "The certificate for this server is invalid. (" + text + ")"};
    case CURLE_SSL_CONNECT_ERROR:
      return {kUrlErrorDomain, -1200,
              "An SSL error has occurred and a secure connection to the server cannot be made. (" +
                  text + ")"};
    case CURLE_TOO_MANY_REDIRECTS:
      return {kUrlErrorDomain, -1007, "Too many HTTP redirects. (" + text + ")"};
    case CURLE_WRITE_ERROR:
      return {kUrlErrorDomain, -3003, "Cannot write the downloaded file. (" + text + ")"};
    default:
      return {kUrlErrorDomain, -1, text};
  }
}

PlatformError tooLargeError(uint64_t maximumBytes) {
  return {kUrlErrorDomain, kResourceExceedsMaximumSize,
          "The resource exceeds the maximum size of " + std::to_string(maximumBytes) + " bytes."};
}

PlatformError refusedRedirectError(const std::string& location) {
  constexpr size_t kShownLocationBytes = 256;
  return {kUrlErrorDomain, kRedirectLeavesSecureConnection,
          "Refused to follow a redirect from https to a connection that is not secure: " +
              location.substr(0, kShownLocationBytes)};
}

// Headers are a few hundred bytes; a server that sends more is misbehaving.
constexpr size_t kMaximumHeaderBytes = 64 * 1024;

bool isHttps(const std::string& url) {
  return url.size() >= 6 && strncasecmp(url.c_str(), "https:", 6) == 0;
}

// One transfer's sink and limits, and why it stopped early. Curl hands the write callback
// decoded bytes, so the cap holds after any content decoding.
struct TransferState {
  CURL* curl = nullptr;
  uint64_t maximumBodyBytes = 0;
  HttpResponse* response = nullptr;
  Bytes* body = nullptr;   // an answer kept in memory
  FILE* file = nullptr;    // or a download
  uint64_t bodyBytes = 0;  // never above maximumBodyBytes
  size_t headerBytes = 0;
  long status = 0;  // of the response whose headers are arriving
  bool tooLarge = false;
  bool sinkFailed = false;
  std::optional<std::string> refusedLocation;
};

size_t receiveBody(char* data, size_t size, size_t count, void* target) {
  auto& state = *static_cast<TransferState*>(target);
  const size_t length = size * count;
  if (length > state.maximumBodyBytes - state.bodyBytes) {
    state.tooLarge = true;
    return 0;  // aborts the transfer
  }
  state.bodyBytes += length;
  if (state.file) {
    if (std::fwrite(data, 1, length, state.file) == length) return length;
    state.sinkFailed = true;
    return 0;
  }
  try {
    state.body->insert(state.body->end(), data, data + length);
    return length;
  } catch (...) {  // no exception may cross libcurl
    state.sinkFailed = true;
    return 0;
  }
}

std::string trimmed(std::string_view text) {
  const size_t begin = text.find_first_not_of(" \t");
  if (begin == std::string_view::npos) return "";
  const size_t end = text.find_last_not_of(" \t\r\n");
  return std::string(text.substr(begin, end - begin + 1));
}

// Keeps the headers of the last response only (not of redirect hops), and refuses a redirect
// that leaves https before curl follows it.
size_t receiveHeader(char* data, size_t size, size_t count, void* target) {
  auto& state = *static_cast<TransferState*>(target);
  const size_t length = size * count;
  try {
    const std::string_view line(data, length);
    if (line.starts_with("HTTP/")) {
      const size_t space = line.find(' ');
      state.status = space == std::string_view::npos ? 0 : std::atol(line.data() + space + 1);
      state.response->headers.clear();
      state.headerBytes = 0;
      return length;
    }
    state.headerBytes += length;
    if (state.headerBytes > kMaximumHeaderBytes) {
      state.tooLarge = true;
      return 0;
    }
    const size_t colon = line.find(':');
    if (colon == std::string_view::npos) return length;
    std::string name(line.substr(0, colon));
    std::string value = trimmed(line.substr(colon + 1));
    if (state.status >= 300 && state.status < 400 && strcasecmp(name.c_str(), "Location") == 0) {
      const char* current = nullptr;
      curl_easy_getinfo(state.curl, CURLINFO_EFFECTIVE_URL, &current);
      if (!current || !mayFollowRedirect(current, value)) {
        state.refusedLocation = value;
        return 0;
      }
    }
    state.response->headers.emplace_back(std::move(name), std::move(value));
    return length;
  } catch (...) {  // no exception may cross libcurl
    state.sinkFailed = true;
    return 0;
  }
}

// Requests waiting for a runner, and the runners on the pool. Shared with the runners, so a
// transport released from a completion leaves them something to finish with.
class PendingRequests final : public PoolClient,
                              public std::enable_shared_from_this<PendingRequests> {
 public:
  explicit PendingRequests(size_t maxRunners) : maxRunners_(maxRunners) {}

  void add(std::function<void()> job) {
    std::lock_guard<std::mutex> guard(mutex_);
    jobs_.push_back(std::move(job));
    // Runners not yet inside a request will take the waiting ones.
    if (runners_ >= maxRunners_ || runners_ - busy_ >= jobs_.size()) return;
    ++runners_;
    WorkerPool::shared().runSoon(shared_from_this());
  }

  // Waits until the requests already added have run, except the one calling (a transport
  // released from its own completion).
  void stop() {
    WorkerPool::BlockingScope blocking(WorkerPool::shared());
    std::unique_lock<std::mutex> lock(mutex_);
    const size_t self = currentRunner == this ? 1 : 0;
    finished_.wait(lock, [&] { return runners_ == self; });
  }

  void runTurn() override {
    const PendingRequests* outer = currentRunner;
    currentRunner = this;
    std::unique_lock<std::mutex> lock(mutex_);
    while (!jobs_.empty()) {
      std::function<void()> job = std::move(jobs_.front());
      jobs_.pop_front();
      ++busy_;
      lock.unlock();
      {
        WorkerPool::BlockingScope blocking(WorkerPool::shared());
        try {
          job();
        } catch (...) {  // a completion must not take the runner down
        }
        job = nullptr;
      }
      lock.lock();
      --busy_;
    }
    --runners_;
    finished_.notify_all();
    currentRunner = outer;
  }

  void onAlarm(TimePoint) override {}

 private:
  static thread_local const PendingRequests* currentRunner;
  const size_t maxRunners_;
  std::mutex mutex_;
  std::condition_variable finished_;  // a runner ran out of requests
  std::deque<std::function<void()>> jobs_;
  size_t runners_ = 0;
  size_t busy_ = 0;  // runners inside a request
};

thread_local const PendingRequests* PendingRequests::currentRunner = nullptr;

class CurlHttpTransport : public HttpTransport {
 public:
  CurlHttpTransport(size_t workers, std::string trustedAuthoritiesPem)
      : trustedAuthoritiesPem_(std::move(trustedAuthoritiesPem)),
        requests_(std::make_shared<PendingRequests>(std::max<size_t>(1, workers))) {
    static std::once_flag globalInit;
    std::call_once(globalInit, [] {
      initializeOpenSslWithoutExitHandler();  // before curl initialises it with the handler
      curl_global_init(CURL_GLOBAL_DEFAULT);
    });
  }

  ~CurlHttpTransport() override { requests_->stop(); }

  void send(HttpRequest request, HttpCompletion completion) override {
    enqueue(
        [request = std::move(request), completion = std::move(completion),
         authorities = trustedAuthoritiesPem_] { performSend(request, completion, authorities); });
  }

  void download(DownloadRequest request, DownloadCompletion completion) override {
    enqueue([request = std::move(request), completion = std::move(completion),
             authorities = trustedAuthoritiesPem_] {
      performDownload(request, completion, authorities);
    });
  }

 private:
  void enqueue(std::function<void()> job) { requests_->add(std::move(job)); }

  struct Transfer {
    CURLcode code;
    long osErrno;
  };

  // Runs the transfer into `state`, then releases the handle.
  static Transfer perform(CURL* curl, TransferState& state) {
    state.curl = curl;
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, receiveBody);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &state);
    curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, receiveHeader);
    curl_easy_setopt(curl, CURLOPT_HEADERDATA, &state);
    // A declared length above the cap fails before any of the body arrives.
    if (state.maximumBodyBytes > 0) {
      curl_easy_setopt(curl, CURLOPT_MAXFILESIZE_LARGE,
                       static_cast<curl_off_t>(std::min<uint64_t>(
                           state.maximumBodyBytes, std::numeric_limits<curl_off_t>::max())));
    }
    const CURLcode code = curl_easy_perform(curl);
    long status = 0;
    long osErrno = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    curl_easy_getinfo(curl, CURLINFO_OS_ERRNO, &osErrno);
    curl_easy_cleanup(curl);
    state.response->statusCode = static_cast<int>(status);
    return {code, osErrno};
  }

  // The failure of a transfer that did not end with CURLE_OK, most specific first.
  static PlatformError failureOf(const Transfer& transfer, const TransferState& state,
                                 PlatformError sinkFailure) {
    if (state.refusedLocation) return refusedRedirectError(*state.refusedLocation);
    if (state.tooLarge || transfer.code == CURLE_FILESIZE_EXCEEDED) {
      return tooLargeError(state.maximumBodyBytes);
    }
    if (state.sinkFailed) return sinkFailure;
    return errorFor(transfer.code, transfer.osErrno);
  }

  static CURL* makeHandle(const std::string& url, double timeoutSeconds,
                          const std::string& trustedAuthoritiesPem) {
    CURL* curl = curl_easy_init();
    if (!curl) return nullptr;
    if (!trustedAuthoritiesPem.empty()) {
      curl_blob authorities{const_cast<char*>(trustedAuthoritiesPem.data()),
                            trustedAuthoritiesPem.size(), CURL_BLOB_COPY};
      curl_easy_setopt(curl, CURLOPT_CAINFO_BLOB, &authorities);
    }
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, static_cast<long>(timeoutSeconds * 1000));
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS,
                     static_cast<long>(std::min(timeoutSeconds, 30.0) * 1000));
    curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(curl, CURLOPT_MAXREDIRS, 5L);
    // URLs come from the network: never let one read local files or speak other protocols.
    curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
    // A request that starts on https stays there; the header callback also checks every hop,
    // which catches http -> https -> http and says why.
    curl_easy_setopt(curl, CURLOPT_REDIR_PROTOCOLS_STR, isHttps(url) ? "https" : "http,https");
    curl_easy_setopt(curl, CURLOPT_ACCEPT_ENCODING, "");
    return curl;
  }

  static void performSend(const HttpRequest& request, const HttpCompletion& completion,
                          const std::string& trustedAuthoritiesPem) {
    CURL* curl = makeHandle(request.url, request.timeoutSeconds, trustedAuthoritiesPem);
    if (!curl) {
      completion(std::nullopt, PlatformError{kUrlErrorDomain, -1, "Cannot create a request"});
      return;
    }
    curl_slist* headers = nullptr;
    for (const auto& [name, value] : request.headers) {
      std::string line = name;
      line += ": ";
      line += value;
      headers = curl_slist_append(headers, line.c_str());
    }
    headers = curl_slist_append(headers, "Expect:");  // no 100-continue round trip
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    if (request.method == "POST") {
      curl_easy_setopt(curl, CURLOPT_POST, 1L);
      curl_easy_setopt(curl, CURLOPT_POSTFIELDS, request.body.data());
      curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE,
                       static_cast<curl_off_t>(request.body.size()));
    } else if (request.method != "GET") {
      curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, request.method.c_str());
    }
    HttpResponse response;
    TransferState state;
    state.maximumBodyBytes = request.maximumResponseBytes;
    state.response = &response;
    state.body = &response.body;
    const Transfer transfer = perform(curl, state);
    curl_slist_free_all(headers);
    if (transfer.code != CURLE_OK) {
      completion(
          std::nullopt,
          failureOf(transfer, state, PlatformError{kUrlErrorDomain, -1, "Cannot hold the answer"}));
      return;
    }
    completion(std::move(response), std::nullopt);
  }

  static void performDownload(const DownloadRequest& request, const DownloadCompletion& completion,
                              const std::string& trustedAuthoritiesPem) {
    std::error_code ec;
    std::filesystem::create_directories(request.temporaryDirectory, ec);
    std::string path =
        (std::filesystem::path(request.temporaryDirectory) / "download-XXXXXX").string();
    const int fd = mkstemp(path.data());
    FILE* file = fd >= 0 ? fdopen(fd, "wb") : nullptr;
    if (!file) {
      const int err = errno;
      if (fd >= 0) {
        close(fd);
        std::filesystem::remove(path, ec);
      }
      errno = err;
      completion(std::nullopt, std::nullopt,
                 PlatformError{kPosixErrorDomain, portablePosixCode(errno),
                               "Cannot create a temporary file"});
      return;
    }
    CURL* curl = makeHandle(request.url, request.timeoutSeconds, trustedAuthoritiesPem);
    if (!curl) {
      std::fclose(file);
      std::filesystem::remove(path, ec);
      completion(std::nullopt, std::nullopt,
                 PlatformError{kUrlErrorDomain, -1, "Cannot create a request"});
      return;
    }
    HttpResponse response;
    TransferState state;
    state.maximumBodyBytes = request.maximumFileBytes;
    state.response = &response;
    state.file = file;
    const Transfer transfer = perform(curl, state);
    const bool closed = std::fclose(file) == 0;
    if (transfer.code != CURLE_OK || !closed) {
      std::filesystem::remove(path, ec);
      const PlatformError cannotWrite{kUrlErrorDomain, -3003, "Cannot write the downloaded file"};
      completion(std::nullopt, std::nullopt,
                 transfer.code != CURLE_OK ? failureOf(transfer, state, cannotWrite) : cannotWrite);
      return;
    }
    completion(path, std::move(response), std::nullopt);
    std::filesystem::remove(path, ec);
  }

  const std::string trustedAuthoritiesPem_;  // empty: the system's
  const std::shared_ptr<PendingRequests> requests_;
};

}  // namespace

std::shared_ptr<HttpTransport> makeCurlHttpTransport(size_t workers) {
  return std::make_shared<CurlHttpTransport>(workers, std::string());
}

std::shared_ptr<HttpTransport> makeCurlHttpTransportTrusting(std::string certificateAuthoritiesPem,
                                                             size_t workers) {
  return std::make_shared<CurlHttpTransport>(workers, std::move(certificateAuthoritiesPem));
}

}  // namespace orvane
