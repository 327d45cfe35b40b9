// The upload queues when the store cannot take a record: records wait in the sender's memory
// until the store opens, a write the store did not confirm as durable is synchronised again,
// and each kind of failure is logged and reported once.
#include <gtest/gtest.h>

#include <atomic>

#include "config/RemoteConfiguration.h"
#include "logging/UploadQueueFixture.h"
#include "util/UserDefaultsProvider.h"

namespace orvane {
namespace {

constexpr const char* kUnavailable = ": the upload queue store is unavailable";
constexpr const char* kNotDurableLine =
    "[Orvane] Upload queue store did not confirm a write as durable: retrying";

// An in-memory suite whose synchronize() fails until told otherwise.
class UnconfirmedStore : public KeyValueStore {
 public:
  std::atomic<bool> durable{false};
  std::atomic<int> synchronizeCalls{0};

  std::optional<PlistValue> get(std::string_view key) const override { return inner_->get(key); }
  void set(std::string_view key, PlistValue value) override { inner_->set(key, std::move(value)); }
  void remove(std::string_view key) override { inner_->remove(key); }
  std::vector<std::string> keys() const override { return inner_->keys(); }
  bool synchronize() override {
    ++synchronizeCalls;
    return durable.load();
  }

 private:
  std::shared_ptr<KeyValueStore> inner_ =
      makeInMemoryKeyValueStoreProvider()->openSuite("com.orvane.ads");
};

class OneSuiteProvider : public KeyValueStoreProvider {
 public:
  explicit OneSuiteProvider(std::shared_ptr<KeyValueStore> suite) : suite_(std::move(suite)) {}
  std::shared_ptr<KeyValueStore> openSuite(std::string_view) override { return suite_; }

 private:
  std::shared_ptr<KeyValueStore> suite_;
};

class UploadQueueStoreTest : public ::testing::Test {
 protected:
  void start(std::shared_ptr<KeyValueStoreProvider> stores, bool activate = true) {
    fake.platform.http = http;
    fake.platform.keyValueStores = std::move(stores);
    manager = std::make_unique<Engine>(fake.platform);
    manager->setupWith("KEY-0123456789abcdef", nullptr, std::nullopt, Configuration{});
    manager->setServiceBaseURLValue("http://127.0.0.1:9");
    ServerConfiguration update;
    update.errorReportingSampleRate = 1.0f;
    manager->remoteConfiguration().applyConfigurationUpdate(update);
    if (activate) fake.application->becomeActive();
    fake.drain();
  }
  void add(int n, int outcome = 1) {
    for (int i = 0; i < n; ++i) {
      auto log = makeEngineLog(
          SignalList{SignalInt(SignalEnum::id(3), outcome),
                     SignalString(SignalEnum::id(8), "log-" + std::to_string(counter)),
                     SignalString(SignalEnum::id(29), "ctx-" + std::to_string(counter))},
          CustomSignalList{}, CustomSignalList{}, CustomSignalList{}, Bytes{},
          manager->weakHandle());
      ++counter;
      log->send();
    }
    fake.drain();
  }
  size_t reportsSaying(const std::string& message) {
    fake.drain();
    return http->errorReportsMentioning("\"message\":\"" + message + "\"");
  }
  size_t waiting() { return manager->diagnostics().recordsWaitingInMemory; }

