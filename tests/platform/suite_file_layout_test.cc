// How suite files are laid out on disk: small pages (and older files rebuilt to them), queued
// records kept deflated, and a write-ahead log that stays bounded.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <filesystem>
#include <random>

#include "logging/Compression.h"
#include "platform/KeyValueStoreTesting.h"
#include "platform/linux/PlistCodec.h"
#include "platform/linux/SqliteKeyValueStore.h"
#include "platform/linux/SqliteSuiteLoad.h"
#include "platform/linux/SqliteSuiteTuning.h"
#include "platform/linux/StoredElementCodec.h"

namespace orvane {
namespace {

namespace fs = std::filesystem;
using testing::ErrorLog;
using testing::runSql;
using testing::TemporaryDirectory;

// About the size of a queued record; `noise` makes it incompressible, the worst case.
PlistValue queuedRecord(int64_t id, bool noise = false) {
  Bytes payload(5000, uint8_t(id));
  if (noise) {
    std::mt19937 random(static_cast<uint32_t>(id));
    for (auto& byte : payload) byte = static_cast<uint8_t>(random());
  }
  return PlistDictionary{{"id", id}, {"payload", std::move(payload)}};
}

class SuiteFileLayoutTest : public ::testing::Test {
 protected:
  std::shared_ptr<KeyValueStore> open() {
    return makeSqliteKeyValueStoreProvider(directory_.path().string(), errors_.sink())
        ->openSuite("suite");
  }
  fs::path file() const { return directory_.path() / "suite.sqlite"; }

  // A file as the version before small pages and deflated elements wrote it.
  void writeOlderFile(const PlistArray& queue) {
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(file().c_str(), &db), SQLITE_OK);
    for (const char* sql : {"PRAGMA page_size=4096", "PRAGMA journal_mode=WAL", kCreateEntriesTable,
                            kCreateArrayElementsTable}) {
      ASSERT_EQ(sqlite3_exec(db, sql, nullptr, nullptr, nullptr), SQLITE_OK) << sql;
    }
    sqlite3_close(db);
    ASSERT_EQ(runSql(file(), "INSERT INTO entries VALUES ('name', ?1)",
                     *encodePlistValue(PlistValue("kept"))),
              0);
    for (size_t i = 0; i < queue.size(); ++i) {
      ASSERT_EQ(
          runSql(file(),
                 "INSERT INTO array_elements VALUES ('queue', " + std::to_string(i * 10) + ", ?1)",
                 *encodePlistArrayElement(queue[i])),
          0);
    }
  }

