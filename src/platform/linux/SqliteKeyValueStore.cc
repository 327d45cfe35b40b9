// Suites kept in one SQLite file each. The whole suite lives in memory so reads never touch
// the disk; each store owns a writer thread that commits writes in the order they were made,
// so callers on the request path never wait for a flush, and synchronize() is the one call
// that waits for the disk. Non-empty arrays are kept one element per row, so writing back a
// queue that gained or lost a few records touches only those rows. Writes the disk refuses stay
// in memory and are committed on a back-off until the disk takes them.
//
// Opening happens on the host's thread at start, so it does as little as it can: it reads the
// single-row values and names the arrays. The writer, before its first commit, reads the
// arrays' rows (a reader of an array waits for them) and checks the file's structure; a
// damaged file is then repaired (SqliteSuiteRepair.h) before anything is written over it. The
// rows of an array are decoded when its key is first read or written.
#include "platform/linux/SqliteKeyValueStore.h"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <iterator>
#include <mutex>
#include <set>
#include <thread>
#include <unordered_set>
#include <utility>

#include "platform/linux/CommitFailureLog.h"
#include "platform/linux/PlistCodec.h"
#include "platform/linux/RetryBackoff.h"
#include "platform/linux/SqliteSuite.h"
#include "platform/linux/SqliteSuiteLoad.h"
#include "platform/linux/SqliteSuiteRepair.h"
#include "platform/linux/StoredArrayDiff.h"
#include "platform/linux/StoredElementCodec.h"
#include "platform/linux/WriteAheadLogCheck.h"

namespace orvane {
namespace {

using Clock = std::chrono::steady_clock;

class SqliteKeyValueStore final : public KeyValueStore {
 public:
  SqliteKeyValueStore(std::filesystem::path file, std::string suiteName,
                      KeyValueStoreErrorSink sink, const SqliteStoreOptions& options,
                      LoadedSuite loaded)
      : file_(std::move(file)),
        suiteName_(std::move(suiteName)),
        reportPrefix_("suite " + inQuotes(suiteName_) + ": "),
        vfs_(options.vfs),
        sink_(std::move(sink)),
        db_(std::move(loaded.db)),
        statements_(std::move(loaded.statements)),
        failures_(reportPrefix_),
        firstRetryDelay_(options.firstRetryDelay),
        backoff_(options.firstRetryDelay, options.retryDelayCap),
        values_(std::move(loaded.values)) {
    if (loaded.full) {
      undecodedArrays_ = loaded.arrays;
      deferredArrays_ = std::move(loaded.arrays);
      writerHasArrayRows_ = true;
    } else {
      unreadArrayKeys_.insert(loaded.arrayKeys.begin(), loaded.arrayKeys.end());
    }
    writer_ = std::thread([this] { runWriter(); });
  }

  ~SqliteKeyValueStore() override {
    {
      std::lock_guard<std::mutex> guard(mutex_);
      stopping_ = true;
    }
    writerWake_.notify_one();
    writer_.join();
  }

  std::optional<PlistValue> get(std::string_view key) const override {
    std::shared_ptr<const PlistValue> found = getShared(key);
    if (!found) return std::nullopt;
    return *found;  // values are immutable once stored, so the copy needs no lock
  }

  std::shared_ptr<const PlistValue> getShared(std::string_view key) const override {
    std::unique_lock<std::mutex> lock(mutex_);
    // An array whose rows the writer has not read yet: it reads them first thing after opening.
    arrayRowsPublished_.wait(lock, [&] { return !unreadArrayKeys_.contains(key); });
    if (auto it = values_.find(key); it != values_.end()) return it->second;
    auto pending = deferredArrays_.find(key);
    if (pending == deferredArrays_.end()) return nullptr;
    const std::shared_ptr<DeferredStoredArray> deferred = pending->second;
    // Decoded without the lock: other keys stay readable and writable meanwhile.
    lock.unlock();
    const StoredArray& stored =
        deferred->decoded([this](const std::string& line) { report(line); });
    lock.lock();
    if (auto pending = deferredArrays_.find(key);
        pending != deferredArrays_.end() && pending->second == deferred) {
      deferredArrays_.erase(pending);
      // A key whose every element is unreadable reads as absent.
      if (stored.positions.empty()) return nullptr;
      values_.emplace(std::string(key), stored.value);
      return stored.value;
    }
    // Written while it was being decoded: the write is the answer.
    auto it = values_.find(key);
    return it == values_.end() ? nullptr : it->second;
  }

