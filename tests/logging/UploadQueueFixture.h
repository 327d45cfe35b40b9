// File: UploadQueueFixture.h
// An engine on the fake platform whose uploads go to a scripted transport, with helpers to
// log records and read what was posted.
#pragma once

#include <gtest/gtest.h>

#include <deque>
#include <functional>
#include <mutex>

#include <nlohmann/json.hpp>

#include "api/Engine.h"
#include "logging/LogDictionaries.h"
#include "logging/OrvaneLogSender.h"
#include "orvane/Log.h"
#include "testutil/FakePlatform.h"
#include "testutil/RecordingHttpTransport.h"

namespace orvane::testing {

using Answer = RecordingHttpTransport::Answer;

inline Answer status(int code, std::string body = "",
                     std::vector<std::pair<std::string, std::string>> headers = {}) {
  return {HttpResponse{code, std::move(headers), Bytes(body.begin(), body.end())}, std::nullopt,
          std::nullopt};
}

inline bool isUpload(const HttpRequest& request) {
  return request.url.ends_with(OrvaneLogSender::kPath);
}

// Answers from the script. `duringFlight` runs once, between a request being posted and its
// answer. While `holdAnswers` is set, the answers to uploads wait until the test releases them,
// as a slow or silent service's would.
class ScriptedTransport : public RecordingHttpTransport {
 public:
  std::function<void()> duringFlight;
  bool holdAnswers = false;

  void send(HttpRequest request, HttpCompletion completion) override {
    if (auto hook = std::exchange(duringFlight, nullptr)) hook();
    if (!holdAnswers || !isUpload(request)) {
      RecordingHttpTransport::send(std::move(request), std::move(completion));
      return;
    }
    RecordingHttpTransport::send(std::move(request),
                                 [this, completion](std::optional<HttpResponse> response,
                                                    std::optional<PlatformError> error) {
                                   std::lock_guard<std::mutex> guard(mutex_);
                                   held_.push_back([=] { completion(response, error); });
                                 });
  }
  size_t heldCount() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return held_.size();
  }
  // Delivers the oldest held answer on the calling thread, as the transport's own would.
  void releaseOne() {
    std::function<void()> answer;
    {
      std::lock_guard<std::mutex> guard(mutex_);
      ASSERT_FALSE(held_.empty());
      answer = std::move(held_.front());
      held_.pop_front();
    }
    answer();
  }

 private:
  mutable std::mutex mutex_;
  std::deque<std::function<void()>> held_;
};

class UploadQueueTest : public ::testing::Test {
 protected:
  explicit UploadQueueTest(
      int previousLaunches = 0, std::string bundleId = "com.example.host",
      std::shared_ptr<ScriptedTransport> transport = std::make_shared<ScriptedTransport>(),
      bool provisioningProfile = false, std::string receiptFileName = "receipt")
      : http(std::move(transport)) {
    fake.platform.http = http;
    fake.platform.bundle.bundleIdentifier = std::move(bundleId);
    fake.platform.bundle.hasEmbeddedProvisioningProfile = provisioningProfile;
    fake.platform.bundle.receiptFileName = std::move(receiptFileName);
    if (previousLaunches > 0) {
      PlistArray launches(static_cast<size_t>(previousLaunches), PlistValue(Date{1.6e9}));
      fake.platform.keyValueStores->openSuite("com.orvane.ads")
          ->set("app_launches", PlistDictionary{{"2020-09-13", launches}});
    }
    manager = std::make_unique<Engine>(fake.platform);
    manager->setupWith("KEY-0123456789abcdef", nullptr, std::nullopt, Configuration{});
    manager->setServiceBaseURLValue("http://127.0.0.1:9");
    fake.application->becomeActive();
    fake.drain();
    http->script({});
    requestsBefore = http->requests().size();
  }

  void add(int n, std::string session = "session", int outcome = 1) {
    for (int i = 0; i < n; ++i) {
      auto log = makeEngineLog(
          SignalList{SignalInt(SignalEnum::id(3), outcome),
                     SignalString(SignalEnum::id(8), "log-" + std::to_string(counter++)),
                     SignalString(SignalEnum::id(14), session),
                     SignalString(SignalEnum::id(29), "ctx-" + std::to_string(counter))},
          CustomSignalList{}, CustomSignalList{}, CustomSignalList{}, Bytes{},
          manager->weakHandle());
      log->send();
    }
    fake.drain();
  }
  OrvaneLogSender& sender() { return manager->orvaneLogSender(); }
  void trigger(UploadQueueKind queue, bool force) {
    sender().triggerUpload(queue, force);
    fake.drain();
  }
  // Bodies of the uploads posted since the last call.
  std::vector<nlohmann::json> posts() {
    std::vector<nlohmann::json> bodies;
    auto all = http->requests();
    for (size_t i = requestsBefore; i < all.size(); ++i) {
      if (!isUpload(all[i])) continue;
      bodies.push_back(nlohmann::json::parse(all[i].body.begin(), all[i].body.end()));
    }
    requestsBefore = all.size();
    return bodies;
  }
  std::vector<std::string> queuedIds() {
    std::vector<std::string> ids;
    for (const auto& record : sender().mainQueue()) ids.push_back(*record.at("ctx_8").asString());
    return ids;
  }

  FakePlatform fake;
  std::shared_ptr<ScriptedTransport> http;
  std::unique_ptr<Engine> manager;
  size_t requestsBefore = 0;
  int counter = 0;
};

class EstablishedAppUploadTest : public UploadQueueTest {
 protected:
  EstablishedAppUploadTest() : UploadQueueTest(19) {}
};

}  // namespace orvane::testing
