#include "platform/linux/SqliteSuiteLoad.h"

#include <algorithm>
#include <span>
#include <string_view>
#include <utility>

#include "platform/linux/PlistCodec.h"
#include "platform/linux/SqliteSuiteTuning.h"

namespace orvane {

const char* const kCreateEntriesTable =
    "CREATE TABLE IF NOT EXISTS entries (key TEXT PRIMARY KEY NOT NULL, value BLOB NOT NULL)";
const char* const kCreateArrayElementsTable =
    "CREATE TABLE IF NOT EXISTS array_elements (key TEXT NOT NULL, position INTEGER NOT NULL, "
    "value BLOB NOT NULL, PRIMARY KEY (key, position))";

namespace {

std::string columnKey(sqlite3_stmt* statement, int column) {
  const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement, column));
  return std::string(text ? text : "",
                     static_cast<size_t>(sqlite3_column_bytes(statement, column)));
}

std::span<const uint8_t> columnBlob(sqlite3_stmt* statement, int column) {
  const auto* blob = static_cast<const uint8_t*>(sqlite3_column_blob(statement, column));
  const auto size = static_cast<size_t>(sqlite3_column_bytes(statement, column));
  return std::span<const uint8_t>(blob, blob ? size : 0);
}

}  // namespace

int checkSuiteStructure(sqlite3* db, std::string& finding) {
  Statement check = prepareStatement(db, "PRAGMA quick_check(1)");
  if (!check) return sqlite3_extended_errcode(db);
  const int rc = sqlite3_step(check.get());
  if (rc != SQLITE_ROW) return sqlite3_extended_errcode(db);
  const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(check.get(), 0));
  if (text && std::string_view(text) == "ok") return SQLITE_OK;
  finding = text ? text : "structure check failed";
  std::replace(finding.begin(), finding.end(), '\n', ' ');  // report lines stay one line
  return SQLITE_CORRUPT;
}

namespace {

// The single-row values. A step that fails answers its code.
int loadEntries(sqlite3* db, const std::string& prefix, SuiteValues& values,
                std::vector<std::string>& problems) {
  Statement select = prepareStatement(db, "SELECT key, value FROM entries");
  if (!select) return sqlite3_extended_errcode(db);
  int step;
  while ((step = sqlite3_step(select.get())) == SQLITE_ROW) {
    std::string key = columnKey(select.get(), 0);
    auto value = decodePlistValue(columnBlob(select.get(), 1));
    if (!value) {
      // One damaged row should not cost the rest of the suite.
      problems.push_back(prefix + "skipping unreadable value for key " + inQuotes(key));
      continue;
    }
    values.emplace(std::move(key), std::make_shared<const PlistValue>(std::move(*value)));
  }
  return step == SQLITE_DONE ? SQLITE_OK : sqlite3_extended_errcode(db);
}

// The keys of the arrays kept element by element, from the table's index alone.
int loadArrayKeys(sqlite3* db, std::vector<std::string>& keys) {
  Statement select = prepareStatement(db, "SELECT DISTINCT key FROM array_elements");
  if (!select) return sqlite3_extended_errcode(db);
  int step;
  while ((step = sqlite3_step(select.get())) == SQLITE_ROW) {
    keys.push_back(columnKey(select.get(), 0));
  }
  return step == SQLITE_DONE ? SQLITE_OK : sqlite3_extended_errcode(db);
}

}  // namespace

int readArrayRows(sqlite3* db, const std::string& reportPrefix, DeferredArrays& arrays) {
  Statement select = prepareStatement(
      db, "SELECT key, position, value FROM array_elements ORDER BY key, position");
  if (!select) return sqlite3_extended_errcode(db);
  std::optional<std::string> key;
  std::vector<DeferredStoredArray::Row> rows;
  auto finishKey = [&] {
    if (!key) return;
    arrays.insert_or_assign(
        *key, std::make_shared<DeferredStoredArray>(*key, reportPrefix, std::move(rows)));
    rows = {};
  };
  int step;
  while ((step = sqlite3_step(select.get())) == SQLITE_ROW) {
    std::string rowKey = columnKey(select.get(), 0);
    if (!key || *key != rowKey) {
      finishKey();
      key = std::move(rowKey);
    }
    const std::span<const uint8_t> blob = columnBlob(select.get(), 2);
    rows.push_back({sqlite3_column_int64(select.get(), 1), Bytes(blob.begin(), blob.end())});
  }
  finishKey();
  return step == SQLITE_DONE ? SQLITE_OK : sqlite3_extended_errcode(db);
}

