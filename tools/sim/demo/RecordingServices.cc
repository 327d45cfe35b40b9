#include "RecordingServices.h"

#include <nlohmann/json.hpp>

#include "logging/Compression.h"

namespace orvane::sim::demo {
namespace {

using nlohmann::json;

bool endsWith(const std::string& text, std::string_view tail) {
  return text.size() >= tail.size() &&
         text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

json parse(const Bytes& body) {
  return json::parse(body.begin(), body.end(), nullptr, /*allow_exceptions=*/false);
}

std::string fileName(const std::string& url) {
  const auto slash = url.find_last_of('/');
  return slash == std::string::npos ? url : url.substr(slash + 1);
}

std::string plural(size_t n, const char* one, const char* many) {
  return std::to_string(n) + " " + (n == 1 ? one : many);
}

}  // namespace

std::vector<std::string> uploadedLogIds(const Bytes& body) {
  std::vector<std::string> ids;
  const json root = parse(body);
  if (!root.is_object() || !root.contains("events") || !root["events"].is_array()) return ids;
  for (const json& event : root["events"]) {
    if (event.is_object() && event.contains("ctx_8") && event["ctx_8"].is_string()) {
      ids.push_back(event["ctx_8"].get<std::string>());
    }
  }
  return ids;
}

std::optional<int64_t> offeredUpdateVersion(const Bytes& body) {
  const json root = parse(body);
  if (!root.is_object()) return std::nullopt;
  for (const char* key : {"updateData", "update_data"}) {
    if (root.contains(key) && root[key].is_object() && root[key].contains("version") &&
        root[key]["version"].is_number_integer()) {
      return root[key]["version"].get<int64_t>();
    }
  }
  return std::nullopt;
}

RecordingHttpTransport::RecordingHttpTransport(std::shared_ptr<HttpTransport> inner,
                                               std::shared_ptr<Recorder> recorder)
    : inner_(std::move(inner)), recorder_(std::move(recorder)) {}

void RecordingHttpTransport::send(HttpRequest request, HttpCompletion completion) {
  Exchange exchange;
  exchange.start = recorder_->now();
  if (endsWith(request.url, "/v2/error-reporting")) {
    exchange.kind = Exchange::Kind::kErrorReport;
  } else {
    bool gzipped = false;
    for (const auto& [name, value] : request.headers)
      gzipped |= name == "Content-Encoding" && value == "gzip";
    if (!gzipped) {
      exchange.logIds = uploadedLogIds(request.body);
    } else if (auto body = gzipDecompress(request.body)) {
      exchange.logIds = uploadedLogIds(*body);
    }
  }
  inner_->send(std::move(request),
               [recorder = recorder_, noted = notedVersion_, exchange = std::move(exchange),
                completion = std::move(completion)](std::optional<HttpResponse> response,
                                                    std::optional<PlatformError> error) mutable {
                 exchange.end = recorder->now();
                 if (response) {
                   exchange.status = response->statusCode;
                   if (exchange.accepted())
                     exchange.updateVersion = offeredUpdateVersion(response->body);
                 } else if (error) {
                   exchange.error = error->description.empty() ? error->domain : error->description;
                 }
                 if (exchange.kind == Exchange::Kind::kErrorReport) {
                   recorder->note("service", "error report sent");
                 } else if (!exchange.accepted()) {
                   recorder->note(
                       "upload", plural(exchange.logIds.size(), "record", "records") + " failed: " +
                                     (exchange.status ? "status " + std::to_string(*exchange.status)
                                                      : exchange.error) +
                                     "; the queue keeps them and backs off");
                 } else if (exchange.updateVersion &&
                            noted->exchange(*exchange.updateVersion) != *exchange.updateVersion) {
                   recorder->note("upload", plural(exchange.logIds.size(), "record", "records") +
                                                " accepted; the answer carries update v" +
                                                std::to_string(*exchange.updateVersion));
                 }
                 recorder->edit([&](RunRecord& r) { r.exchanges.push_back(exchange); });
                 // The SDK's completion last: the record above is what it reacts to.
                 completion(std::move(response), std::move(error));
               });
}

void RecordingHttpTransport::download(DownloadRequest request, DownloadCompletion completion) {
  Exchange exchange;
  exchange.kind = Exchange::Kind::kModelDownload;
  exchange.start = recorder_->now();
  const std::string name = fileName(request.url);
  inner_->download(
      std::move(request),
      [recorder = recorder_, exchange, name, completion = std::move(completion)](
          std::optional<std::string> file, std::optional<HttpResponse> response,
          std::optional<PlatformError> error) mutable {
        exchange.end = recorder->now();
        if (response) exchange.status = response->statusCode;
        if (error) exchange.error = error->description;
        recorder->note("model", "downloaded " + name + " (" +
                                    (exchange.status ? "status " + std::to_string(*exchange.status)
                                                     : exchange.error) +
                                    ")");
        recorder->edit([&](RunRecord& r) { r.exchanges.push_back(exchange); });
        completion(std::move(file), std::move(response), std::move(error));
      });
}

RecordingLog::RecordingLog(const std::string& path, std::shared_ptr<Recorder> recorder)
    : recorder_(std::move(recorder)), file_(path, std::ios::app) {}

void RecordingLog::write(LogLevel level, std::string_view line) {
  {
    std::lock_guard<std::mutex> guard(mutex_);
    if (file_) file_ << recorder_->now() << " " << line << "\n" << std::flush;
  }
  if (level == LogLevel::kError) {
    recorder_->edit([](RunRecord& r) { ++r.sdkErrorLines; });
    recorder_->note("sdk", std::string(line));
  }
}

}  // namespace orvane::sim::demo
