// The sender's queue never waits for an upload's answer: records are stored meanwhile,
// requests wait for the upload in flight, a silent transport is given up on, and the sender
// can go away with an answer outstanding.
#include <gtest/gtest.h>

#include <future>
#include <thread>

#include "logging/UploadQueueFixture.h"

namespace orvane {
namespace {

using testing::status;

class UploadInFlightTest : public testing::UploadQueueTest {
 protected:
  UploadInFlightTest() { http->holdAnswers = true; }
};

TEST_F(UploadInFlightTest, RecordsAreStoredWhileAnUploadWaitsAndTheRequestsMeanwhileRunAfterIt) {
  trigger(UploadQueueKind::kMain, true);  // an empty batch, waiting for its answer
  ASSERT_EQ(http->heldCount(), 1u);
  EXPECT_TRUE(sender().uploadInFlight());
  EXPECT_TRUE(manager->diagnostics().uploadInFlight);

  add(3);  // each asks for an upload of its own (an early session)
  EXPECT_EQ(queuedIds(), (std::vector<std::string>{"log-0", "log-1", "log-2"}));
  EXPECT_EQ(sender().recordsWaitingInMemory(), 0u);
  EXPECT_EQ(posts().size(), 1u);  // still only the first

  http->releaseOne();
  fake.drain();  // the three requests became one upload, sent once the first had ended
  auto bodies = posts();
  ASSERT_EQ(bodies.size(), 1u);
  EXPECT_EQ(bodies[0]["events"].size(), 3u);
  EXPECT_EQ(queuedIds().size(), 3u);  // removed only once accepted

  http->releaseOne();
  fake.drain();
  EXPECT_TRUE(queuedIds().empty());
  EXPECT_FALSE(sender().uploadInFlight());
  EXPECT_TRUE(posts().empty());
}

TEST_F(UploadInFlightTest, EachQueueHasItsOwnUploadInFlight) {
  add(1, "earlier-session", -101);
  trigger(UploadQueueKind::kMain, true);
  trigger(UploadQueueKind::kUnloggedContexts, false);
  EXPECT_EQ(http->heldCount(), 2u);
  http->releaseOne();
  http->releaseOne();
  fake.drain();
  EXPECT_TRUE(sender().unloggedQueue().empty());
}

TEST_F(UploadInFlightTest, TheGuardGivesUpOnASilentTransportAndItsLateAnswerIsIgnored) {
  fake.random->scriptUniform({0.5});
  add(1);  // posts at once and waits
  ASSERT_EQ(http->heldCount(), 1u);
  posts();
  fake.advance(OrvaneLogSender::kCompletionGuardSeconds - 1);
  EXPECT_TRUE(sender().uploadInFlight());
  fake.advance(1);  // a failed attempt
  EXPECT_FALSE(sender().uploadInFlight());
  EXPECT_DOUBLE_EQ(sender().currentBackoffSeconds(), 30.5);

  http->releaseOne();  // a 200 after all: too late to count
  fake.drain();
  EXPECT_EQ(queuedIds(), std::vector<std::string>{"log-0"});
  EXPECT_DOUBLE_EQ(sender().currentBackoffSeconds(), 30.5);

  trigger(UploadQueueKind::kMain, true);
  EXPECT_EQ(posts().size(), 1u);
  http->releaseOne();
  fake.drain();
  EXPECT_TRUE(queuedIds().empty());
}

TEST_F(UploadInFlightTest, TheSenderGoesAwayWithoutWaitingAndALateAnswerFindsNothing) {
  add(2);
  ASSERT_EQ(http->heldCount(), 1u);
  manager.reset();
  http->releaseOne();  // must neither crash nor touch the gone sender (run it under ASan)
  fake.drain();
  fake.advance(OrvaneLogSender::kCompletionGuardSeconds);
}

TEST_F(UploadInFlightTest, FlushWaitsForTheUploadsItAskedForWithinItsTimeout) {
  add(1);  // an upload of log-0 in flight
  ASSERT_EQ(http->heldCount(), 1u);
  // The flush asks for uploads behind the one in flight once the queues run.
  const size_t waiting = fake.executors->pendingCount();
  auto flushed = std::async(std::launch::async, [this] { return sender().flush(10); });
  while (fake.executors->pendingCount() == waiting) std::this_thread::yield();
  add(1);  // log-1, stored before the flush's run reads the queue
  EXPECT_EQ(flushed.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);

  http->releaseOne();  // log-0 accepted: the flush's run posts log-1
  fake.drain();
  ASSERT_EQ(http->heldCount(), 1u);
  EXPECT_EQ(flushed.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
  http->releaseOne();
  fake.drain();
  EXPECT_TRUE(flushed.get());

  add(1);  // in flight again, and never answered: the flush gives up at its timeout
  auto gaveUp = std::async(std::launch::async, [this] { return sender().flush(0.3); });
  while (gaveUp.wait_for(std::chrono::milliseconds(1)) != std::future_status::ready) fake.drain();
  EXPECT_FALSE(gaveUp.get());
}

}  // namespace
}  // namespace orvane