SuiteLoad loadSuiteFile(const std::filesystem::path& file, const std::string& reportPrefix,
                        const char* vfs, std::chrono::milliseconds busyTimeout,
                        std::vector<std::string>& problems, SuiteLoadDepth depth) {
  SuiteLoad result;
  sqlite3* raw = nullptr;
  const int opened = sqlite3_open_v2(
      file.c_str(), &raw, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, vfs);
  Database db(raw);
  auto fail = [&](const char* what, int code, std::string detail = {}) {
    result.code = code;
    result.detail = !detail.empty() ? std::move(detail)
                    : raw           ? sqlite3_errmsg(raw)
                                    : sqlite3_errstr(code);
    result.error = reportPrefix + what + " " + file.string() + ": " + result.detail;
    return std::move(result);
  };
  if (opened != SQLITE_OK) return fail("cannot open", raw ? sqlite3_extended_errcode(raw) : opened);
  sqlite3_extended_result_codes(raw, 1);
  sqlite3_busy_timeout(raw, static_cast<int>(busyTimeout.count()));

  // WAL lets a commit be one append; SqliteSuiteTuning.h says what is flushed when.
  chooseSuitePageSize(raw);
  Statement journal = prepareStatement(raw, "PRAGMA journal_mode=WAL");
  if (!journal || sqlite3_step(journal.get()) != SQLITE_ROW) {
    return fail("cannot read", sqlite3_extended_errcode(raw));
  }
  const auto* mode = reinterpret_cast<const char*>(sqlite3_column_text(journal.get(), 0));
  if (!mode || std::string_view(mode) != "wal") {
    return fail("cannot switch to write-ahead logging", SQLITE_CANTOPEN,
                "journal mode stays " + std::string(mode ? mode : "unknown"));
  }
  journal.reset();
  // A file from before the page-size change is rebuilt, and only a sound one is, only when no
  // other connection would have to wait. Every other file is checked by its store's writer
  // before the first commit, off the opening thread (SqliteKeyValueStore.cc).
  if (suitePageSize(raw) != kSuitePageSize) {
    std::string finding;
    if (const int checked = checkSuiteStructure(raw, finding); checked != SQLITE_OK) {
      return fail("cannot read", checked, finding);
    }
    sqlite3_busy_timeout(raw, 0);
    if (!shrinkSuitePages(raw)) {
      return fail("cannot switch back to write-ahead logging", SQLITE_CANTOPEN,
                  "journal mode left by a page-size rebuild");
    }
    sqlite3_busy_timeout(raw, static_cast<int>(busyTimeout.count()));
  }
  int rc = executeStatement(raw, kCreateEntriesTable);
  if (rc == SQLITE_OK) rc = executeStatement(raw, kCreateArrayElementsTable);
  if (rc != SQLITE_OK) return fail("cannot prepare", rc);

  SuiteValues values;
  std::vector<std::string> arrayKeys;
  DeferredArrays arrays;
  if ((rc = loadEntries(raw, reportPrefix, values, problems)) != SQLITE_OK ||
      (rc = loadArrayKeys(raw, arrayKeys)) != SQLITE_OK ||
      (depth == SuiteLoadDepth::kFull &&
       (rc = readArrayRows(raw, reportPrefix, arrays)) != SQLITE_OK)) {
    return fail("cannot read", rc);
  }
  // The rows win over a stale single-row value under the same key; the next write of the key
  // removes whichever is out of date.
  for (const std::string& key : arrayKeys) values.erase(key);

  SuiteStatements statements;
  if (depth == SuiteLoadDepth::kFull) {
    if (const int prepared = prepareSuiteWriting(raw, statements); prepared != SQLITE_OK) {
      return fail("cannot prepare", prepared);
    }
  }
  sqlite3_busy_timeout(raw, kCommitBusyTimeoutMs);
  result.loaded =
      LoadedSuite{std::move(db),        std::move(statements),          std::move(values),
                  std::move(arrayKeys), depth == SuiteLoadDepth::kFull, std::move(arrays)};
  return result;
}

int prepareSuiteWriting(sqlite3* db, SuiteStatements& statements) {
  if (const int rc = tuneSuiteWriting(db); rc != SQLITE_OK) return rc;
  statements = SuiteStatements{
      prepareStatement(db, "INSERT OR REPLACE INTO entries (key, value) VALUES (?1, ?2)"),
      prepareStatement(db, "DELETE FROM entries WHERE key = ?1"),
      prepareStatement(db, "INSERT INTO array_elements (key, position, value) VALUES (?1, ?2, ?3)"),
      prepareStatement(db, "DELETE FROM array_elements WHERE key = ?1 AND position = ?2"),
      prepareStatement(db, "DELETE FROM array_elements WHERE key = ?1"),
  };
  if (!statements.upsert || !statements.erase || !statements.insertElement ||
      !statements.eraseElement || !statements.eraseElements) {
    const int rc = sqlite3_extended_errcode(db);
    statements = {};
    return rc == SQLITE_OK ? SQLITE_ERROR : rc;
  }
  return SQLITE_OK;
}

}  // namespace orvane
