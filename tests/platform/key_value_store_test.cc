#include "orvane/platform/KeyValueStore.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <limits>
#include <mutex>
#include <random>
#include <thread>

#include "orvane/platform/linux/LinuxPlatform.h"
#include "platform/KeyValueStoreTesting.h"
#include "platform/PlistSamples.h"
#include "platform/linux/PlistCodec.h"
#include "platform/linux/SqliteKeyValueStore.h"
#include "platform/linux/StoredArrayDiff.h"

namespace orvane {
namespace {

namespace fs = std::filesystem;
using testing::ErrorLog;
using testing::nestedArrays;
using testing::runSql;
using testing::samplePlistValues;
using testing::TemporaryDirectory;

std::vector<std::string> sorted(std::vector<std::string> v) {
  std::sort(v.begin(), v.end());
  return v;
}

// What every provider promises.
struct ProviderCase {
  const char* name;
  std::function<std::shared_ptr<KeyValueStoreProvider>(const fs::path& directory)> make;
};
void PrintTo(const ProviderCase& c, std::ostream* os) { *os << c.name; }

class KeyValueStoreContract : public ::testing::TestWithParam<ProviderCase> {
 protected:
  void SetUp() override {
    provider_ = GetParam().make(directory_.path());
    store_ = provider_->openSuite("contract");
    ASSERT_NE(store_, nullptr);
  }

  TemporaryDirectory directory_;
  std::shared_ptr<KeyValueStoreProvider> provider_;
  std::shared_ptr<KeyValueStore> store_;
};

TEST_P(KeyValueStoreContract, RoundTripsEveryValueType) {
  const auto samples = samplePlistValues();
  for (const auto& [key, value] : samples) store_->set(key, value);
  for (const auto& [key, value] : samples) {
    // Variant equality also tells float from double and Decimal from either.
    EXPECT_EQ(store_->get(key), value) << key;
  }
  EXPECT_TRUE(store_->synchronize());
}

TEST_P(KeyValueStoreContract, OverwriteRemoveAndKeys) {
  store_->set("a", int64_t{1});
  store_->set("b", "two");
  store_->set("c", true);
  store_->set("a", PlistArray{"now", "an", "array"});
  store_->remove("b");
  store_->remove("never set");
  EXPECT_EQ(store_->get("a"), PlistValue(PlistArray{"now", "an", "array"}));
  EXPECT_FALSE(store_->get("b").has_value());
  EXPECT_EQ(sorted(store_->keys()), (std::vector<std::string>{"a", "c"}));
}

TEST_P(KeyValueStoreContract, SuitesAreSharedByNameAndIndependentOtherwise) {
  auto other = provider_->openSuite("other");
  ASSERT_NE(other, nullptr);
  EXPECT_EQ(provider_->openSuite("contract"), store_);
  EXPECT_NE(other, store_);
  store_->set("shared", int64_t{1});
  other->set("shared", int64_t{2});
  other->set("only in other", true);
  EXPECT_EQ(store_->get("shared"), PlistValue(int64_t{1}));
  EXPECT_EQ(store_->keys(), std::vector<std::string>{"shared"});
}

INSTANTIATE_TEST_SUITE_P(
    Providers, KeyValueStoreContract,
    ::testing::Values(ProviderCase{"InMemory",
                                   [](const fs::path&) {
                                     return makeInMemoryKeyValueStoreProvider();
                                   }},
                      // "suites" does not exist yet: opening has to create it.
                      ProviderCase{"Sqlite",
                                   [](const fs::path& directory) {
                                     return makeSqliteKeyValueStoreProvider(
                                         (directory / "suites").string(), nullptr);
                                   }}),
    [](const ::testing::TestParamInfo<ProviderCase>& info) { return info.param.name; });

// What only a store on disk can get wrong.
class SqliteKeyValueStoreTest : public ::testing::Test {
 protected:
  std::shared_ptr<KeyValueStore> open(const std::string& suite = "suite") {
    return makeSqliteKeyValueStoreProvider(directory_.path().string(), errors_.sink())
        ->openSuite(suite);
  }
  fs::path file() const { return directory_.path() / "suite.sqlite"; }