  void set(std::string_view key, PlistValue value) override {
    enqueue(key, std::make_shared<const PlistValue>(std::move(value)));
  }

  void remove(std::string_view key) override {
    // Enqueued even when the key is not in memory: a row that failed to decode at open is
    // absent here but still on disk, and removing it is how it goes away.
    enqueue(key, nullptr);
  }

  std::vector<std::string> keys() const override {
    std::lock_guard<std::mutex> guard(mutex_);
    std::vector<std::string> out;
    out.reserve(values_.size() + deferredArrays_.size() + unreadArrayKeys_.size());
    for (const auto& [key, value] : values_) out.push_back(key);
    // Listed before they are decoded, even one whose every element turns out unreadable.
    for (const auto& [key, deferred] : deferredArrays_) out.push_back(key);
    out.insert(out.end(), unreadArrayKeys_.begin(), unreadArrayKeys_.end());
    std::sort(out.begin(), out.end());
    return out;
  }

  bool synchronize() override {
    std::unique_lock<std::mutex> lock(mutex_);
    const uint64_t target = lastEnqueued_;
    if (lastSettled_ < target) {
      // While commits fail, asking again at once is allowed after the first retry delay, so
      // that a caller polling synchronize() cannot turn the back-off into a busy loop.
      if (retryAt_ && Clock::now() - lastFailureAt_ < firstRetryDelay_) return false;
      const uint64_t failuresBefore = failedAttempts_;
      attemptNow_ = true;
      writerWake_.notify_one();
      progress_.wait(lock,
                     [&] { return lastSettled_ >= target || failedAttempts_ != failuresBefore; });
    }
    return lastSettled_ >= target && unencodable_.empty();
  }

  void forgetRemoved() override {
    std::lock_guard<std::mutex> guard(mutex_);
    // A marker in the write order: the writer rewrites the file after the commit that holds
    // every removal made before it.
    pending_.push_back(Write{++lastEnqueued_, std::string(), nullptr, true});
    if (!retryAt_) writerWake_.notify_one();
  }

 private:
  // One set (value) or remove (no value), numbered in the order callers made them.
  struct Write {
    uint64_t sequence;
    std::string key;
    std::shared_ptr<const PlistValue> value;
    bool forgetRemoved = false;  // a marker, not a write: see forgetRemoved()
  };

  struct BatchOutcome {
    bool committed = false;
    int code = SQLITE_OK;
    std::string error;
    std::vector<std::string> unencodable;
  };

  void enqueue(std::string_view key, std::shared_ptr<const PlistValue> value) {
    std::lock_guard<std::mutex> guard(mutex_);
    if (auto pending = deferredArrays_.find(key); pending != deferredArrays_.end()) {
      deferredArrays_.erase(pending);
    }
    if (auto unread = unreadArrayKeys_.find(key); unread != unreadArrayKeys_.end()) {
      unreadArrayKeys_.erase(unread);
      arrayRowsPublished_.notify_all();  // a reader waiting for it has its answer now
    }
    if (value) {
      values_.insert_or_assign(std::string(key), value);
    } else if (auto it = values_.find(key); it != values_.end()) {
      values_.erase(it);
    }
    pending_.push_back(Write{++lastEnqueued_, std::string(key), std::move(value)});
    // During a back-off a write only joins the waiting batch.
    if (!retryAt_) writerWake_.notify_one();
  }

  // Until there is something to try: a write (or, during a back-off, its end), a
  // synchronize() asking, or the store closing, which tries once more whatever is waiting.
  void waitForWork(std::unique_lock<std::mutex>& lock) {
    if (retryAt_) {
      writerWake_.wait_until(lock, *retryAt_, [&] { return stopping_ || attemptNow_; });
    } else {
      writerWake_.wait(lock, [&] { return stopping_ || attemptNow_ || !pending_.empty(); });
    }
    attemptNow_ = false;
  }

