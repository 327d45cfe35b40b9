// How uploads take the service's refusals, beyond what the loopback suite shows: an answer
// other than 413 while a batch is being split, the bounds of a Retry-After floor, and what
// the host's log and error reporting hear of failures.
#include <gtest/gtest.h>

#include <algorithm>

#include "logging/UploadFailureNotes.h"
#include "logging/UploadQueueFixture.h"

namespace orvane {
namespace {

using testing::status;

class UploadRefusalsTest : public testing::EstablishedAppUploadTest {
 protected:
  UploadRefusalsTest() { fake.random->scriptUniform({0.5}); }
  // Whether an attempt now posts; forced attempts skip the back-off, never the floor.
  bool attemptPosts(bool force) {
    trigger(UploadQueueKind::kMain, force);
    return !posts().empty();
  }
  // Lines at `level` that contain `fragment`.
  size_t linesAt(LogLevel level, std::string_view fragment) const {
    return std::ranges::count_if(fake.log->lines(), [&](const testing::CapturedLine& line) {
      return line.level == level && line.text.find(fragment) != std::string::npos;
    });
  }
};

TEST_F(UploadRefusalsTest, AnotherFailureWhileSplittingBacksOffAndKeepsWhatWasNotAccepted) {
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
  EXPECT_EQ(fake.log->countContaining("refused log log-2 as too large"), 1u);
}

TEST_F(UploadRefusalsTest, TheFloorIsCappedAtTheLongestBackoffAndOnlyFor429And503) {
  add(1);
  // A 503 with a date: no attempt, forced or not, before it. The fake clock starts at
  // 2023-11-14 22:13:20 UTC.
  http->script({status(503, "", {{"Retry-After", "Tue, 14 Nov 2023 22:18:21 GMT"}})});
  ASSERT_TRUE(attemptPosts(true));
  fake.advance(300);
  EXPECT_FALSE(attemptPosts(false));
  EXPECT_FALSE(attemptPosts(true));
  fake.advance(1);
  http->script({status(429, "", {{"Retry-After", "86400"}})});
  ASSERT_TRUE(attemptPosts(true));
  fake.advance(3599);
  EXPECT_FALSE(attemptPosts(true));
  fake.advance(1);
  http->script({status(500, "", {{"Retry-After", "600"}})});
  EXPECT_TRUE(attemptPosts(true));
  fake.advance(60);  // past the plain back-off (under 60 s): a 500 sets no floor
  EXPECT_TRUE(attemptPosts(false));
  EXPECT_TRUE(sender().mainQueue().empty());
}

TEST_F(UploadRefusalsTest, EachKindOfFailureIsLoggedOnceAndAnOversizedAnswerIsReported) {
  add(1);
  const auto transportError = [](int64_t code) {
    return testing::Answer{std::nullopt, PlatformError{kUrlErrorDomain, code, "described"},
                           std::nullopt};
  };
  http->script({status(500), status(500), transportError(-1001), transportError(-1001), status(503),
                transportError(kResourceExceedsMaximumSize)});
  for (int attempt = 0; attempt < 6; ++attempt) {
    ASSERT_TRUE(attemptPosts(true)) << attempt;
    fake.advance(10);
  }
  EXPECT_EQ(linesAt(LogLevel::kInfo, "Upload failed: the service answered with HTTP status 500"),
            1u);
  EXPECT_EQ(linesAt(LogLevel::kInfo, "Upload failed: the service answered with HTTP status 503"),
            1u);
  EXPECT_EQ(linesAt(LogLevel::kInfo, "(NSURLErrorDomain -1001)"), 1u);
  EXPECT_EQ(linesAt(LogLevel::kDebug, "Upload back-off "), 6u);
  EXPECT_EQ(linesAt(LogLevel::kDebug, "; 1 records waiting."), 6u);
  EXPECT_EQ(sender().mainQueue().size(), 1u);

  EXPECT_EQ(http->errorReportsMentioning("Upload answer exceeded the size limit"), 1u);

  // A new session logs each kind once again.
  fake.application->resignActive();
  fake.application->becomeActive();
  fake.drain();
  fake.advance(4000);
  http->script({status(500), status(500)});
  for (int attempt = 0; attempt < 2; ++attempt) {
    ASSERT_TRUE(attemptPosts(true)) << attempt;
    fake.advance(10);
  }
  EXPECT_EQ(linesAt(LogLevel::kInfo, "Upload failed: the service answered with HTTP status 500"),
            2u);
}

TEST(UploadFailureNotesTest, CertificateFailuresAreNamedAsSuch) {
  const auto failure = UploadFailureNotes::describe(
      std::nullopt, PlatformError{kUrlErrorDomain, -1202, "The certificate is invalid."});
  ASSERT_TRUE(failure);
  EXPECT_EQ(failure->kind, "NSURLErrorDomain -1202");
  EXPECT_NE(failure->sentence.find("secure connection failed"), std::string::npos);
  EXPECT_FALSE(UploadFailureNotes::describe(HttpResponse{202, {}, {}}, std::nullopt));
  EXPECT_EQ(UploadFailureNotes::describe(std::nullopt, std::nullopt)->kind, "no answer");
}

}  // namespace
}  // namespace orvane
