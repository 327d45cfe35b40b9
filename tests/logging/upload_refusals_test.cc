// How uploads take the service's refusals, beyond what the loopback suite shows: an answer
// other than 413 while a batch is being split, and the bounds of a Retry-After floor.
#include <gtest/gtest.h>

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
  http->script({status(429, "", {{"Retry-After", "86400"}})});
  ASSERT_TRUE(attemptPosts(true));
  fake.advance(3599);
  EXPECT_FALSE(attemptPosts(true));
  fake.advance(1);
  http->script({status(500, "", {{"Retry-After", "600"}})});
  EXPECT_TRUE(attemptPosts(true));
  fake.advance(40);  // past the plain back-off (38.1 s): a 500 sets no floor
  EXPECT_TRUE(attemptPosts(false));
  EXPECT_TRUE(sender().mainQueue().empty());
}

}  // namespace
}  // namespace orvane
