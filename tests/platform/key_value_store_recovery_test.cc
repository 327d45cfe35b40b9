// A suite file that is damaged, held by another process or refused by the disk never costs
// what can still be read or what is waiting to be written.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <iostream>
#include <random>
#include <set>
#include <thread>

#include "api/Engine.h"
#include "logging/OrvaneLogSender.h"
#include "orvane/platform/KeyValueStore.h"
#include "platform/FailingWritesVfs.h"
#include "platform/KeyValueStoreTesting.h"
#include "platform/linux/SqliteKeyValueStore.h"
#include "testutil/FakePlatform.h"
#include "testutil/RecordingHttpTransport.h"
#include "util/UserDefaultsProvider.h"

namespace orvane {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using testing::ErrorLog;
using testing::FailingWritesVfs;
using testing::runSql;
using testing::TemporaryDirectory;

constexpr int64_t kRecords = 100;
constexpr size_t kPayloadSize = 5000;
constexpr std::string_view kQueueKey = OrvaneLogSender::kMainQueueKey;
constexpr std::string_view kIdentityKey = "orvane_installation_uuid";

// Noise, so a record stays several pages long whether or not the store deflates it: the damage
// cases aim at its leaf and overflow pages.
Bytes payloadOf(int64_t id) {
  std::mt19937 random(static_cast<uint32_t>(id));
  Bytes payload(kPayloadSize);
  for (uint8_t& byte : payload) byte = static_cast<uint8_t>(random());
  return payload;
}

PlistValue queueRecord(int64_t id) {
  return PlistDictionary{{"id", id}, {"payload", payloadOf(id)}};
}

PlistArray queueOf(int64_t first, int64_t end) {
  PlistArray queue;
  for (int64_t id = first; id < end; ++id) queue.push_back(queueRecord(id));
  return queue;
}

// The ids of the queue's records that read back whole.
std::set<int64_t> intactRecords(const std::optional<PlistValue>& queue) {
  std::set<int64_t> ids;
  if (!queue || !queue->asArray()) return ids;
  for (const PlistValue& record : *queue->asArray()) {
    const PlistDictionary* fields = record.asDictionary();
    if (!fields || !fields->count("id") || !fields->count("payload")) continue;
    const std::optional<int64_t> id = fields->at("id").asInt();
    if (id && fields->at("payload") == PlistValue(payloadOf(*id))) {
      ids.insert(*id);
    }
  }
  return ids;
}

template <typename Condition>
bool eventually(Condition condition, std::chrono::milliseconds limit = 10s) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(5ms);
  }
  return true;
}

void overwrite(const fs::path& file, uintmax_t offset, size_t size, unsigned seed) {
  std::mt19937 random(seed);
  std::string noise(size, '\0');
  for (char& c : noise) c = static_cast<char>(random());
  std::fstream out(file, std::ios::in | std::ios::out | std::ios::binary);
  out.seekp(static_cast<std::streamoff>(offset));
  out.write(noise.data(), static_cast<std::streamsize>(noise.size()));
}