  TemporaryDirectory directory_;
  ErrorLog errors_;
};

TEST_F(SqliteKeyValueStoreTest, ValuesSurviveReopening) {
  const auto samples = samplePlistValues();
  {
    auto store = open();
    ASSERT_NE(store, nullptr);
    for (const auto& [key, value] : samples) store->set(key, value);
    ASSERT_TRUE(store->synchronize());
    // Not synchronized: closing the store still lands these, in order.
    store->set("overwritten", "first");
    store->set("removed", "soon gone");
    store->set("overwritten", Date{12.5});
    store->remove("removed");
  }
  auto store = open();
  ASSERT_NE(store, nullptr);
  for (const auto& [key, value] : samples) EXPECT_EQ(store->get(key), value) << key;
  EXPECT_EQ(store->get("overwritten"), PlistValue(Date{12.5}));
  EXPECT_EQ(store->keys().size(), samples.size() + 1);
  EXPECT_EQ(errors_.messages, std::vector<std::string>{});
}

TEST_F(SqliteKeyValueStoreTest, SynchronizedWritesSurviveSigkill) {
#if defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "ThreadSanitizer refuses threads in a child of a threaded process";
#endif
  constexpr int kKeys = 100;
  const pid_t child = fork();
  ASSERT_NE(child, -1);
  if (child == 0) {
    // No gtest assertions in the child: it answers through how it ends.
    auto store =
        makeSqliteKeyValueStoreProvider(directory_.path().string(), nullptr)->openSuite("suite");
    if (!store) _exit(2);
    for (int i = 0; i < kKeys; ++i) store->set(std::to_string(i), Bytes(4096, uint8_t(i)));
    if (!store->synchronize()) _exit(3);
    raise(SIGKILL);
    _exit(4);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL)
      << "child exited with " << (WIFEXITED(status) ? WEXITSTATUS(status) : -1);
  auto store = open();
  ASSERT_NE(store, nullptr);
  for (int i = 0; i < kKeys; ++i) {
    EXPECT_EQ(store->get(std::to_string(i)), PlistValue(Bytes(4096, uint8_t(i)))) << i;
  }
}

TEST_F(SqliteKeyValueStoreTest, UnreadableRowsReadAsAbsentAndAreReported) {
  {
    auto store = open();
    ASSERT_NE(store, nullptr);
    store->set("good", "value");
    ASSERT_TRUE(store->synchronize());
  }
  Bytes truncated = *encodePlistValue(PlistValue("a string cut short"));
  truncated.resize(truncated.size() - 3);
  ASSERT_EQ(runSql(file(), "INSERT INTO entries VALUES ('truncated', ?1)", truncated), 0);
  ASSERT_EQ(runSql(file(), "INSERT INTO entries VALUES ('garbage', ?1)", {0xDE, 0xAD, 0xFF}), 0);

  auto store = open();
  ASSERT_NE(store, nullptr);
  EXPECT_EQ(store->get("good"), PlistValue("value"));
  EXPECT_EQ(store->keys(), std::vector<std::string>{"good"});
  EXPECT_TRUE(errors_.mentions("\"garbage\""));
  EXPECT_TRUE(errors_.mentions("\"truncated\""));

  // Removing a key that exists only as a damaged row clears it from disk.
  store->remove("garbage");
  ASSERT_TRUE(store->synchronize());
  EXPECT_EQ(runSql(file(), "SELECT COUNT(*) FROM entries WHERE key = 'garbage'"), 0);
  EXPECT_EQ(runSql(file(), "SELECT COUNT(*) FROM entries WHERE key = 'truncated'"), 1);
}

TEST_F(SqliteKeyValueStoreTest, UnopenableSuitesGiveNull) {
  const fs::path regularFile = directory_.path() / "a-file";
  std::ofstream(regularFile) << "not a directory";
  const struct {
    fs::path directory;
    std::string suite;
  } cases[] = {
      {regularFile / "sub", "suite"},
      {directory_.path() / "inner", "../escape"},
      {directory_.path(), ""},
  };
  for (const auto& c : cases) {
    ErrorLog errors;
    auto provider = makeSqliteKeyValueStoreProvider(c.directory.string(), errors.sink());
    EXPECT_EQ(provider->openSuite(c.suite), nullptr) << c.directory << " " << c.suite;
    EXPECT_EQ(errors.messages.size(), 1u) << c.directory << " " << c.suite;
  }
  EXPECT_FALSE(fs::exists(directory_.path() / "escape.sqlite"));
}

TEST_F(SqliteKeyValueStoreTest, SynchronizeReportsAFailedCommitAndRetriesLater) {
  SqliteStoreOptions quickRetries;
  quickRetries.firstRetryDelay = std::chrono::milliseconds(10);
  quickRetries.retryDelayCap = std::chrono::milliseconds(40);
  auto store =
      makeSqliteKeyValueStoreProvider(directory_.path().string(), errors_.sink(), quickRetries)
          ->openSuite("suite");
  ASSERT_NE(store, nullptr);
  ASSERT_EQ(runSql(file(), "DROP TABLE entries"), 0);
  store->set("first", int64_t{1});
  store->set("second", int64_t{2});
  EXPECT_FALSE(store->synchronize());
  EXPECT_TRUE(errors_.mentions("cannot commit"));
  EXPECT_EQ(store->get("second"), PlistValue(int64_t{2}));

  // The writer keeps trying on its own; synchronize() answers true once a retry lands.
  ASSERT_EQ(runSql(file(), "CREATE TABLE entries (key TEXT PRIMARY KEY, value BLOB)"), 0);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!store->synchronize() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_EQ(runSql(file(), "SELECT COUNT(*) FROM entries"), 2);
}

TEST_F(SqliteKeyValueStoreTest, TooDeepAValueFailsSynchronizeUntilTheKeyIsRewritten) {
  auto store = open();
  ASSERT_NE(store, nullptr);
  const std::string countDeep = "SELECT COUNT(*) FROM entries WHERE key = 'deep'";
  store->set("deep", "shallow for now");
  ASSERT_TRUE(store->synchronize());
  store->set("deep", nestedArrays(kPlistCodecMaxNesting + 1));
  EXPECT_FALSE(store->synchronize());
  // The older row goes rather than coming back on the next open.
  EXPECT_EQ(runSql(file(), countDeep), 0);
  EXPECT_TRUE(errors_.mentions("\"deep\""));
  store->set("other", true);
  EXPECT_FALSE(store->synchronize());
  store->set("deep", int64_t{3});
  EXPECT_TRUE(store->synchronize());
  EXPECT_EQ(runSql(file(), countDeep), 1);
}

TEST_F(SqliteKeyValueStoreTest, ConcurrentWritersAllLand) {
  constexpr int kThreads = 4;
  {
    auto store = open();
    ASSERT_NE(store, nullptr);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&, t] {
        for (int i = 0; i < 250; ++i) {
          store->set(std::to_string(t * 100 + i % 50), int64_t{i});
          if (i % 40 == 0) {
            EXPECT_TRUE(store->synchronize());
          }
        }
      });
    }
    for (auto& thread : threads) thread.join();
  }
  auto store = open();
  ASSERT_NE(store, nullptr);
  ASSERT_EQ(store->keys().size(), size_t{kThreads * 50});
  for (int t = 0; t < kThreads; ++t) {
    // Each key's last write was i = 200 + k.
    for (int k = 0; k < 50; ++k) EXPECT_EQ(store->get(std::to_string(t * 100 + k)), 200 + k);
  }
}

