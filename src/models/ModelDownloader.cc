#include "models/ModelDownloader.h"

#include <atomic>
#include <filesystem>
#include <future>

namespace orvane {

PlatformError DownloadError::unexpectedStatusCode(int status) {
  return {kDomain, kUnexpectedStatusCode, "Unexpected status code: " + std::to_string(status)};
}
PlatformError DownloadError::compilationFailed(const std::string& compilerError) {
  return {kDomain, kCompilationFailed, "Failed to compile model: " + compilerError};
}
PlatformError DownloadError::modelNotSupported(const std::string& compilerError) {
  return {kDomain, kModelNotSupported, "Failed to compile model: " + compilerError};
}
PlatformError DownloadError::noResponse() {
  return {kDomain, kNoResponse, "No response received."};
}
PlatformError DownloadError::unknown() { return {kDomain, kUnknown, "Unknown download error."}; }

ModelDownloader::TemporaryFolder::~TemporaryFolder() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

ModelDownloader::ModelDownloader(std::shared_ptr<HttpTransport> session,
                                 std::shared_ptr<ModelRuntime> compiler,
                                 std::string temporaryDirectory, double timeoutSeconds)
    : session_(std::move(session)),
      compiler_(std::move(compiler)),
      temporaryDirectory_(std::move(temporaryDirectory)),
      timeoutSeconds_(timeoutSeconds) {}

Result<ModelDownloader::Downloaded> ModelDownloader::downloadAndCompileModel(
    const std::string& url) {
  if (!session_ || !compiler_) return DownloadError::unknown();
  auto slot = std::make_shared<std::promise<Result<Downloaded>>>();
  auto answered = std::make_shared<std::atomic<bool>>(false);
  auto answer = [slot, answered](Result<Downloaded> result) {
    if (!answered->exchange(true)) slot->set_value(std::move(result));
  };
  std::weak_ptr<ModelDownloader> weakSelf = weak_from_this();
  // Each download compiles into a folder of its own, so concurrent updates never collide.
  static std::atomic<uint64_t> counter{0};
  const std::string compileFolder =
      (std::filesystem::path(temporaryDirectory_) /
       ("compiled-" + std::to_string(reinterpret_cast<uintptr_t>(this)) + "-" +
        std::to_string(counter.fetch_add(1))))
          .string();

  DownloadRequest request;
  request.url = url;
  request.temporaryDirectory = temporaryDirectory_;
  request.timeoutSeconds = timeoutSeconds_;
  request.maximumFileBytes = kDefaultMaximumDownloadBytes;
  session_->download(
      std::move(request), [weakSelf, answer, compileFolder](std::optional<std::string> file,
                                                            std::optional<HttpResponse> response,
                                                            std::optional<PlatformError> error) {
        auto self = weakSelf.lock();
        if (!self) return answer(DownloadError::unknown());
        if (error) return answer(*error);
        if (!response) return answer(DownloadError::noResponse());
        if (response->statusCode < 200 || response->statusCode > 299) {
          return answer(DownloadError::unexpectedStatusCode(response->statusCode));
        }
        if (!file) return answer(DownloadError::unknown());
        // The compiled folder takes its name from the file; the transport's name is random.
        // Removed however the download ends: before a failure is answered, or once the
        // caller has moved the compiled model out and dropped the answer.
        auto folder = std::make_shared<const TemporaryFolder>(compileFolder);
        std::error_code ec;
        std::filesystem::create_directories(folder->path(), ec);
        const std::string named = folder->path() + "/model.mlmodel";
        std::filesystem::rename(*file, named, ec);
        if (ec) {
          std::filesystem::remove(*file, ec);
          folder.reset();
          return answer(DownloadError::unknown());
        }
        auto compiled = self->compiler_->compileModel(named, folder->path());
        if (!compiled) {
          folder.reset();
          const std::string& why = compiled.error().message();
          return answer(compiled.error().isUnsupported() ? DownloadError::modelNotSupported(why)
                                                         : DownloadError::compilationFailed(why));
        }
        std::filesystem::remove(named, ec);
        answer(Downloaded{compiled.value(), std::move(*response), std::move(folder)});
      });
  return slot->get_future().get();
}

}  // namespace orvane
