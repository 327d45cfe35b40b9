#include "platform/linux/SqliteSuiteRepair.h"

#include <span>
#include <system_error>

#include "platform/linux/PlistCodec.h"
#include "platform/linux/SqliteSalvage.h"
#include "platform/linux/SqliteSuiteLoad.h"
#include "platform/linux/SqliteSuiteTuning.h"
#include "platform/linux/SqliteSupport.h"
#include "platform/linux/StoredElementCodec.h"

namespace orvane {
namespace {

namespace fs = std::filesystem;

struct SalvageWrite {
  int code = SQLITE_OK;
  std::string error;
  size_t saved = 0;
  size_t undecodable = 0;
};

// Writes the salvaged rows whose values still decode into a new file at `target`, in one
// transaction, so the file either holds all of them or is not used.
SalvageWrite writeSalvagedFile(const fs::path& target, const SalvagedRows& rows, const char* vfs) {
  SalvageWrite result;
  sqlite3* raw = nullptr;
  const int opened = sqlite3_open_v2(
      target.c_str(), &raw, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, vfs);
  Database db(raw);
  auto failed = [&](int code) {
    result.code = code;
    result.error = raw ? sqlite3_errmsg(raw) : sqlite3_errstr(code);
    return result;
  };
  if (opened != SQLITE_OK) return failed(opened);
  sqlite3_extended_result_codes(raw, 1);
  chooseSuitePageSize(raw);  // so the first open of the rebuilt file need not rebuild it again
  int rc = executeStatement(raw, "BEGIN");
  if (rc == SQLITE_OK) rc = executeStatement(raw, kCreateEntriesTable);
  if (rc == SQLITE_OK) rc = executeStatement(raw, kCreateArrayElementsTable);
  if (rc != SQLITE_OK) return failed(rc);
  Statement entry =
      prepareStatement(raw, "INSERT OR REPLACE INTO entries (key, value) VALUES (?1, ?2)");
  Statement element = prepareStatement(
      raw, "INSERT OR REPLACE INTO array_elements (key, position, value) VALUES (?1, ?2, ?3)");
  if (!entry || !element) return failed(sqlite3_extended_errcode(raw));

  auto insert = [&](sqlite3_stmt* statement, const std::string& key,
                    std::optional<int64_t> position, const Bytes& value) {
    sqlite3_bind_text64(statement, 1, key.data(), key.size(), SQLITE_STATIC, SQLITE_UTF8);
    if (position) sqlite3_bind_int64(statement, 2, *position);
    sqlite3_bind_blob64(statement, position ? 3 : 2, value.data(), value.size(), SQLITE_STATIC);
    const int stepped = sqlite3_step(statement);
    sqlite3_reset(statement);
    return stepped == SQLITE_DONE;
  };
  // A value that no longer decodes would only be skipped at every open until its key is
  // written again; it is counted as lost now instead.
  for (const SalvagedEntry& row : rows.entries) {
    if (!decodePlistValue(std::span<const uint8_t>(row.value))) {
      ++result.undecodable;
      continue;
    }
    if (!insert(entry.get(), row.key, std::nullopt, row.value)) {
      return failed(sqlite3_extended_errcode(raw));
    }
    ++result.saved;
  }
  for (const SalvagedElement& row : rows.elements) {
    if (!decodeStoredElement(std::span<const uint8_t>(row.value))) {
      ++result.undecodable;
      continue;
    }
    if (!insert(element.get(), row.key, row.position, row.value)) {
      return failed(sqlite3_extended_errcode(raw));
    }
    ++result.saved;
  }
  entry.reset();
  element.reset();
  if ((rc = executeStatement(raw, "COMMIT")) != SQLITE_OK) return failed(rc);
  return result;
}

// Keeps the damaged file and its log as the newest damaged copy and puts `salvaged` in the
// file's place. The file stays at its name until the rename that replaces it, so no crash in
// between leaves the suite without a file.
std::error_code swapInSalvagedFile(const fs::path& file, const fs::path& salvaged) {
  const fs::path copy = damagedCopyPath(file);
  const fs::path copyLog = withSuffix(copy, "-wal");
  std::error_code error;
  for (const fs::path& old : {copy, copyLog, withSuffix(copy, "-shm")}) fs::remove(old, error);
  // An empty log (SQLite makes one when it reads a file in WAL mode) holds nothing to keep.
  const fs::path log = withSuffix(file, "-wal");
  if (fs::file_size(log, error) > 0 && !error) {
    fs::rename(log, copyLog, error);
    if (error) return error;
  } else {
    fs::remove(log, error);
  }
  fs::remove(withSuffix(file, "-shm"), error);
  fs::create_hard_link(file, copy, error);
  if (error) fs::rename(file, copy, error);  // a file system without hard links
  if (error) return error;
  fs::rename(salvaged, file, error);
  return error;
}

std::string plural(size_t count, const char* noun) {
  return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

}  // namespace

fs::path damagedCopyPath(const fs::path& file) { return withSuffix(file, ".damaged"); }

SuiteRepair repairDamagedSuite(const fs::path& file, const std::string& reportPrefix,
                               const std::string& damage, const char* vfs) {
  SuiteRepair repair;
  const SalvagedRows rows = salvageSuiteRows(file, vfs);
  const fs::path salvaged = withSuffix(file, ".salvaged");
  std::error_code ignored;
  fs::remove(salvaged, ignored);
  fs::remove(withSuffix(salvaged, "-journal"), ignored);

  const SalvageWrite written = writeSalvagedFile(salvaged, rows, vfs);
  std::error_code swapError;
  if (written.code == SQLITE_OK) swapError = swapInSalvagedFile(file, salvaged);
  if (written.code != SQLITE_OK || swapError) {
    fs::remove(salvaged, ignored);
    fs::remove(withSuffix(salvaged, "-journal"), ignored);
    repair.report =
        reportPrefix + "file " + file.string() + " is damaged (" + damage +
        ") and cannot be replaced: " + (swapError ? swapError.message() : written.error);
    return repair;
  }
  repair.replaced = true;
  repair.report = reportPrefix + "file " + file.string() + " was damaged (" + damage +
                  "); kept it as " + damagedCopyPath(file).string() + " and saved " +
                  plural(written.saved, "row") + " into a fresh file";
  const size_t unreadable = rows.unreadableRuns + rows.unreadableTables + written.undecodable;
  if (unreadable > 0) {
    repair.report += "; lost " + plural(rows.unreadableRuns, "run") + " of unreadable rows, " +
                     plural(rows.unreadableTables, "unreadable table") + ", " +
                     plural(written.undecodable, "undecodable value");
  }
  return repair;
}

}  // namespace orvane
