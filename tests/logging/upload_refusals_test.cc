// How uploads take the service's refusals: a batch too large is split until the record at
// fault is found and dropped, and a Retry-After of 429 and 503 is a floor for the next attempt.
#include <gtest/gtest.h>

#include "logging/UploadQueueFixture.h"
#include "util/UserDefaultsProvider.h"

namespace orvane {
namespace {

using testing::Answer;
using testing::status;

// Refuses upload bodies over `limit` bytes with 413, as a service behind a size cap does.
class SizeCappedTransport : public testing::ScriptedTransport {
 public:
  size_t limit = 0;
  void send(HttpRequest request, HttpCompletion completion) override {
    if (limit > 0 && testing::isUpload(request) && request.body.size() > limit) {
      script({status(413)});
    }
    ScriptedTransport::send(std::move(request), std::move(completion));
  }
};

class TooLargeTest : public testing::UploadQueueTest {
 protected:
  TooLargeTest()
      : UploadQueueTest(19, "com.example.host", std::make_shared<SizeCappedTransport>()) {}
  SizeCappedTransport& capped() { return static_cast<SizeCappedTransport&>(*http); }
  // Puts a record of about `bytes` bytes into the stored queue, behind the others.
  void storeLargeRecord(const std::string& id, size_t bytes) {
    auto defaults = manager->userDefaultsProvider();
    PlistArray queue = defaults->array("orvane_log").value_or(PlistArray{});
    queue.emplace_back(PlistDictionary{{"ctx_8", id}, {"blob", std::string(bytes, 'x')}});
    defaults->set("orvane_log", queue);
  }
  // The log ids of the uploads the cap let through, in the order they were posted.
  std::vector<std::string> acceptedIds() {
    std::vector<std::string> ids;
    for (const auto& request : http->requests()) {
      if (!testing::isUpload(request) || request.body.size() > capped().limit) continue;
      auto body = nlohmann::json::parse(request.body.begin(), request.body.end());
      for (const auto& event : body["events"]) ids.push_back(event["ctx_8"]);
    }
    return ids;
  }
};

TEST_F(TooLargeTest, TheRecordAtFaultIsDroppedWithAReportAndTheOthersGetThrough) {
  reportEveryError();
  capped().limit = 100'000;
  add(5);
  storeLargeRecord("huge", 200'000);
  add(4);
  trigger(UploadQueueKind::kMain, true);

  // In queue order, each once; the halves are sent at once, so a handful of requests do.
  EXPECT_EQ(acceptedIds(), (std::vector<std::string>{"log-0", "log-1", "log-2", "log-3", "log-4",
                                                     "log-5", "log-6", "log-7", "log-8"}));
  EXPECT_LE(posts().size(), 9u);
  EXPECT_TRUE(sender().mainQueue().empty());
  EXPECT_EQ(sender().currentBackoffSeconds(), 0);

  const auto reports = errorReports();
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_EQ(reports[0]["message"], "Upload refused a record as too large; dropped it");
  EXPECT_EQ(reports[0]["payload"]["log_id"], "huge");
  EXPECT_GT(reports[0]["payload"]["size"].get<int64_t>(), 200'000);
  EXPECT_EQ(fake.log->countContaining("refused log huge as too large"), 1u);
}

TEST_F(TooLargeTest, AnotherFailureWhileSplittingBacksOffAndKeepsWhatWasNotAccepted) {
  fake.random->scriptUniform({0.5});
  add(4);
  http->script({status(413), status(200), status(500)});
  trigger(UploadQueueKind::kMain, true);
  EXPECT_EQ(posts().size(), 3u);
  EXPECT_EQ(queuedIds(), (std::vector<std::string>{"log-2", "log-3"}));
  EXPECT_DOUBLE_EQ(sender().currentBackoffSeconds(), 30.5);

  fake.advance(100);
  http->script({status(413), status(413), status(200)});
  trigger(UploadQueueKind::kMain, true);
  // [2, 3] refused, then [2] refused alone and dropped, then [3] accepted.
  EXPECT_EQ(posts().size(), 3u);
  EXPECT_TRUE(queuedIds().empty());
}

class RetryAfterTest : public testing::EstablishedAppUploadTest {
 protected:
  RetryAfterTest() {
    fake.random->scriptUniform({0.5});
    add(1);
  }
  // Whether an attempt now posts; forced attempts skip the back-off, never the floor.
  bool attemptPosts(bool force) {
    trigger(UploadQueueKind::kMain, force);
    return !posts().empty();
  }
};

TEST_F(RetryAfterTest, SecondsOf429And503AreAFloorEvenForForcedAttempts) {
  for (int code : {429, 503}) {
    http->script({status(code, "", {{"Retry-After", "120"}})});
    ASSERT_TRUE(attemptPosts(true)) << code;
    EXPECT_GE(sender().currentBackoffSeconds(), 30.5);  // the back-off still grows
    fake.advance(100);                                  // past the back-off, not the floor
    EXPECT_FALSE(attemptPosts(false)) << code;
    EXPECT_FALSE(attemptPosts(true)) << code;
    fake.advance(21);
    http->script({status(500)});
    EXPECT_TRUE(attemptPosts(true)) << code;
  }
}

TEST_F(RetryAfterTest, ADateWorksTooAndTheFloorIsCappedAtTheLongestBackoff) {
  const double now = fake.clock->now();  // 2023-11-14 22:13:20 UTC
  ASSERT_EQ(now, 1'700'000'000);
  http->script({status(503, "", {{"retry-after", "Tue, 14 Nov 2023 22:18:20 GMT"}})});
  ASSERT_TRUE(attemptPosts(true));
  fake.advance(299);
  EXPECT_FALSE(attemptPosts(true));
  fake.advance(1);
  http->script({status(429, "", {{"Retry-After", "86400"}})});
  EXPECT_TRUE(attemptPosts(true));
  fake.advance(3599);
  EXPECT_FALSE(attemptPosts(true));
  fake.advance(1);
  EXPECT_TRUE(attemptPosts(true));
  EXPECT_TRUE(sender().mainQueue().empty());  // accepted at last
}

TEST_F(RetryAfterTest, OtherStatusesKeepThePlainBackoff) {
  http->script({status(500, "", {{"Retry-After", "600"}})});
  ASSERT_TRUE(attemptPosts(true));
  fake.advance(31);
  EXPECT_TRUE(attemptPosts(false));
}

}  // namespace
}  // namespace orvane
