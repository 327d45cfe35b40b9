// Suites kept in one SQLite file each. The whole suite lives in memory so reads never touch
// the disk; each store owns a writer thread that commits writes in the order they were made,
// so callers on the request path never wait for a flush, and synchronize() is the one call
// that waits for the disk. Non-empty arrays are kept one element per row, so writing back a
// queue that gained or lost a few records touches only those rows.
#include "platform/linux/SqliteKeyValueStore.h"

#include <sqlite3.h>

#include <condition_variable>
#include <cstdio>
#include <deque>
#include <filesystem>
#include <iterator>
#include <map>
#include <mutex>
#include <set>
#include <stdexcept>
#include <thread>
#include <unordered_set>
#include <utility>
#include <vector>

#include "orvane/platform/linux/LinuxPlatform.h"
#include "platform/linux/PlistCodec.h"
#include "platform/linux/StoredArrayDiff.h"

namespace orvane {
namespace {

// Long enough to ride out another process checkpointing the same file, short enough that a
// synchronize() against a wedged file still comes back with an answer.
constexpr int kBusyTimeoutMs = 2000;

struct DatabaseCloser {
  void operator()(sqlite3* db) const { sqlite3_close_v2(db); }
};
using Database = std::unique_ptr<sqlite3, DatabaseCloser>;

struct StatementFinalizer {
  void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using Statement = std::unique_ptr<sqlite3_stmt, StatementFinalizer>;

Statement prepare(sqlite3* db, const char* sql) {
  sqlite3_stmt* statement = nullptr;
  if (sqlite3_prepare_v3(db, sql, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr) !=
      SQLITE_OK) {
    sqlite3_finalize(statement);
    return nullptr;
  }
  return Statement(statement);
}

bool execute(sqlite3* db, const char* sql) {
  return sqlite3_exec(db, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

// Keys come from callers and from disk; keep messages one line and bounded.
std::string inQuotes(std::string_view text) {
  constexpr size_t kLimit = 80;
  std::string out = "\"";
  for (size_t i = 0; i < text.size() && i < kLimit; ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (c < 0x20 || c == 0x7F || c == '"' || c == '\\') {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\x%02x", c);
      out += escaped;
    } else {
      out += static_cast<char>(c);
    }
  }
  if (text.size() > kLimit) out += "...";
  out += '"';
  return out;
}

// The suite name becomes a file name inside the directory, never a path out of it.
bool isUsableSuiteName(std::string_view name) {
  return !name.empty() && name != "." && name != ".." &&
         name.find_first_of(std::string_view("/\0", 2)) == std::string_view::npos;
}

void writeToStandardError(std::string_view message) {
  std::string line = "[Orvane] ";
  line += message;
  line += '\n';
  std::fwrite(line.data(), 1, line.size(), stderr);
}

class SqliteKeyValueStore final : public KeyValueStore {
 public:
  // Null when the file cannot be opened or read; `problems` collects what went wrong,
  // including rows skipped because their value could not be decoded.
  static std::shared_ptr<SqliteKeyValueStore> open(const std::filesystem::path& path,
                                                   const std::string& suiteName,
                                                   KeyValueStoreErrorSink sink,
                                                   std::vector<std::string>& problems);

  ~SqliteKeyValueStore() override {
    {
      std::lock_guard<std::mutex> guard(mutex_);
      stopping_ = true;
    }
    writerWake_.notify_one();
    writer_.join();
  }

  std::optional<PlistValue> get(std::string_view key) const override {
    std::shared_ptr<const PlistValue> found;
    {
      std::lock_guard<std::mutex> guard(mutex_);
      auto it = values_.find(key);
      if (it == values_.end()) return std::nullopt;
      found = it->second;
    }
    return *found;  // values are immutable once stored, so the copy needs no lock
  }

  std::shared_ptr<const PlistValue> getShared(std::string_view key) const override {
    std::lock_guard<std::mutex> guard(mutex_);
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
    out.reserve(values_.size());
    for (const auto& [key, value] : values_) out.push_back(key);
    return out;
  }

  bool synchronize() override {
    std::unique_lock<std::mutex> lock(mutex_);
    const uint64_t target = lastEnqueued_;
    const uint64_t failuresBefore = failedAttempts_;
    if (lastSettled_ < target) {
      // Also retries a batch that failed earlier and is still waiting at the front.
      wake_ = true;
      writerWake_.notify_one();
      progress_.wait(lock,
                     [&] { return lastSettled_ >= target || failedAttempts_ != failuresBefore; });
    }
    return lastSettled_ >= target && unencodable_.empty();
  }

 private:
  using Values = std::map<std::string, std::shared_ptr<const PlistValue>, std::less<>>;

  // One set (value) or remove (no value), numbered in the order callers made them.
  struct Write {
    uint64_t sequence;
    std::string key;
    std::shared_ptr<const PlistValue> value;
  };

  struct BatchOutcome {
    bool committed = false;
    std::string error;
    std::vector<std::string> unencodable;
  };

  // What the file holds of one array kept element by element. Owned by the writer thread.
  struct StoredArray {
    std::shared_ptr<const PlistValue> value;   // the array the rows spell out
    std::vector<int64_t> positions;            // one per element of `value`
    std::vector<int64_t> unreadablePositions;  // rows skipped at open, dropped on next write
  };
  using StoredArrays = std::map<std::string, StoredArray, std::less<>>;

  // Reads the arrays kept element by element into `values`, and what their rows are into
  // `arrays`. False when the table cannot be read.
  static bool loadArrays(sqlite3* db, const std::string& prefix, Values& values,
                         StoredArrays& arrays, std::vector<std::string>& problems);

  struct Statements {
    Statement upsert;
    Statement erase;
    Statement insertElement;
    Statement eraseElement;
    Statement eraseElements;
  };

  SqliteKeyValueStore(std::string suiteName, KeyValueStoreErrorSink sink, Database db,
                      Statements statements, Values values, StoredArrays storedArrays)
      : suiteName_(std::move(suiteName)),
        sink_(std::move(sink)),
        db_(std::move(db)),
        statements_(std::move(statements)),
        storedArrays_(std::move(storedArrays)),
        values_(std::move(values)) {
    writer_ = std::thread([this] { runWriter(); });
  }

  void enqueue(std::string_view key, std::shared_ptr<const PlistValue> value) {
    std::lock_guard<std::mutex> guard(mutex_);
    if (value) {
      values_.insert_or_assign(std::string(key), value);
    } else if (auto it = values_.find(key); it != values_.end()) {
      values_.erase(it);
    }
    pending_.push_back(Write{++lastEnqueued_, std::string(key), std::move(value)});
    wake_ = true;
    writerWake_.notify_one();
  }

  void runWriter() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
      writerWake_.wait(lock, [&] { return wake_ || stopping_; });
      wake_ = false;
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
      for (const std::string& key : outcome.unencodable) {
        report("suite " + inQuotes(suiteName_) + ": value for key " + inQuotes(key) +
               " nests too deeply to store; the key is removed from disk");
      }
      if (!outcome.committed) {
        report("suite " + inQuotes(suiteName_) + ": could not commit " +
               std::to_string(batch.size()) + " write(s): " + outcome.error);
      }

      lock.lock();
      if (outcome.committed) {
        lastSettled_ = batch.back().sequence;
        for (const Write& write : batch) unencodable_.erase(write.key);
        for (std::string& key : outcome.unencodable) unencodable_.insert(std::move(key));
      } else {
        // Keep the batch at the front so order holds when the next attempt succeeds. The
        // next write or synchronize() retries; nothing spins against a broken file.
        pending_.insert(pending_.begin(), std::make_move_iterator(batch.begin()),
                        std::make_move_iterator(batch.end()));
        ++failedAttempts_;
      }
      progress_.notify_all();
      if (stopping_ && !outcome.committed) return;
    }
  }

  // Runs on the writer thread only, without the lock: db_, the statements and storedArrays_
  // are its own.
  BatchOutcome persist(const std::vector<Write>& batch) {
    BatchOutcome outcome;
    // The transaction commits all or nothing, so only each key's last write matters.
    std::vector<const Write*> effective;
    std::unordered_set<std::string_view> seen;
    for (auto it = batch.rbegin(); it != batch.rend(); ++it) {
      if (seen.insert(it->key).second) effective.push_back(&*it);
    }

    sqlite3* db = db_.get();
    if (!execute(db, "BEGIN IMMEDIATE")) {
      outcome.error = sqlite3_errmsg(db);
      return outcome;
    }
    // What storedArrays_ becomes once the transaction commits; none means "no rows".
    std::vector<std::pair<std::string_view, std::optional<StoredArray>>> arrayChanges;
    auto fail = [&] {
      outcome.error = sqlite3_errmsg(db);
      execute(db, "ROLLBACK");
      outcome.unencodable.clear();
      return outcome;
    };
    for (auto it = effective.rbegin(); it != effective.rend(); ++it) {
      if (!persistWrite(**it, outcome, arrayChanges)) return fail();
    }
    if (!execute(db, "COMMIT")) return fail();
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

  // One key's write inside the open transaction. False when a statement failed.
  bool persistWrite(const Write& write, BatchOutcome& outcome,
                    std::vector<std::pair<std::string_view, std::optional<StoredArray>>>& changes) {
    const StoredArray* stored = nullptr;
    if (auto found = storedArrays_.find(write.key); found != storedArrays_.end()) {
      stored = &found->second;
    }
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
      const std::optional<Bytes> blob = encodePlistArrayElement(array[index]);
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

  void report(const std::string& message) const {
    if (sink_) sink_(message);
  }

  const std::string suiteName_;
  const KeyValueStoreErrorSink sink_;
  // The statements go before the connection closes (members die in reverse order).
  Database db_;
  Statements statements_;
  StoredArrays storedArrays_;

  mutable std::mutex mutex_;
  std::condition_variable writerWake_;
  std::condition_variable progress_;
  Values values_;
  std::deque<Write> pending_;
  uint64_t lastEnqueued_ = 0;
  // Every write numbered up to here is on disk (or was refused by the encoder).
  uint64_t lastSettled_ = 0;
  uint64_t failedAttempts_ = 0;
  // Keys whose latest value could not be encoded; the disk disagrees with memory until each
  // is written again, and synchronize() says so.
  std::set<std::string, std::less<>> unencodable_;
  bool wake_ = false;
  bool stopping_ = false;
  std::thread writer_;
};

std::shared_ptr<SqliteKeyValueStore> SqliteKeyValueStore::open(const std::filesystem::path& path,
                                                               const std::string& suiteName,
                                                               KeyValueStoreErrorSink sink,
                                                               std::vector<std::string>& problems) {
  const std::string prefix = "suite " + inQuotes(suiteName) + ": ";
  sqlite3* raw = nullptr;
  const int rc =
      sqlite3_open_v2(path.c_str(), &raw,
                      SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
  Database db(raw);
  if (rc != SQLITE_OK) {
    problems.push_back(prefix + "cannot open " + path.string() + ": " +
                       (raw ? sqlite3_errmsg(raw) : sqlite3_errstr(rc)));
    return nullptr;
  }
  sqlite3_extended_result_codes(raw, 1);
  sqlite3_busy_timeout(raw, kBusyTimeoutMs);
  auto fail = [&](const char* what) {
    problems.push_back(prefix + what + " " + path.string() + ": " + sqlite3_errmsg(raw));
    return nullptr;
  };

  // WAL lets a commit be one append and fsync; FULL makes that fsync happen at every commit,
  // which is what lets synchronize() promise durability rather than just ordering.
  Statement journal = prepare(raw, "PRAGMA journal_mode=WAL");
  if (!journal || sqlite3_step(journal.get()) != SQLITE_ROW) return fail("cannot read");
  const auto* mode = reinterpret_cast<const char*>(sqlite3_column_text(journal.get(), 0));
  if (!mode || std::string_view(mode) != "wal") {
    problems.push_back(prefix + "cannot switch " + path.string() + " to write-ahead logging");
    return nullptr;
  }
  journal.reset();
  if (!execute(raw, "PRAGMA synchronous=FULL") ||
      !execute(raw,
               "CREATE TABLE IF NOT EXISTS entries ("
               "key TEXT PRIMARY KEY NOT NULL, value BLOB NOT NULL)") ||
      !execute(raw,
               "CREATE TABLE IF NOT EXISTS array_elements ("
               "key TEXT NOT NULL, position INTEGER NOT NULL, value BLOB NOT NULL, "
               "PRIMARY KEY (key, position))")) {
    return fail("cannot prepare");
  }

  Values values;
  Statement select = prepare(raw, "SELECT key, value FROM entries");
  if (!select) return fail("cannot read");
  int step;
  while ((step = sqlite3_step(select.get())) == SQLITE_ROW) {
    const auto* keyText = reinterpret_cast<const char*>(sqlite3_column_text(select.get(), 0));
    std::string key(keyText ? keyText : "",
                    static_cast<size_t>(sqlite3_column_bytes(select.get(), 0)));
    const auto* blob = static_cast<const uint8_t*>(sqlite3_column_blob(select.get(), 1));
    const auto size = static_cast<size_t>(sqlite3_column_bytes(select.get(), 1));
    auto value = decodePlistValue(std::span<const uint8_t>(blob, blob ? size : 0));
    if (!value) {
      // One damaged row should not cost the rest of the suite.
      problems.push_back(prefix + "skipping unreadable value for key " + inQuotes(key));
      continue;
    }
    values.emplace(std::move(key), std::make_shared<const PlistValue>(std::move(*value)));
  }
  if (step != SQLITE_DONE) return fail("cannot read");
  select.reset();

  StoredArrays arrays;
  if (!loadArrays(raw, prefix, values, arrays, problems)) return fail("cannot read");

  Statements statements{
      prepare(raw, "INSERT OR REPLACE INTO entries (key, value) VALUES (?1, ?2)"),
      prepare(raw, "DELETE FROM entries WHERE key = ?1"),
      prepare(raw, "INSERT INTO array_elements (key, position, value) VALUES (?1, ?2, ?3)"),
      prepare(raw, "DELETE FROM array_elements WHERE key = ?1 AND position = ?2"),
      prepare(raw, "DELETE FROM array_elements WHERE key = ?1"),
  };
  if (!statements.upsert || !statements.erase || !statements.insertElement ||
      !statements.eraseElement || !statements.eraseElements) {
    return fail("cannot prepare");
  }

  return std::shared_ptr<SqliteKeyValueStore>(
      new SqliteKeyValueStore(suiteName, std::move(sink), std::move(db), std::move(statements),
                              std::move(values), std::move(arrays)));
}

bool SqliteKeyValueStore::loadArrays(sqlite3* db, const std::string& prefix, Values& values,
                                     StoredArrays& arrays, std::vector<std::string>& problems) {
  Statement select =
      prepare(db, "SELECT key, position, value FROM array_elements ORDER BY key, position");
  if (!select) return false;
  std::optional<std::string> key;
  PlistArray elements;
  StoredArray stored;
  auto finishKey = [&] {
    if (!key) return;
    stored.value = std::make_shared<const PlistValue>(std::move(elements));
    // The rows win over a stale single-row value under the same key; the next write of the
    // key removes whichever is out of date. A key whose every row is unreadable reads as
    // absent, like an unreadable single-row value.
    if (!stored.positions.empty()) {
      values.insert_or_assign(*key, stored.value);
    } else {
      values.erase(*key);
    }
    arrays.insert_or_assign(*key, std::move(stored));
    elements = {};
    stored = {};
  };
  int step;
  while ((step = sqlite3_step(select.get())) == SQLITE_ROW) {
    const auto* keyText = reinterpret_cast<const char*>(sqlite3_column_text(select.get(), 0));
    std::string rowKey(keyText ? keyText : "",
                       static_cast<size_t>(sqlite3_column_bytes(select.get(), 0)));
    if (!key || *key != rowKey) {
      finishKey();
      key = std::move(rowKey);
    }
    const int64_t position = sqlite3_column_int64(select.get(), 1);
    const auto* blob = static_cast<const uint8_t*>(sqlite3_column_blob(select.get(), 2));
    const auto size = static_cast<size_t>(sqlite3_column_bytes(select.get(), 2));
    auto element = decodePlistArrayElement(std::span<const uint8_t>(blob, blob ? size : 0));
    if (!element) {
      // The other elements of a queue are still worth keeping.
      problems.push_back(prefix + "skipping unreadable element at position " +
                         std::to_string(position) + " of key " + inQuotes(*key));
      stored.unreadablePositions.push_back(position);
      continue;
    }
    elements.push_back(std::move(*element));
    stored.positions.push_back(position);
  }
  finishKey();
  return step == SQLITE_DONE;
}

class SqliteKeyValueStoreProvider final : public KeyValueStoreProvider {
 public:
  SqliteKeyValueStoreProvider(std::string directory, KeyValueStoreErrorSink sink)
      : directory_(std::move(directory)), sink_(std::move(sink)) {}

  std::shared_ptr<KeyValueStore> openSuite(std::string_view suiteName) override {
    std::vector<std::string> problems;
    std::shared_ptr<KeyValueStore> store;
    try {
      store = openLocked(suiteName, problems);
    } catch (const std::exception& e) {
      // Out of memory or out of threads: callers were promised null, not an exception.
      problems.push_back("suite " + inQuotes(suiteName) + ": " + e.what());
    }
    // Reported after the provider lock is released, so a sink may call back in.
    if (sink_) {
      for (const std::string& problem : problems) sink_(problem);
    }
    return store;
  }

 private:
  std::shared_ptr<KeyValueStore> openLocked(std::string_view suiteName,
                                            std::vector<std::string>& problems) {
    std::lock_guard<std::mutex> guard(mutex_);
    // Suites stay open for the provider's lifetime: two live stores over one file would each
    // hold their own copy in memory and overwrite each other.
    if (auto it = suites_.find(suiteName); it != suites_.end()) return it->second;

    const std::string name(suiteName);
    if (!isUsableSuiteName(name)) {
      problems.push_back("suite " + inQuotes(name) + ": not usable as a file name");
      return nullptr;
    }
    if (directory_.empty()) {
      problems.push_back("suite " + inQuotes(name) + ": no directory to keep it in");
      return nullptr;
    }
    std::error_code error;
    std::filesystem::create_directories(directory_, error);
    if (error) {
      problems.push_back("suite " + inQuotes(name) + ": cannot create directory " +
                         directory_.string() + ": " + error.message());
      return nullptr;
    }
    auto store = SqliteKeyValueStore::open(directory_ / (name + ".sqlite"), name, sink_, problems);
    if (!store) return nullptr;
    suites_.emplace(name, store);
    return store;
  }

  const std::filesystem::path directory_;
  const KeyValueStoreErrorSink sink_;
  std::mutex mutex_;
  std::map<std::string, std::shared_ptr<KeyValueStore>, std::less<>> suites_;
};

}  // namespace

std::shared_ptr<KeyValueStoreProvider> makeSqliteKeyValueStoreProvider(
    std::string directory, KeyValueStoreErrorSink errorSink) {
  return std::make_shared<SqliteKeyValueStoreProvider>(std::move(directory), std::move(errorSink));
}

std::shared_ptr<KeyValueStoreProvider> makeSqliteKeyValueStoreProvider(std::string directory) {
  return makeSqliteKeyValueStoreProvider(std::move(directory), writeToStandardError);
}

}  // namespace orvane