std::string contents(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

class DamagedSuiteTest : public ::testing::Test {
 protected:
  std::shared_ptr<KeyValueStore> open(const fs::path& directory) {
    errors_.messages.clear();
    return makeSqliteKeyValueStoreProvider(directory.string(), errors_.sink())->openSuite("suite");
  }
  std::shared_ptr<KeyValueStore> open() { return open(directory_.path()); }
  fs::path file() const { return directory_.path() / "suite.sqlite"; }
  fs::path damagedCopy() const { return directory_.path() / "suite.sqlite.damaged"; }

  // The identity and a queue of 100 records of 5 KB, durable, the file closed.
  void writeSuite() {
    auto store = open();
    ASSERT_NE(store, nullptr);
    store->set(kIdentityKey, "identity");
    store->set(kQueueKey, queueOf(0, kRecords));
    ASSERT_TRUE(store->synchronize());
  }

  // The n-th page of the queue's table of a type ("leaf", "overflow"), in file order, and its
  // offset in the file.
  uintmax_t tablePageOffset(const std::string& type, int n) {
    const int64_t page = runSql(file(),
                                "SELECT pageno FROM dbstat WHERE name = 'array_elements' AND "
                                "pagetype = '" +
                                    type + "' ORDER BY pageno LIMIT 1 OFFSET " + std::to_string(n));
    EXPECT_GT(page, 1) << type << " page " << n;
    return static_cast<uintmax_t>(page - 1) * static_cast<uintmax_t>(pageSize());
  }
  int64_t pageSize() { return runSql(file(), "PRAGMA page_size"); }

  size_t damageReports() { return errors_.count("damaged"); }

  TemporaryDirectory directory_;
  ErrorLog errors_;
};

TEST_F(DamagedSuiteTest, ABadPageCostsOnlyTheRecordsOnIt) {
  writeSuite();
  // A leaf in the middle of the queue's table holds a few records whole.
  overwrite(file(), tablePageOffset("leaf", 12), static_cast<size_t>(pageSize()), 1);
  auto store = open();
  ASSERT_NE(store, nullptr);
  const std::set<int64_t> ids = intactRecords(store->get(kQueueKey));
  std::cout << "bad leaf page: " << ids.size() << " of " << kRecords << " records saved\n";
  EXPECT_GE(ids.size(), size_t{kRecords - 8});
  EXPECT_LT(ids.size(), size_t{kRecords});
  // Only the records of that leaf are lost, and a leaf holds consecutive ones; a plain scan
  // would have lost every record after it too.
  std::vector<int64_t> lost;
  for (int64_t id = 0; id < kRecords; ++id) {
    if (!ids.count(id)) lost.push_back(id);
  }
  ASSERT_FALSE(lost.empty());
  EXPECT_EQ(lost.back() - lost.front() + 1, static_cast<int64_t>(lost.size()));
  EXPECT_LT(lost.back(), kRecords - 1);
  EXPECT_EQ(store->get(kIdentityKey), PlistValue("identity"));
  EXPECT_EQ(damageReports(), 1u) << ::testing::PrintToString(errors_.messages);
  EXPECT_TRUE(fs::exists(damagedCopy()));

  // The fresh file is sound: the next open reads the same without a report.
  store.reset();
  EXPECT_EQ(runSql(file(), "SELECT COUNT(*) FROM pragma_quick_check WHERE quick_check <> 'ok'"), 0);
  store = open();
  EXPECT_EQ(intactRecords(store->get(kQueueKey)), ids);
  EXPECT_EQ(errors_.messages, std::vector<std::string>{});
}

TEST_F(DamagedSuiteTest, DamageAPlainReadWouldMissIsRepairedBeforeTheFirstWrite) {
  writeSuite();
  // The tail of one record: every row still reads, only that value is garbage.
  overwrite(file(), tablePageOffset("overflow", 50), static_cast<size_t>(pageSize()), 2);
  auto store = open();
  ASSERT_NE(store, nullptr);
  // Written at once, likely before the check has run: it must land in the repaired file.
  store->set("written at open", "kept");
  EXPECT_EQ(intactRecords(store->get(kQueueKey)).size(), size_t{kRecords - 1});
  store->synchronize();  // waits for the check too
  EXPECT_EQ(damageReports(), 1u) << ::testing::PrintToString(errors_.messages);
  EXPECT_TRUE(fs::exists(damagedCopy()));
  EXPECT_TRUE(store->get(kStoreRepairNoteKey));

  store.reset();
  EXPECT_EQ(runSql(file(), "SELECT COUNT(*) FROM pragma_quick_check WHERE quick_check <> 'ok'"), 0);
  store = open();
  EXPECT_EQ(store->get("written at open"), PlistValue("kept"));
  EXPECT_EQ(intactRecords(store->get(kQueueKey)).size(), size_t{kRecords - 1});
  EXPECT_EQ(store->get(kIdentityKey), PlistValue("identity"));
}

// Opening reads only the single-row values and the arrays' names; the writer reads the rows. A
// bad sector under a queue record shows there, after the store was handed out: the queue must
// then read as absent and nothing may be written, or a queue written back without the records
// never read would delete them.
TEST_F(DamagedSuiteTest, ArrayRowsThatCannotBeReadAreNeverWrittenOver) {
  writeSuite();
  {
    // The queue's rows start at position 10, clear of where a queue written anew would go.
    auto store = open();
    store->set(kQueueKey, queueOf(10, kRecords));
    ASSERT_TRUE(store->synchronize());
  }
  FailingWritesVfs& vfs = FailingWritesVfs::instance();
  vfs.failReadsAt(static_cast<sqlite3_int64>(tablePageOffset("overflow", 50)), SQLITE_IOERR_READ);
  SqliteStoreOptions options;
  options.vfs = FailingWritesVfs::kName;
  options.firstRetryDelay = 10ms;
  {
    auto store =
        makeSqliteKeyValueStoreProvider(directory_.path().string(), errors_.sink(), options)
            ->openSuite("suite");
    ASSERT_NE(store, nullptr);
    EXPECT_EQ(store->get(kIdentityKey), PlistValue("identity"));
    EXPECT_FALSE(store->get(kQueueKey));
    store->set(kQueueKey, PlistArray{queueRecord(kRecords)});
    EXPECT_FALSE(store->synchronize());
    EXPECT_TRUE(errors_.mentions("nothing is written"))
        << ::testing::PrintToString(errors_.messages);
  }
  vfs.failReadsAt(0, SQLITE_OK);
  auto store = open();
  EXPECT_EQ(intactRecords(store->get(kQueueKey)).size(), size_t{kRecords - 10});
  EXPECT_EQ(store->get(kQueueKey)->asArray()->size(), size_t{kRecords - 10});
  EXPECT_FALSE(fs::exists(damagedCopy()));
}

TEST_F(DamagedSuiteTest, ATruncatedFileGivesUpWhatItStillHolds) {
  writeSuite();
  const uintmax_t size = fs::file_size(file());
  fs::resize_file(file(), size / 2);
  auto store = open();
  ASSERT_NE(store, nullptr);
  const size_t saved = intactRecords(store->get(kQueueKey)).size();
  std::cout << "file cut in half: " << saved << " of " << kRecords << " records saved\n";
  EXPECT_GT(saved, 0u);
  EXPECT_LT(saved, size_t{kRecords});
  EXPECT_EQ(store->get(kIdentityKey), PlistValue("identity"));
  EXPECT_EQ(damageReports(), 1u) << ::testing::PrintToString(errors_.messages);
  EXPECT_EQ(fs::file_size(damagedCopy()), size / 2);
}

TEST_F(DamagedSuiteTest, NotADatabaseStartsEmptyAndKeepsOnlyTheNewestDamagedCopy) {
  writeSuite();
  const std::string header = contents(file()).substr(0, 50);
  std::string garbage(8192, '\0');
  std::mt19937 random(3);
  for (char& c : garbage) c = static_cast<char>(random());
  // A stale log beside an older damaged copy must not end up beside the new one.
  std::ofstream(directory_.path() / "suite.sqlite.damaged-wal") << "an older copy's log";
  for (const std::string& damaged : {garbage, header}) {
    std::ofstream(file(), std::ios::binary | std::ios::trunc) << damaged;
    auto store = open();
    ASSERT_NE(store, nullptr);
    // Nothing is left but the note the SDK reports the repair from.
    EXPECT_EQ(store->keys(), std::vector<std::string>{std::string(kStoreRepairNoteKey)});
    EXPECT_EQ(damageReports(), 1u) << ::testing::PrintToString(errors_.messages);
    store->set("written", true);
    EXPECT_TRUE(store->synchronize());
    EXPECT_EQ(contents(damagedCopy()), damaged);
  }
  std::vector<std::string> copies;
  for (const auto& entry : fs::directory_iterator(directory_.path())) {
    const std::string name = entry.path().filename().string();
    if (name.find("damaged") != std::string::npos) copies.push_back(name);
  }
  EXPECT_EQ(copies, std::vector<std::string>{"suite.sqlite.damaged"});
}

class DamagedLogTest : public DamagedSuiteTest {
 protected:
  // The files as a crash would leave them after 20 commits of 5 records each.
  fs::path crashImage() {
    const fs::path image = directory_.path() / "image";
    fs::create_directory(image);
    auto store = open();
    EXPECT_NE(store, nullptr);
    store->set(kIdentityKey, "identity");
    for (int64_t end = 5; end <= kRecords; end += 5) {
      store->set(kQueueKey, queueOf(0, end));
      EXPECT_TRUE(store->synchronize());
    }
    fs::copy_file(file(), image / "suite.sqlite");
    fs::copy_file(file().string() + "-wal", image / "suite.sqlite-wal");
    return image;
  }
};

TEST_F(DamagedLogTest, CommitsPastDamageInTheLogAreNotDroppedSilently) {
  const fs::path image = crashImage();
  const fs::path log = image / "suite.sqlite-wal";
  const uintmax_t logSize = fs::file_size(log);
  overwrite(log, logSize / 2, 512, 4);
  auto store = open(image);
  ASSERT_NE(store, nullptr);
  const size_t saved = intactRecords(store->get(kQueueKey)).size();
  std::cout << "log damaged halfway: " << saved << " of " << kRecords << " records saved\n";
  // What SQLite can replay: whole commits before the damage.
  EXPECT_GT(saved, 0u);
  EXPECT_LT(saved, size_t{kRecords});
  EXPECT_EQ(saved % 5, 0u);
  EXPECT_EQ(store->get(kIdentityKey), PlistValue("identity"));
  EXPECT_EQ(errors_.count("write-ahead log is damaged"), 1u)
      << ::testing::PrintToString(errors_.messages);
  // The log keeps the commits past the damage for whoever looks at the copy.
  EXPECT_TRUE(fs::exists(image / "suite.sqlite.damaged"));
  EXPECT_EQ(fs::file_size(image / "suite.sqlite.damaged-wal"), logSize);
}

TEST_F(DamagedLogTest, ALogTornAtItsEndIsAnOrdinaryCrash) {
  const fs::path image = crashImage();
  const fs::path log = image / "suite.sqlite-wal";
  fs::resize_file(log, fs::file_size(log) - 1000);
  auto store = open(image);
  ASSERT_NE(store, nullptr);
  EXPECT_EQ(intactRecords(store->get(kQueueKey)).size(), size_t{kRecords - 5});
  EXPECT_EQ(errors_.messages, std::vector<std::string>{});
  EXPECT_FALSE(fs::exists(image / "suite.sqlite.damaged"));
}

// Another process holds the suite file: "PRAGMA locking_mode=EXCLUSIVE" keeps even readers out.
class LockedSuiteTest : public ::testing::Test {
 protected:
  void SetUp() override {
    auto store =
        makeSqliteKeyValueStoreProvider(directory_.path().string(), nullptr)->openSuite("suite");
    ASSERT_NE(store, nullptr);
    store->set(kIdentityKey, "identity");
    store->set(kQueueKey, queueOf(0, 3));
    ASSERT_TRUE(store->synchronize());
  }
  void TearDown() override { release(); }

  void hold() {
    ASSERT_EQ(sqlite3_open(file().c_str(), &holder_), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(holder_, "PRAGMA locking_mode=EXCLUSIVE; BEGIN EXCLUSIVE", nullptr,
                           nullptr, nullptr),
              SQLITE_OK);
  }
  void release() {
    if (!holder_) return;
    sqlite3_exec(holder_, "COMMIT", nullptr, nullptr, nullptr);
    sqlite3_close(holder_);
    holder_ = nullptr;
  }

  std::shared_ptr<KeyValueStoreProvider> provider() {
    SqliteStoreOptions options;
    options.firstRetryDelay = 100ms;
    options.retryDelayCap = 400ms;
    options.openingBusyTimeout = 50ms;
    return makeSqliteKeyValueStoreProvider(directory_.path().string(), errors_.sink(), options);
  }
  fs::path file() const { return directory_.path() / "suite.sqlite"; }

  TemporaryDirectory directory_;
  ErrorLog errors_;
  sqlite3* holder_ = nullptr;
};

TEST_F(LockedSuiteTest, OpensInTheSameProcessOnceTheLockIsGone) {
  hold();
  auto suites = provider();
  auto defaults = UserDefaultsProvider::open(suites.get(), "suite");
  EXPECT_FALSE(defaults->isAvailable());
  // Nothing written meanwhile reaches the file over what is stored there.
  EXPECT_FALSE(defaults->set(kIdentityKey, "interim"));

  std::thread releaser([&] {
    std::this_thread::sleep_for(1s);
    release();
  });
  // Readers on other threads see the suite appear.
  std::atomic<bool> seenElsewhere{false};
  std::thread reader([&] {
    seenElsewhere = eventually([&] { return defaults->string(kIdentityKey).has_value(); });
  });
  EXPECT_TRUE(eventually([&] { return defaults->isAvailable(); }));
  releaser.join();
  reader.join();
  EXPECT_TRUE(seenElsewhere);
  EXPECT_EQ(defaults->string(kIdentityKey), "identity");
  EXPECT_EQ(intactRecords(defaults->object(kQueueKey)).size(), 3u);
  EXPECT_EQ(errors_.count("opened on a later attempt"), 1u)
      << ::testing::PrintToString(errors_.messages);
  // An open suite is the same store for every later caller.
  EXPECT_EQ(suites->openSuite("suite"), defaults->userDefaults());
}

TEST_F(LockedSuiteTest, APlainOpenDoesNotRetryAndAGoneProviderStopsRetrying) {
  hold();
  auto suites = provider();
  EXPECT_EQ(suites->openSuite("suite"), nullptr);
  std::atomic<int> handedOver{0};
  EXPECT_EQ(suites->openSuiteOrRetry("suite", [&](auto) { ++handedOver; }), nullptr);
  std::this_thread::sleep_for(250ms);  // a retry or two, all refused
  suites.reset();
  release();
  std::this_thread::sleep_for(300ms);
  EXPECT_EQ(handedOver, 0);
}

// Writes the disk refuses: a full disk, an I/O error, a read-only file.
TEST(CommitFailureTest, OneLinePerKindAndTheWritesLandWhenTheDiskTakesThem) {
  TemporaryDirectory directory;
  ErrorLog errors;
  FailingWritesVfs& vfs = FailingWritesVfs::instance();
  SqliteStoreOptions options;
  options.vfs = FailingWritesVfs::kName;
  options.firstRetryDelay = 10ms;
  options.retryDelayCap = 40ms;
  auto store = makeSqliteKeyValueStoreProvider(directory.path().string(), errors.sink(), options)
                   ->openSuite("suite");
  ASSERT_NE(store, nullptr);
  store->set("before", int64_t{-1});
  ASSERT_TRUE(store->synchronize());

  const struct {
    int code;
    const char* kind;
  } failures[] = {{SQLITE_FULL, "the disk is full"},
                  {SQLITE_IOERR_WRITE, "I/O error"},
                  {SQLITE_READONLY, "read-only"},
                  {SQLITE_FULL, "the disk is full"}};
  int64_t written = 0;
  for (const auto& failure : failures) {
    vfs.failWritesWith(failure.code);
    for (int i = 0; i < 10; ++i, ++written) {
      store->set("key" + std::to_string(written), written);
      std::this_thread::sleep_for(2ms);
    }
    EXPECT_FALSE(store->synchronize()) << failure.kind;
    std::this_thread::sleep_for(100ms);  // the writer retries on its own meanwhile
    EXPECT_EQ(errors.count(failure.kind), 1u) << ::testing::PrintToString(errors.messages);
  }
  EXPECT_EQ(errors.messages.size(), 3u) << ::testing::PrintToString(errors.messages);
  EXPECT_EQ(store->get("key39"), PlistValue(int64_t{39}));
  vfs.failWritesWith(SQLITE_OK);

  // No write and no synchronize() needed: the back-off brings them to disk.
  const fs::path file = directory.path() / "suite.sqlite";
  EXPECT_TRUE(eventually([&] { return runSql(file, "SELECT COUNT(*) FROM entries") == 41; }));
  EXPECT_TRUE(store->synchronize());
  EXPECT_EQ(errors.count("writing again"), 1u) << ::testing::PrintToString(errors.messages);
  store.reset();
  store = makeSqliteKeyValueStoreProvider(directory.path().string(), nullptr)->openSuite("suite");
  ASSERT_NE(store, nullptr);
  EXPECT_EQ(store->keys().size(), 41u);
  EXPECT_EQ(store->get("key0"), PlistValue(int64_t{0}));
}

TEST(DamagedDefaultsSuiteTest, TheEngineKeepsItsIdentityAndQueuedRecords) {
  TemporaryDirectory directory;
  ErrorLog errors;
  testing::FakePlatform fake;
  fake.platform.keyValueStores =
      makeSqliteKeyValueStoreProvider(directory.path().string(), errors.sink());
  std::string identity;
  {
    Engine engine(fake.platform);
    identity = engine.installationUUID();
    engine.userDefaultsProvider()->set(kQueueKey, queueOf(0, kRecords));
    ASSERT_TRUE(engine.userDefaultsProvider()->synchronize());
  }
  fake.platform.keyValueStores.reset();  // the last owner of the suite: its file closes
  const fs::path file = directory.path() / "com.orvane.ads.sqlite";
  overwrite(file, fs::file_size(file) / 2 / 4096 * 4096, 4096, 5);

  fake.platform.keyValueStores =
      makeSqliteKeyValueStoreProvider(directory.path().string(), errors.sink());
  Engine engine(fake.platform);
  engine.userDefaultsProvider()->synchronize();  // the structure check runs in the background
  EXPECT_EQ(engine.installationUUID(), identity);
  EXPECT_GE(intactRecords(engine.userDefaultsProvider()->object(kQueueKey)).size(),
            size_t{kRecords - 8});
  EXPECT_EQ(errors.count("damaged"), 1u) << ::testing::PrintToString(errors.messages);

  // The repair also reaches the service, once, as soon as the host has set up.
  auto http = std::make_shared<testing::RecordingHttpTransport>();
  fake.platform.http = http;
  Engine reporting(fake.platform);
  reporting.setupWith("KEY-0123456789abcdef", nullptr, std::nullopt, Configuration{});
  fake.drain();
  EXPECT_EQ(http->errorReportsMentioning("Damaged store repaired"), 1u);
  EXPECT_FALSE(reporting.userDefaultsProvider()->string(kStoreRepairNoteKey));
  reporting.setupWith("KEY-0123456789abcdef", nullptr, std::nullopt, Configuration{});
  fake.drain();
  EXPECT_EQ(http->errorReportsMentioning("Damaged store repaired"), 1u);
}

}  // namespace
}  // namespace orvane
