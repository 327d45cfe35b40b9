#include "platform/linux/SqliteSuiteTuning.h"

#include <string>
#include <string_view>

#include "platform/linux/SqliteSupport.h"

namespace orvane {
namespace {

// The single text answer of a pragma, or empty.
std::string pragmaText(sqlite3* db, const char* sql) {
  Statement statement = prepareStatement(db, sql);
  if (!statement || sqlite3_step(statement.get()) != SQLITE_ROW) return {};
  const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement.get(), 0));
  return text ? text : "";
}

}  // namespace

void chooseSuitePageSize(sqlite3* db) {
  const std::string sql = "PRAGMA page_size=" + std::to_string(kSuitePageSize);
  executeStatement(db, sql.c_str());
}

int suitePageSize(sqlite3* db) {
  Statement statement = prepareStatement(db, "PRAGMA page_size");
  if (!statement || sqlite3_step(statement.get()) != SQLITE_ROW) return 0;
  return sqlite3_column_int(statement.get(), 0);
}

bool shrinkSuitePages(sqlite3* db) {
  if (suitePageSize(db) == kSuitePageSize) return true;
  // The page size of a file in write-ahead-log mode is fixed; leaving the mode needs the only
  // connection to the file, so it fails at once (and harmlessly) while another holds it.
  if (pragmaText(db, "PRAGMA journal_mode=DELETE") == "delete") {
    chooseSuitePageSize(db);
    // VACUUM rewrites the file in one transaction under the rollback journal: a kill midway
    // leaves the old file, which the next open finds intact.
    executeStatement(db, "VACUUM");
  }
  return pragmaText(db, "PRAGMA journal_mode=WAL") == "wal";
}

int tuneSuiteWriting(sqlite3* db) {
  const std::string checkpoint =
      "PRAGMA wal_autocheckpoint=" + std::to_string(kSuiteCheckpointPages);
  const std::string limit = "PRAGMA journal_size_limit=" + std::to_string(kSuiteLogSizeLimit);
  int rc = executeStatement(db, "PRAGMA synchronous=NORMAL");
  if (rc == SQLITE_OK) rc = executeStatement(db, checkpoint.c_str());
  if (rc == SQLITE_OK) rc = executeStatement(db, limit.c_str());
  return rc;
}

}  // namespace orvane