// A queue-like record; `id` keeps records apart, the NaN makes sure a record can match itself.
PlistValue record(int64_t id) {
  return PlistDictionary{{"id", id},
                         {"score", std::numeric_limits<double>::quiet_NaN()},
                         {"payload", Bytes(64, uint8_t(id))}};
}

TEST_F(SqliteKeyValueStoreTest, ArraysRewriteOnlyTheRowsThatChanged) {
  const std::string rows = "SELECT COUNT(*) FROM array_elements WHERE key = 'queue'";
  const std::string first = "SELECT MIN(position) FROM array_elements WHERE key = 'queue'";
  const std::string last = "SELECT MAX(position) FROM array_elements WHERE key = 'queue'";
  // An array written by an older version, as a single row.
  PlistArray queue{record(0), record(1), record(2), record(3), record(4)};
  ASSERT_EQ(runSql(file(), "CREATE TABLE entries (key TEXT PRIMARY KEY NOT NULL, value BLOB)"), 0);
  ASSERT_EQ(runSql(file(), "INSERT INTO entries VALUES ('queue', ?1)", *encodePlistValue(queue)),
            0);
  auto store = open();
  ASSERT_NE(store, nullptr);
  ASSERT_TRUE(identicalPlistValues(*store->get("queue"), queue))
      << "arrays written as a single row still read";

  store->set("queue", queue);
  ASSERT_TRUE(store->synchronize());
  EXPECT_EQ(runSql(file(), "SELECT COUNT(*) FROM entries WHERE key = 'queue'"), 0);
  EXPECT_EQ(runSql(file(), rows), 5);

  // Append one and drop the oldest: one row added, one removed, the rest untouched.
  queue.erase(queue.begin());
  queue.push_back(record(5));
  store->set("queue", queue);
  ASSERT_TRUE(store->synchronize());
  EXPECT_EQ(runSql(file(), rows), 5);
  EXPECT_EQ(runSql(file(), first), 1);
  EXPECT_EQ(runSql(file(), last), 5);

  // A sent batch taken out of the middle.
  queue.erase(queue.begin() + 1, queue.begin() + 3);
  store->set("queue", queue);
  ASSERT_TRUE(store->synchronize());
  EXPECT_EQ(runSql(file(), rows), 3);
  EXPECT_EQ(runSql(file(), first), 1);
  EXPECT_EQ(runSql(file(), last), 5);

  // Emptied, the array is still an array rather than absent; then something else entirely.
  store->set("queue", PlistArray{});
  ASSERT_TRUE(store->synchronize());
  EXPECT_EQ(runSql(file(), rows), 0);
  store.reset();
  EXPECT_EQ(open()->get("queue"), PlistValue(PlistArray{}));
}

