// HTTP over libcurl. A fixed pool of workers takes requests in order; each request uses its
// own easy handle, so requests run concurrently up to the pool size.
#include <curl/curl.h>

#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <deque>
#include <filesystem>
#include <mutex>
#include <thread>

#include <unistd.h>

#include "orvane/platform/HttpTransport.h"
#include "orvane/platform/linux/LinuxPlatform.h"
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
    case CURLE_WRITE_ERROR:
      return {kUrlErrorDomain, -3003, "Cannot write the downloaded file. (" + text + ")"};
    default:
      return {kUrlErrorDomain, -1, text};
  }
}

size_t appendToBytes(char* data, size_t size, size_t count, void* target) {
  auto* bytes = static_cast<Bytes*>(target);
  bytes->insert(bytes->end(), data, data + size * count);
  return size * count;
}

size_t appendToFile(char* data, size_t size, size_t count, void* target) {
  return std::fwrite(data, size, count, static_cast<FILE*>(target)) * size;
}

size_t collectHeader(char* data, size_t size, size_t count, void* target) {
  auto* headers = static_cast<std::vector<std::pair<std::string, std::string>>*>(target);
  std::string line(data, size * count);
  const size_t colon = line.find(':');
  if (colon != std::string::npos) {
    std::string value = line.substr(colon + 1);
    const size_t begin = value.find_first_not_of(" \t");
    const size_t end = value.find_last_not_of(" \t\r\n");
    value = begin == std::string::npos ? "" : value.substr(begin, end - begin + 1);
    headers->emplace_back(line.substr(0, colon), value);
  }
  return size * count;
}

class CurlHttpTransport : public HttpTransport {
 public:
  explicit CurlHttpTransport(size_t workers) {
    static std::once_flag globalInit;
    std::call_once(globalInit, [] {
      initializeOpenSslWithoutExitHandler();  // before curl initialises it with the handler
      curl_global_init(CURL_GLOBAL_DEFAULT);
    });
    for (size_t i = 0; i < std::max<size_t>(1, workers); ++i) {
      threads_.emplace_back([this] { work(); });
    }
  }

  ~CurlHttpTransport() override {
    {
      std::lock_guard<std::mutex> guard(mutex_);
      stopping_ = true;
    }
    wake_.notify_all();
    for (auto& t : threads_) {
      if (t.get_id() == std::this_thread::get_id()) {
        t.detach();  // released from a completion: the worker finishes on its own
      } else {
        t.join();
      }
    }
  }

  void send(HttpRequest request, HttpCompletion completion) override {
    enqueue([request = std::move(request), completion = std::move(completion)] {
      performSend(request, completion);
    });
  }

  void download(std::string url, std::string temporaryDirectory, double timeoutSeconds,
                DownloadCompletion completion) override {
    enqueue([url = std::move(url), dir = std::move(temporaryDirectory), timeoutSeconds,
             completion = std::move(completion)] {
      performDownload(url, dir, timeoutSeconds, completion);
    });
  }

 private:
  void enqueue(std::function<void()> job) {
    {
      std::lock_guard<std::mutex> guard(mutex_);
      jobs_.push_back(std::move(job));
    }
    wake_.notify_one();
  }

  void work() {
    while (true) {
      std::function<void()> job;
      {
        std::unique_lock<std::mutex> lock(mutex_);
        wake_.wait(lock, [this] { return stopping_ || !jobs_.empty(); });
        if (jobs_.empty()) return;  // stopping with nothing left
        job = std::move(jobs_.front());
        jobs_.pop_front();
      }
      try {
        job();
      } catch (...) {  // a completion must not take the worker down
      }
    }
  }

  struct Transfer {
    CURLcode code;
    long osErrno;
  };

  // Runs the transfer with its body going to `sink` and its headers and status into
  // `response`, then releases the handle.
  static Transfer perform(CURL* curl, curl_write_callback write, void* sink,
                          HttpResponse& response) {
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, write);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, sink);
    curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, collectHeader);
    curl_easy_setopt(curl, CURLOPT_HEADERDATA, &response.headers);
    const CURLcode code = curl_easy_perform(curl);
    long status = 0;
    long osErrno = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    curl_easy_getinfo(curl, CURLINFO_OS_ERRNO, &osErrno);
    curl_easy_cleanup(curl);
    response.statusCode = static_cast<int>(status);
    return {code, osErrno};
  }

  static CURL* makeHandle(const std::string& url, double timeoutSeconds) {
    CURL* curl = curl_easy_init();
    if (!curl) return nullptr;
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, static_cast<long>(timeoutSeconds * 1000));
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS,
                     static_cast<long>(std::min(timeoutSeconds, 30.0) * 1000));
    curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(curl, CURLOPT_MAXREDIRS, 5L);
    // URLs come from the network: never let one read local files or speak other protocols.
    curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(curl, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(curl, CURLOPT_ACCEPT_ENCODING, "");
    return curl;
  }

  static void performSend(const HttpRequest& request, const HttpCompletion& completion) {
    CURL* curl = makeHandle(request.url, request.timeoutSeconds);
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
    const Transfer transfer = perform(curl, appendToBytes, &response.body, response);
    curl_slist_free_all(headers);
    if (transfer.code != CURLE_OK) {
      completion(std::nullopt, errorFor(transfer.code, transfer.osErrno));
      return;
    }
    completion(std::move(response), std::nullopt);
  }

  static void performDownload(const std::string& url, const std::string& dir, double timeoutSeconds,
                              const DownloadCompletion& completion) {
    std::error_code ec;
    std::filesystem::create_directories(dir, ec);
    std::string path = (std::filesystem::path(dir) / "download-XXXXXX").string();
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
    CURL* curl = makeHandle(url, timeoutSeconds);
    if (!curl) {
      std::fclose(file);
      std::filesystem::remove(path, ec);
      completion(std::nullopt, std::nullopt,
                 PlatformError{kUrlErrorDomain, -1, "Cannot create a request"});
      return;
    }
    HttpResponse response;
    const Transfer transfer = perform(curl, appendToFile, file, response);
    const CURLcode code = transfer.code;
    const bool closed = std::fclose(file) == 0;
    if (code != CURLE_OK || !closed) {
      std::filesystem::remove(path, ec);
      completion(std::nullopt, std::nullopt,
                 code != CURLE_OK
                     ? errorFor(code, transfer.osErrno)
                     : PlatformError{kUrlErrorDomain, -3003, "Cannot write the downloaded file"});
      return;
    }
    completion(path, std::move(response), std::nullopt);
    std::filesystem::remove(path, ec);
  }

  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<std::function<void()>> jobs_;
  bool stopping_ = false;
  std::vector<std::thread> threads_;
};

}  // namespace

std::shared_ptr<HttpTransport> makeCurlHttpTransport(size_t workers) {
  return std::make_shared<CurlHttpTransport>(workers);
}

}  // namespace orvane