  void runWriter() {
    startUp();
    std::unique_lock<std::mutex> lock(mutex_);
    lastSettled_ = std::max(lastSettled_, kStartedUp);
    progress_.notify_all();
    for (;;) {
      waitForWork(lock);
      if (pending_.empty()) {
        if (stopping_) return;
        continue;
      }
      // Everything that piled up while the last batch was committing goes in one transaction.
      std::vector<Write> batch(std::make_move_iterator(pending_.begin()),
                               std::make_move_iterator(pending_.end()));
      pending_.clear();
      lock.unlock();

      BatchOutcome outcome = persist(batch);
      if (outcome.committed &&
          std::any_of(batch.begin(), batch.end(), [](const Write& w) { return w.forgetRemoved; })) {
        rewriteWithoutRemoved();
      }
      std::vector<std::string> lines;
      for (const std::string& key : outcome.unencodable) {
        lines.push_back("suite " + inQuotes(suiteName_) + ": value for key " + inQuotes(key) +
                        " nests too deeply to store; the key is removed from disk");
      }
      auto line = outcome.committed ? failures_.committed()
                                    : failures_.failed(outcome.code, outcome.error, batch.size());
      if (line) lines.push_back(std::move(*line));
      for (const std::string& each : lines) report(each);

      lock.lock();
      if (outcome.committed) {
        lastSettled_ = batch.back().sequence;
        for (const Write& write : batch) unencodable_.erase(write.key);
        for (std::string& key : outcome.unencodable) unencodable_.insert(std::move(key));
        backoff_.reset();
        retryAt_.reset();
      } else {
        // Keep the batch at the front so order holds when a later attempt succeeds.
        pending_.insert(pending_.begin(), std::make_move_iterator(batch.begin()),
                        std::make_move_iterator(batch.end()));
        ++failedAttempts_;
        lastFailureAt_ = Clock::now();
        retryAt_ = lastFailureAt_ + backoff_.afterFailure();
      }
      progress_.notify_all();
      if (stopping_ && !outcome.committed) return;
    }
  }

  // Writer thread, before its first commit: the arrays' rows for readers and for writing, and
  // the check of the file's structure. A damaged file is repaired and the store goes on with
  // the repaired file; what readers already have stays in memory. Rows that cannot be read
  // for any other reason leave the store unable to write: nothing is written over rows it
  // never read, and the next launch reads them again.
  void startUp() {
    std::string damage;
    if (!writerHasArrayRows_) {
      DeferredArrays arrays;
      const int rc = readArrayRows(db_.get(), reportPrefix_, arrays);
      if (rc == SQLITE_OK) {
        publishArrayRows(std::move(arrays));
      } else if (isDamageCode(rc)) {
        damage = sqlite3_errmsg(db_.get());
      } else {
        report(reportPrefix_ + "cannot read " + file_.string() + ": " + sqlite3_errmsg(db_.get()));
      }
    }
    if (damage.empty() && writerHasArrayRows_) {
      std::string finding;
      if (isDamageCode(checkSuiteStructure(db_.get(), finding))) damage = std::move(finding);
    }
    if (!damage.empty()) repairFile(damage);
    if (!writerHasArrayRows_) {
      report(reportPrefix_ + "its arrays read as absent and nothing is written to " +
             file_.string() + " until the next launch");
      publishArrayRows({});
      arraysUnread_ = true;
    }
    // After the rows, which readers may be waiting for.
    if (db_ && !statements_.upsert) prepareForWriting();
  }

  // Writer thread: a connection opened for reading becomes the writer's. A failure leaves
  // commits failing (and trying this again) rather than the store unusable.
  int prepareForWriting() {
    const int rc = prepareSuiteWriting(db_.get(), statements_);
    if (rc != SQLITE_OK) {
      report(reportPrefix_ + "cannot prepare " + file_.string() +
             " for writing: " + sqlite3_errstr(rc));
    }
    return rc;
  }

  void repairFile(const std::string& damage) {
    statements_ = {};
    db_.reset();
    SuiteRepair repair = repairDamagedSuite(file_, reportPrefix_, damage, vfsName());
    report(repair.report);
    if (reopen() && repair.replaced) {
      // Reported through the SDK's error reporting once a manager reads it (Engine.cc).
      enqueue(kStoreRepairNoteKey, std::make_shared<const PlistValue>(std::move(repair.report)));
    }
  }