TEST_F(SqliteKeyValueStoreTest, ArraysSurviveAnySequenceOfEdits) {
  std::mt19937 random(7);
  auto pick = [&](size_t bound) { return bound == 0 ? size_t{0} : random() % bound; };
  PlistValue expected = PlistArray{};
  int64_t nextId = 0;
  auto store = open();
  ASSERT_NE(store, nullptr);
  for (int step = 0; step < 200; ++step) {
    PlistArray array = expected.asArray() ? *expected.asArray() : PlistArray{};
    switch (pick(7)) {
      case 0:
      case 1:
        array.push_back(record(nextId++));
        if (array.size() > 12) array.erase(array.begin());
        break;
      case 2:
        std::erase_if(array, [&](const PlistValue&) { return pick(3) == 0; });
        break;
      case 3:
        array.insert(array.begin() + static_cast<ptrdiff_t>(pick(array.size() + 1)),
                     record(nextId++));
        break;
      case 4:
        if (!array.empty()) array[pick(array.size())] = record(nextId++);
        break;
      case 5:
        std::shuffle(array.begin(), array.end(), random);
        break;
      case 6:
        array = pick(2) ? PlistArray{} : PlistArray{record(nextId++)};
        break;
    }
    expected = pick(25) == 0 ? PlistValue("not an array for a while") : PlistValue(array);
    store->set("key", expected);
    ASSERT_TRUE(store->synchronize());
    ASSERT_EQ(runSql(file(), "SELECT COUNT(*) FROM array_elements"),
              static_cast<int64_t>(expected.asArray() ? expected.asArray()->size() : 0))
        << "step " << step;
    if (step % 10 == 9) {
      store.reset();
      store = open();
      ASSERT_NE(store, nullptr);
      const auto read = store->get("key");
      ASSERT_TRUE(read && identicalPlistValues(*read, expected))
          << "step " << step << ": " << (read ? describe(*read) : "absent");
    }
  }
  EXPECT_EQ(errors_.messages, std::vector<std::string>{});
}

