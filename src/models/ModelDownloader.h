// File: ModelDownloader.h
// Fetches a flow's model file and compiles it on the device. Used only from the model
// store's serial update queue, which it blocks until download and compilation are done.
#pragma once

#include <memory>
#include <string>
#include <utility>

#include "orvane/platform/HttpTransport.h"
#include "orvane/platform/ModelRuntime.h"
#include "util/Result.h"

namespace orvane {

// The downloader's own failures; transport failures pass through with their own domain.
struct DownloadError {
  static constexpr const char* kDomain = "ModelDownloader.DownloadError";
  enum Code {
    kUnexpectedStatusCode = 1,
    kCompilationFailed = 2,
    kNoResponse = 3,
    kUnknown = 4,
    // The compiler will never take this model (its kind or format version); same text as 2.
    kModelNotSupported = 5,
  };

  static PlatformError unexpectedStatusCode(int status);
  static PlatformError compilationFailed(const std::string& compilerError);
  static PlatformError modelNotSupported(const std::string& compilerError);
  static PlatformError noResponse();
  static PlatformError unknown();
};

class ModelDownloader : public std::enable_shared_from_this<ModelDownloader> {
 public:
  // A folder under the temporary directory that is removed with its last owner.
  class TemporaryFolder {
   public:
    explicit TemporaryFolder(std::string path) : path_(std::move(path)) {}
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    const std::string& path() const { return path_; }

   private:
    std::string path_;
  };

  struct Downloaded {
    std::string compiledModelPath;  // inside `folder`: move it away before `folder` goes
    HttpResponse response;
    std::shared_ptr<const TemporaryFolder> folder;
  };

  // Downloads and compiled folders are written under `temporaryDirectory`.
  ModelDownloader(std::shared_ptr<HttpTransport> session, std::shared_ptr<ModelRuntime> compiler,
                  std::string temporaryDirectory, double timeoutSeconds = 300);

  // Never call from the transport's own threads: it waits for their completion.
  Result<Downloaded> downloadAndCompileModel(const std::string& url);

 private:
  std::shared_ptr<HttpTransport> session_;
  std::shared_ptr<ModelRuntime> compiler_;
  std::string temporaryDirectory_;
  double timeoutSeconds_;
};

}  // namespace orvane
