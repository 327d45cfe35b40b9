// File: RecordingServices.h
// Platform services the demo installs around the Linux ones to watch the SDK through its seam:
// every HTTP exchange with the service (uploads with their records, error reports, model
// downloads), and the SDK's log lines, kept in a file rather than on the terminal.
#pragma once

#include <atomic>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>

#include "Recorder.h"
#include "orvane/platform/HttpTransport.h"
#include "orvane/platform/SystemLog.h"

namespace orvane::sim::demo {

class RecordingHttpTransport : public HttpTransport {
 public:
  RecordingHttpTransport(std::shared_ptr<HttpTransport> inner, std::shared_ptr<Recorder> recorder);
  void send(HttpRequest request, HttpCompletion completion) override;
  void download(DownloadRequest request, DownloadCompletion completion) override;

 private:
  const std::shared_ptr<HttpTransport> inner_;
  const std::shared_ptr<Recorder> recorder_;
  // The service repeats its update in every answer; the timeline names each version once.
  const std::shared_ptr<std::atomic<int64_t>> notedVersion_ =
      std::make_shared<std::atomic<int64_t>>(0);
};

// Every line goes to `path`; error lines also become timeline lines.
class RecordingLog : public SystemLog {
 public:
  RecordingLog(const std::string& path, std::shared_ptr<Recorder> recorder);
  void write(LogLevel level, std::string_view line) override;

 private:
  const std::shared_ptr<Recorder> recorder_;
  std::mutex mutex_;
  std::ofstream file_;
};

// The log ids of an upload body's records, in order; empty for a body that is not one.
std::vector<std::string> uploadedLogIds(const Bytes& body);
// The update version an upload answer carries, if any.
std::optional<int64_t> offeredUpdateVersion(const Bytes& body);

}  // namespace orvane::sim::demo
