// File: TransportCalls.h
// A transport's calls made synchronous for tests: the outcome of one request or download.
#pragma once

#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <optional>
#include <string>

#include "orvane/platform/HttpTransport.h"

namespace orvane::testing {

struct Outcome {
  std::optional<HttpResponse> response;
  std::optional<PlatformError> error;
  std::optional<std::string> fileContent;  // downloads: what the completion's file held
  std::string filePath;

  int64_t errorCode() const { return error ? error->code : 0; }
  std::string body() const {
    return response ? std::string(response->body.begin(), response->body.end()) : "";
  }
};

inline Outcome sendAndWait(HttpTransport& transport, HttpRequest request) {
  std::promise<Outcome> done;
  transport.send(std::move(request), [&](auto response, auto error) {
    done.set_value({std::move(response), std::move(error), std::nullopt, ""});
  });
  return done.get_future().get();
}

inline Outcome downloadAndWait(HttpTransport& transport, DownloadRequest request) {
  std::promise<Outcome> done;
  transport.download(std::move(request), [&](auto file, auto response, auto error) {
    Outcome outcome{std::move(response), std::move(error), std::nullopt, ""};
    if (file) {
      outcome.filePath = *file;
      std::ifstream in(*file, std::ios::binary);
      outcome.fileContent.emplace(std::istreambuf_iterator<char>(in),
                                  std::istreambuf_iterator<char>());
    }
    done.set_value(std::move(outcome));
  });
  return done.get_future().get();
}

// Entries of `directory` (none when it does not exist).
inline size_t entriesIn(const std::string& directory) {
  std::error_code ec;
  size_t count = 0;
  for (std::filesystem::directory_iterator it(directory, ec), end; !ec && it != end;
       it.increment(ec)) {
    ++count;
  }
  return count;
}

}  // namespace orvane::testing