  TemporaryDirectory directory_;
  ErrorLog errors_;
};

TEST_F(SuiteFileLayoutTest, AnOlderFileOpensWithEveryRowAndIsRebuiltWithSmallPages) {
  PlistArray queue;
  for (int i = 0; i < 30; ++i) queue.push_back(queuedRecord(i));
  writeOlderFile(queue);
  ASSERT_EQ(runSql(file(), "PRAGMA page_size"), 4096);
  {
    auto store = open();
    ASSERT_NE(store, nullptr);
    EXPECT_EQ(store->get("queue"), PlistValue(queue));
    EXPECT_EQ(store->get("name"), PlistValue("kept"));
    // The rows kept their positions through the rebuild: an append adds exactly one.
    queue.push_back(queuedRecord(30));
    store->set("queue", queue);
    ASSERT_TRUE(store->synchronize());
    EXPECT_EQ(runSql(file(), "SELECT COUNT(*) FROM array_elements"), 31);
  }
  EXPECT_EQ(runSql(file(), "PRAGMA page_size"), kSuitePageSize);
  auto store = open();
  ASSERT_NE(store, nullptr);
  EXPECT_EQ(store->get("queue"), PlistValue(queue));
  EXPECT_EQ(errors_.messages, std::vector<std::string>{});
}

TEST_F(SuiteFileLayoutTest, AnOlderFileHeldOpenElsewhereKeepsItsPagesAndStillWorks) {
  const PlistArray queue{queuedRecord(1), queuedRecord(2)};
  writeOlderFile(queue);
  sqlite3* other = nullptr;
  ASSERT_EQ(sqlite3_open(file().c_str(), &other), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(other, "SELECT COUNT(*) FROM entries", nullptr, nullptr, nullptr),
            SQLITE_OK);
  {
    auto store = open();
    ASSERT_NE(store, nullptr);
    EXPECT_EQ(store->get("queue"), PlistValue(queue));
    store->set("more", PlistValue(int64_t{7}));
    ASSERT_TRUE(store->synchronize());
  }
  EXPECT_EQ(runSql(file(), "PRAGMA page_size"), 4096);
  sqlite3_close(other);
  // With the other connection gone, the next open rebuilds it.
  auto store = open();
  ASSERT_NE(store, nullptr);
  EXPECT_EQ(store->get("more"), PlistValue(int64_t{7}));
  EXPECT_EQ(store->get("queue"), PlistValue(queue));
  EXPECT_EQ(runSql(file(), "PRAGMA page_size"), kSuitePageSize);
}

TEST_F(SuiteFileLayoutTest, LargeElementsAreStoredDeflatedSmallOnesPlain) {
  const PlistArray queue{queuedRecord(1), PlistValue(int64_t{2}), queuedRecord(3, true)};
  {
    auto store = open();
    ASSERT_NE(store, nullptr);
    store->set("queue", queue);
    ASSERT_TRUE(store->synchronize());
  }
  // hex() of the leading byte reads back as a number: 81 for the deflated mark, 1 for plain.
  auto leading = [&](int position) {
    return runSql(file(), "SELECT hex(substr(value, 1, 1)) FROM array_elements WHERE position = " +
                              std::to_string(position));
  };
  EXPECT_EQ(leading(0), 81);
  EXPECT_EQ(leading(1), 1);
  EXPECT_EQ(leading(2), 1) << "noise does not shrink, so it stays plain";
  EXPECT_LT(runSql(file(), "SELECT length(value) FROM array_elements WHERE position = 0"), 1000);
  auto store = open();
  ASSERT_NE(store, nullptr);
  EXPECT_EQ(store->get("queue"), PlistValue(queue));
}

TEST(StoredElementCodecTest, RefusesDamagedOrNeedlesslyDeflatedBytes) {
  const Bytes stored = *encodeStoredElement(queuedRecord(4));
  ASSERT_EQ(stored.front(), kDeflatedElementMark);
  EXPECT_EQ(decodeStoredElement(stored), queuedRecord(4));

  Bytes truncated(stored.begin(), stored.end() - 5);
  EXPECT_FALSE(decodeStoredElement(truncated));
  EXPECT_FALSE(decodeStoredElement(Bytes{kDeflatedElementMark}));
  // A small element deflated is not a form the encoder makes.
  const Bytes small = *encodePlistArrayElement(PlistValue("short"));
  Bytes deflatedSmall{kDeflatedElementMark};
  const Bytes body = *deflateRaw(small);
  deflatedSmall.insert(deflatedSmall.end(), body.begin(), body.end());
  EXPECT_FALSE(decodeStoredElement(deflatedSmall));
  EXPECT_EQ(decodeStoredElement(small), PlistValue("short"));
}

TEST_F(SuiteFileLayoutTest, TheWriteAheadLogStaysBoundedOverAThousandAddsAndRemoves) {
  auto store = open();
  ASSERT_NE(store, nullptr);
  // Autocheckpoint pages as frames (page plus 24-byte header), the log's header, and slack for
  // the one transaction that crosses the threshold.
  const uintmax_t bound = uintmax_t{kSuiteCheckpointPages} * (kSuitePageSize + 24) + 32 + 64 * 1024;
  PlistArray queue;
  uintmax_t largest = 0;
  for (int i = 0; i < 1000; ++i) {
    queue.push_back(queuedRecord(i, true));
    if (queue.size() > 100) queue.erase(queue.begin());
    store->set("queue", queue);
    ASSERT_TRUE(store->synchronize());
    largest = std::max(largest, fs::file_size(fs::path(file()) += "-wal"));
  }
  EXPECT_GT(largest, uintmax_t{kSuitePageSize} * kSuiteCheckpointPages / 2) << "log was used";
  EXPECT_LE(largest, bound);
}

}  // namespace
}  // namespace orvane