  testing::FakePlatform fake;
  std::shared_ptr<testing::ScriptedTransport> http = std::make_shared<testing::ScriptedTransport>();
  std::unique_ptr<Engine> manager;
  int counter = 0;
};

TEST_F(UploadQueueStoreTest, RecordsWaitInMemoryUntilTheStoreOpensAndKeepTheNewestInOrder) {
  auto late = std::make_shared<testing::LateKeyValueStoreProvider>();
  start(late);
  add(1, -101);  // a creation record, answered below: it must not come back
  manager->orvaneLogSender().removeUnloggedEventFromQueue("ctx-0");
  add(102);
  manager->orvaneLogSender().triggerUpload(UploadQueueKind::kMain, true);
  fake.drain();
  EXPECT_EQ(waiting(), 100u);  // the newest 100 outcomes
  EXPECT_TRUE(manager->orvaneLogSender().mainQueue().empty());
  // Once, however many records met it.
  EXPECT_EQ(fake.log->countContaining("Failed to add new log to queue"), 1u);

  // The store opens later in the session (as a suite that failed to open may).
  auto suite = makeInMemoryKeyValueStoreProvider()->openSuite("com.orvane.ads");
  suite->set("orvane_log", PlistArray{PlistDictionary{{"ctx_8", "from-last-session"}}});
  late->open(suite);
  fake.advance(OrvaneLogSender::kStoreRetryFirstDelayS);
  EXPECT_EQ(waiting(), 0u);
  const auto queue = manager->orvaneLogSender().mainQueue();
  ASSERT_EQ(queue.size(), 100u);
  // Behind the stored record, which as the oldest made room.
  EXPECT_EQ(queue.front().at("ctx_8"), PlistValue("log-3"));
  EXPECT_EQ(queue.back().at("ctx_8"), PlistValue("log-102"));
  EXPECT_TRUE(manager->orvaneLogSender().unloggedQueue().empty());
}

// Each operation names itself when it meets the unavailable store, once per sender. (Without
// a store the service's sampling rate cannot be set, so the reports are not seen here.)
TEST_F(UploadQueueStoreTest, EachOperationLogsItsOwnMessageWhileTheStoreIsUnavailable) {
  start(std::make_shared<testing::LateKeyValueStoreProvider>(), false);  // no upload yet
  http->holdAnswers = true;
  OrvaneLogSender& sender = manager->orvaneLogSender();
  // In an order where no step also runs a later one (an outcome removes its context's
  // unlogged record).
  const struct {
    const char* message;
    std::function<void()> operation;
  } steps[] = {
      {"Failed to add logs to unlogged queue", [&] { add(2, -101); }},
      {"Failed to remove logs from unlogged queue",
       [&] { sender.removeUnloggedEventFromQueue("ctx-0"); }},
      {"Failed to add new log to queue", [&] { add(2); }},
      {"Failed to perform log upload",
       [&] {
         fake.application->becomeActive();  // a forced upload of the (stored, empty) queue
         fake.drain();
       }},
      {"Failed to remove logs from queue", [&] { http->releaseOne(); }},
  };
  for (size_t done = 0; done < std::size(steps); ++done) {
    SCOPED_TRACE(steps[done].message);
    steps[done].operation();
    fake.drain();
    for (size_t i = 0; i < std::size(steps); ++i) {
      EXPECT_EQ(fake.log->count(std::string("[Orvane] ") + steps[i].message + kUnavailable),
                i <= done ? 1u : 0u)
          << steps[i].message;
    }
  }
}

TEST_F(UploadQueueStoreTest, AnUnconfirmedWriteIsNotDurableAndIsSynchronisedAgainLater) {
  auto store = std::make_shared<UnconfirmedStore>();
  start(std::make_shared<OneSuiteProvider>(store));
  http->holdAnswers = true;  // the records stay queued
  add(2);
  EXPECT_EQ(manager->orvaneLogSender().mainQueue().size(), 2u);
  EXPECT_EQ(waiting(), 2u);
  EXPECT_EQ(fake.log->count(kNotDurableLine), 1u);
  EXPECT_EQ(reportsSaying("Upload queue store did not confirm a write as durable: retrying"), 1u);

  // Retried on a timer that backs off: after 1, 2 and 4 more seconds, not every second.
  const int before = store->synchronizeCalls;
  fake.advance(10);
  EXPECT_GE(store->synchronizeCalls - before, 2);
  EXPECT_LE(store->synchronizeCalls - before, 4);
  EXPECT_EQ(waiting(), 2u);

  store->durable = true;
  fake.advance(OrvaneLogSender::kStoreRetryLongestDelayS);
  EXPECT_EQ(waiting(), 0u);
  const int settled = store->synchronizeCalls;
  fake.advance(600);  // nothing left to retry
  EXPECT_EQ(store->synchronizeCalls, settled);
  EXPECT_EQ(fake.log->count(kNotDurableLine), 1u);
}

TEST_F(UploadQueueStoreTest, ABurstOfRecordsIsMadeDurableByOneSynchronize) {
  auto store = std::make_shared<UnconfirmedStore>();
  store->durable = true;
  start(std::make_shared<OneSuiteProvider>(store));
  http->holdAnswers = true;
  const int before = store->synchronizeCalls;
  add(5);  // handed over together, so queued behind one another
  EXPECT_EQ(store->synchronizeCalls - before, 1);
  EXPECT_EQ(manager->orvaneLogSender().mainQueue().size(), 5u);
  EXPECT_EQ(waiting(), 0u);
}

}  // namespace
}  // namespace orvane