  // Writer thread: a connection to the file as it now is, after a repair replaced it, with the
  // arrays' rows. False (with a line) when it cannot be opened; commits then fail and try again.
  bool reopen() {
    std::vector<std::string> problems;
    SuiteLoad load = loadSuiteFile(file_, reportPrefix_, vfsName(),
                                   std::chrono::milliseconds(kCommitBusyTimeoutMs), problems,
                                   SuiteLoadDepth::kFull);
    for (const std::string& problem : problems) report(problem);
    if (!load.loaded) {
      report(load.error);
      return false;
    }
    db_ = std::move(load.loaded->db);
    statements_ = std::move(load.loaded->statements);
    publishArrayRows(std::move(load.loaded->arrays));
    return true;
  }

  // Writer thread: the arrays' rows as the file now holds them, for writing and, while readers
  // wait for them, for reading. Readers that already have them keep what they have.
  void publishArrayRows(DeferredArrays arrays) {
    {
      std::lock_guard<std::mutex> guard(mutex_);
      for (const auto& [key, deferred] : arrays) {
        if (unreadArrayKeys_.contains(key)) deferredArrays_.insert_or_assign(key, deferred);
      }
      unreadArrayKeys_.clear();
    }
    arrayRowsPublished_.notify_all();
    undecodedArrays_ = std::move(arrays);
    storedArrays_.clear();
    writerHasArrayRows_ = true;
  }

  const char* vfsName() const { return vfs_.empty() ? nullptr : vfs_.c_str(); }

  // Runs on the writer thread only, without the lock: db_, the statements and storedArrays_
  // are its own.
  BatchOutcome persist(const std::vector<Write>& batch) {
    BatchOutcome outcome;
    if (!db_ && !reopen()) {
      outcome.code = SQLITE_CANTOPEN;
      outcome.error = "the repaired file cannot be opened";
      return outcome;
    }
    if (!statements_.upsert) {
      if (const int rc = prepareForWriting(); rc != SQLITE_OK) {
        outcome.code = rc;
        outcome.error = sqlite3_errstr(rc);
        return outcome;
      }
    }
    if (arraysUnread_) {
      outcome.code = SQLITE_IOERR_READ;
      outcome.error = "its arrays could not be read, so nothing is written over them";
      return outcome;
    }
    // The transaction commits all or nothing, so only each key's last write matters.
    std::vector<const Write*> effective;
    std::unordered_set<std::string_view> seen;
    for (auto it = batch.rbegin(); it != batch.rend(); ++it) {
      if (!it->forgetRemoved && seen.insert(it->key).second) effective.push_back(&*it);
    }

    sqlite3* db = db_.get();
    // A rollback that failed after an I/O error leaves the transaction open.
    if (!sqlite3_get_autocommit(db)) executeStatement(db, "ROLLBACK");
    if (const int rc = executeStatement(db, "BEGIN IMMEDIATE"); rc != SQLITE_OK) {
      outcome.code = rc;
      outcome.error = sqlite3_errmsg(db);
      return outcome;
    }
    // What storedArrays_ becomes once the transaction commits; none means "no rows".
    std::vector<std::pair<std::string_view, std::optional<StoredArray>>> arrayChanges;
    auto fail = [&] {
      outcome.code = sqlite3_extended_errcode(db);
      outcome.error = sqlite3_errmsg(db);
      executeStatement(db, "ROLLBACK");
      outcome.unencodable.clear();
      return outcome;
    };
    for (auto it = effective.rbegin(); it != effective.rend(); ++it) {
      if (!persistWrite(**it, outcome, arrayChanges)) return fail();
    }
    if (executeStatement(db, "COMMIT") != SQLITE_OK) return fail();
    for (auto& [key, change] : arrayChanges) {
      if (change) {
        storedArrays_.insert_or_assign(std::string(key), std::move(*change));
      } else if (auto found = storedArrays_.find(key); found != storedArrays_.end()) {
        storedArrays_.erase(found);
      }
    }
    outcome.committed = true;
    return outcome;
  }

  // Writer thread, after a commit: VACUUM rebuilds the file from the live rows only, so freed
  // pages no longer hold removed values, and the checkpoint copies the result into the file
  // and empties the write-ahead log, which held the old pages too. A failure is reported and
  // leaves the data as it was; the next erase tries again.
  void rewriteWithoutRemoved() {
    sqlite3* db = db_.get();
    if (executeStatement(db, "VACUUM") != SQLITE_OK) {
      report(reportPrefix_ + "cannot rewrite " + file_.string() +
             " after an erase: " + sqlite3_errmsg(db) + "; removed values may stay in it");
      return;
    }
    const int rc =
        sqlite3_wal_checkpoint_v2(db, nullptr, SQLITE_CHECKPOINT_TRUNCATE, nullptr, nullptr);
    if (rc != SQLITE_OK) {
      report(reportPrefix_ + "cannot empty the write-ahead log of " + file_.string() +
             " after an erase: " + sqlite3_errmsg(db) + "; removed values may stay in it");
    }
  }