TEST_F(SqliteKeyValueStoreTest, AnUnreadableElementCostsOnlyItself) {
  {
    auto store = open();
    ASSERT_NE(store, nullptr);
    store->set("queue", PlistArray{record(0), record(1)});
    store->set("unread", PlistArray{record(0), record(1)});
    ASSERT_TRUE(store->synchronize());
  }
  for (const char* key : {"queue", "unread"}) {
    ASSERT_EQ(
        runSql(file(), "INSERT INTO array_elements VALUES ('" + std::string(key) + "', 99, ?1)",
               {0xDE, 0xAD}),
        0);
  }
  auto store = open();
  ASSERT_NE(store, nullptr);
  // Elements are decoded when their key is first needed, not at open.
  EXPECT_EQ(errors_.messages, std::vector<std::string>{});
  const auto read = store->get("queue");
  ASSERT_TRUE(read);
  EXPECT_TRUE(identicalPlistValues(*read, PlistArray{record(0), record(1)})) << describe(*read);
  EXPECT_TRUE(errors_.mentions("position 99 of key \"queue\""));

  // The next write of the key clears the damaged row, also of a key written before any read.
  store->set("queue", PlistArray{record(1), record(2)});
  store->set("unread", PlistArray{record(1), record(2)});
  ASSERT_TRUE(store->synchronize());
  EXPECT_TRUE(errors_.mentions("position 99 of key \"unread\""));
  EXPECT_EQ(runSql(file(), "SELECT COUNT(*) FROM array_elements WHERE position = 99"), 0);
  EXPECT_EQ(runSql(file(), "SELECT COUNT(*) FROM array_elements"), 4);
  store.reset();
  store = open();
  EXPECT_TRUE(identicalPlistValues(*store->get("unread"), PlistArray{record(1), record(2)}));
}

// The first read of a stored array decodes it without the store's lock; a write of the same key
// meanwhile must win, and every reader sees one whole value or the other.
TEST_F(SqliteKeyValueStoreTest, ReadsOfAnUndecodedArrayRaceItsRewrite) {
  const PlistValue before = PlistArray{record(0), record(1), record(2)};
  const PlistValue after = PlistArray{record(7)};
  for (int round = 0; round < 20; ++round) {
    {
      auto store = open();
      ASSERT_NE(store, nullptr);
      store->set("queue", before);
      ASSERT_TRUE(store->synchronize());
    }
    auto store = open();
    std::atomic<int> neither{0};
    std::vector<std::thread> readers;
    for (int i = 0; i < 3; ++i) {
      readers.emplace_back([&] {
        for (int n = 0; n < 50; ++n) {
          const auto read = store->getShared("queue");
          if (!read ||
              (!identicalPlistValues(*read, before) && !identicalPlistValues(*read, after)))
            ++neither;
        }
      });
    }
    store->set("queue", after);
    for (auto& reader : readers) reader.join();
    EXPECT_EQ(neither.load(), 0);
    EXPECT_TRUE(identicalPlistValues(*store->get("queue"), after));
    ASSERT_TRUE(store->synchronize());
    store.reset();
    EXPECT_TRUE(identicalPlistValues(*open()->get("queue"), after));
  }
}

}  // namespace
}  // namespace orvane
