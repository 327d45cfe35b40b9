// File: RecordingHttpTransport.h
// An HTTP transport that records requests and answers them from a script, at once on the
// caller's thread.
#pragma once

#include <deque>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string_view>
#include <vector>

#include "orvane/platform/HttpTransport.h"

namespace orvane::testing {

class RecordingHttpTransport : public HttpTransport {
 public:
  struct Answer {
    std::optional<HttpResponse> response;
    std::optional<PlatformError> error;
    // For downloads: the content of the file handed to the completion (none: no file).
    std::optional<std::string> fileContent;
  };

  void send(HttpRequest request, HttpCompletion completion) override {
    Answer answer = next();
    {
      std::lock_guard<std::mutex> guard(mutex_);
      requests_.push_back(std::move(request));
    }
    completion(answer.response, answer.error);
  }
  void download(DownloadRequest download, DownloadCompletion completion) override {
    Answer answer = next();
    {
      std::lock_guard<std::mutex> guard(mutex_);
      HttpRequest request;
      request.url = download.url;
      request.method = "GET";
      request.timeoutSeconds = download.timeoutSeconds;
      request.maximumResponseBytes = download.maximumFileBytes;
      requests_.push_back(std::move(request));
    }
    std::optional<std::string> file;
    if (answer.fileContent) {
      std::filesystem::create_directories(download.temporaryDirectory);
      file = download.temporaryDirectory + "/download-" + std::to_string(requests().size());
      std::ofstream(*file, std::ios::binary) << *answer.fileContent;
    }
    completion(file, answer.response, answer.error);
    if (file) std::filesystem::remove(*file);
  }

  // Answers for the next requests, in order; afterwards every request gets 200 with no body.
  void script(std::vector<Answer> answers) {
    std::lock_guard<std::mutex> guard(mutex_);
    answers_.assign(answers.begin(), answers.end());
  }
  std::vector<HttpRequest> requests() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return requests_;
  }
  // Error reports sent so far whose body mentions `text`.
  size_t errorReportsMentioning(std::string_view text) const {
    std::lock_guard<std::mutex> guard(mutex_);
    size_t count = 0;
    for (const HttpRequest& request : requests_) {
      const std::string_view body(reinterpret_cast<const char*>(request.body.data()),
                                  request.body.size());
      if (request.url.ends_with("/v2/error-reporting") && body.find(text) != body.npos) ++count;
    }
    return count;
  }

 private:
  Answer next() {
    std::lock_guard<std::mutex> guard(mutex_);
    if (answers_.empty()) return {HttpResponse{200, {}, {}}, std::nullopt, std::nullopt};
    Answer a = answers_.front();
    answers_.pop_front();
    return a;
  }

  mutable std::mutex mutex_;
  std::deque<Answer> answers_;
  std::vector<HttpRequest> requests_;
};

}  // namespace orvane::testing