  // One key's write inside the open transaction. False when a statement failed.
  bool persistWrite(const Write& write, BatchOutcome& outcome,
                    std::vector<std::pair<std::string_view, std::optional<StoredArray>>>& changes) {
    const StoredArray* stored = storedArray(write.key);
    const PlistArray* array = write.value ? write.value->asArray() : nullptr;
    if (array && !array->empty()) {
      if (!run(statements_.erase.get(), write.key)) return false;
      StoredArray next;
      switch (persistArray(write, *array, stored, next)) {
        case ArrayWrite::kFailed:
          return false;
        case ArrayWrite::kUnencodable:
          // Leaving the previous rows would bring back an older value on the next open.
          outcome.unencodable.push_back(write.key);
          changes.emplace_back(write.key, std::nullopt);
          return run(statements_.eraseElements.get(), write.key);
        case ArrayWrite::kWritten:
          break;
      }
      changes.emplace_back(write.key, std::move(next));
      return true;
    }
    if (stored) {
      if (!run(statements_.eraseElements.get(), write.key)) return false;
      changes.emplace_back(write.key, std::nullopt);
    }
    std::optional<Bytes> blob;
    if (write.value) {
      blob = encodePlistValue(*write.value);
      if (!blob) outcome.unencodable.push_back(write.key);
    }
    if (!blob) return run(statements_.erase.get(), write.key);
    return run(statements_.upsert.get(), write.key, std::nullopt, &*blob);
  }

  // What the file holds of an array kept element by element, decoding its rows if no write
  // has needed them yet. Writer thread only.
  const StoredArray* storedArray(const std::string& key) {
    if (auto undecoded = undecodedArrays_.find(key); undecoded != undecodedArrays_.end()) {
      storedArrays_.insert_or_assign(
          key, undecoded->second->decoded([this](const std::string& line) { report(line); }));
      undecodedArrays_.erase(undecoded);
    }
    auto found = storedArrays_.find(key);
    return found == storedArrays_.end() ? nullptr : &found->second;
  }

  enum class ArrayWrite { kWritten, kUnencodable, kFailed };

  // Brings the rows of a non-empty array in line with `array`; `next` then describes them.
  ArrayWrite persistArray(const Write& write, const PlistArray& array, const StoredArray* stored,
                          StoredArray& next) {
    static const PlistArray kNothingStored;
    const PlistArray& before = stored ? *stored->value->asArray() : kNothingStored;
    StoredArrayEdit edit = diffStoredArray(
        before, stored ? std::span<const int64_t>(stored->positions) : std::span<const int64_t>(),
        array);
    if (stored) {
      edit.removedPositions.insert(edit.removedPositions.end(), stored->unreadablePositions.begin(),
                                   stored->unreadablePositions.end());
    }
    for (const int64_t position : edit.removedPositions) {
      if (!run(statements_.eraseElement.get(), write.key, position)) return ArrayWrite::kFailed;
    }
    for (const size_t index : edit.addedElements) {
      const std::optional<Bytes> blob = encodeStoredElement(array[index]);
      if (!blob) return ArrayWrite::kUnencodable;
      if (!run(statements_.insertElement.get(), write.key, edit.positions[index], &*blob)) {
        return ArrayWrite::kFailed;
      }
    }
    next = StoredArray{write.value, std::move(edit.positions), {}};
    return ArrayWrite::kWritten;
  }

  // Binds the key to ?1, a position to ?2 and a blob to the last parameter, and steps once.
  bool run(sqlite3_stmt* statement, std::string_view key,
           std::optional<int64_t> position = std::nullopt, const Bytes* blob = nullptr) {
    sqlite3_bind_text64(statement, 1, key.data(), key.size(), SQLITE_STATIC, SQLITE_UTF8);
    if (position) sqlite3_bind_int64(statement, 2, *position);
    if (blob) {
      sqlite3_bind_blob64(statement, sqlite3_bind_parameter_count(statement), blob->data(),
                          blob->size(), SQLITE_STATIC);
    }
    const int rc = sqlite3_step(statement);
    sqlite3_reset(statement);
    sqlite3_clear_bindings(statement);
    return rc == SQLITE_DONE;
  }

  // On the writer thread, where an exception would end the process.
  void report(const std::string& message) const noexcept {
    try {
      if (sink_) sink_(message);
    } catch (...) {
    }
  }

  const std::filesystem::path file_;
  const std::string suiteName_;
  const std::string reportPrefix_;
  const std::string vfs_;
  const KeyValueStoreErrorSink sink_;
  // The statements go before the connection closes (members die in reverse order).
  Database db_;
  SuiteStatements statements_;
  // Writer thread only, like failures_ and backoff_. An array is in one or the other, once
  // writerHasArrayRows_.
  StoredArrays storedArrays_;
  DeferredArrays undecodedArrays_;
  bool writerHasArrayRows_ = false;
  // Readers were told the arrays are absent because their rows could not be read: for the
  // rest of this store's life nothing is written, not even after a later reopen.
  bool arraysUnread_ = false;
  CommitFailureLog failures_;
  const std::chrono::milliseconds firstRetryDelay_;
  RetryBackoff backoff_;

  mutable std::mutex mutex_;
  std::condition_variable writerWake_;
  std::condition_variable progress_;
  // What readers see. A read of an array still deferred decodes it into values_, so both are
  // filled by const reads.
  mutable SuiteValues values_;
  mutable DeferredArrays deferredArrays_;
  // Arrays named at open whose rows the writer has not read yet, less those written since.
  std::set<std::string, std::less<>> unreadArrayKeys_;
  mutable std::condition_variable arrayRowsPublished_;
  std::deque<Write> pending_;
  // Sequence 1 is the writer's start-up (startUp()), so synchronize() also waits for it.
  static constexpr uint64_t kStartedUp = 1;
  uint64_t lastEnqueued_ = kStartedUp;
  // Every write numbered up to here is on disk (or was refused by the encoder).
  uint64_t lastSettled_ = 0;
  uint64_t failedAttempts_ = 0;
  // Set while commits fail: when the writer tries again on its own.
  std::optional<Clock::time_point> retryAt_;
  Clock::time_point lastFailureAt_;
  // Keys whose latest value could not be encoded; the disk disagrees with memory until each
  // is written again, and synchronize() says so.
  std::set<std::string, std::less<>> unencodable_;
  bool attemptNow_ = false;
  bool stopping_ = false;
  std::thread writer_;
};

}  // namespace

std::shared_ptr<KeyValueStore> openSqliteSuite(const std::filesystem::path& file,
                                               const std::string& suiteName,
                                               const KeyValueStoreErrorSink& sink,
                                               const SqliteStoreOptions& options,
                                               std::vector<std::string>& problems) {
  const std::string prefix = "suite " + inQuotes(suiteName) + ": ";
  const char* vfs = options.vfs.empty() ? nullptr : options.vfs.c_str();
  auto open = [&](SuiteLoad load) -> std::shared_ptr<KeyValueStore> {
    if (!load.loaded) {
      problems.push_back(std::move(load.error));
      return nullptr;
    }
    return std::make_shared<SqliteKeyValueStore>(file, suiteName, sink, options,
                                                 std::move(*load.loaded));
  };

  // A log damaged in the middle reads as sound, only shorter: it is found before SQLite
  // replays it and drops the rest.
  std::string damage;
  if (isWriteAheadLogDamaged(withSuffix(file, "-wal"))) {
    damage = "its write-ahead log is damaged";
  } else {
    SuiteLoad load = loadSuiteFile(file, prefix, vfs, options.openingBusyTimeout, problems,
                                   SuiteLoadDepth::kOpening);
    if (load.loaded || !isDamageCode(load.code)) return open(std::move(load));
    damage = std::move(load.detail);
  }
  SuiteRepair repair = repairDamagedSuite(file, prefix, damage, vfs);
  problems.push_back(repair.report);
  if (!repair.replaced) return nullptr;
  auto store = open(loadSuiteFile(file, prefix, vfs, options.openingBusyTimeout, problems,
                                  SuiteLoadDepth::kOpening));
  if (store) store->set(kStoreRepairNoteKey, PlistValue(std::move(repair.report)));
  return store;
}

}  // namespace orvane
