#include "platform/linux/SqliteSalvage.h"

#include <functional>
#include <limits>
#include <optional>

#include "platform/linux/SqliteSupport.h"

namespace orvane {
namespace {

constexpr int64_t kLowestRowid = std::numeric_limits<int64_t>::min();
constexpr int64_t kHighestRowid = std::numeric_limits<int64_t>::max();
// Each run costs about 130 seeks to find its end; a file of pure noise stops here.
constexpr size_t kMostUnreadableRuns = 10000;

Bytes columnBytes(sqlite3_stmt* statement, int column) {
  const auto* data = static_cast<const uint8_t*>(sqlite3_column_blob(statement, column));
  const auto size = static_cast<size_t>(sqlite3_column_bytes(statement, column));
  return data ? Bytes(data, data + size) : Bytes();
}

std::string columnText(sqlite3_stmt* statement, int column) {
  const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement, column));
  return text ? std::string(text, static_cast<size_t>(sqlite3_column_bytes(statement, column)))
              : std::string();
}

// One table read in rowid order from a given rowid on. Its statement selects the rowid first.
class RowidWalk {
 public:
  using TakeRow = std::function<void(sqlite3_stmt*)>;

  RowidWalk(sqlite3* db, const char* sql) : select_(prepareStatement(db, sql)) {}
  bool usable() const { return select_ != nullptr; }

  // Reads every row from `from` on. Answers the rowid of the last row read, if any, and whether
  // the reading reached the end of the table.
  std::pair<std::optional<int64_t>, bool> readFrom(int64_t from, const TakeRow& take) {
    sqlite3_stmt* statement = select_.get();
    sqlite3_bind_int64(statement, 1, from);
    std::optional<int64_t> last;
    int rc;
    while ((rc = sqlite3_step(statement)) == SQLITE_ROW) {
      last = sqlite3_column_int64(statement, 0);
      take(statement);
    }
    sqlite3_reset(statement);
    return {last, rc == SQLITE_DONE};
  }

  // The smallest rowid above `failed` that reads again, none when nothing above it does.
  // Unreadable rows sit together on the bad pages, so whether a read from a rowid fails is
  // false beyond the bad run and true within it: double the step until a read succeeds, then
  // bisect back.
  std::optional<int64_t> nextReadableAfter(int64_t failed) {
    int64_t bad = failed;
    int64_t good = 0;
    for (uint64_t stride = 1;; stride = stride < (uint64_t{1} << 62) ? stride * 2 : stride) {
      if (bad == kHighestRowid) return std::nullopt;
      const uint64_t room = uint64_t(kHighestRowid) - uint64_t(bad);
      const int64_t probe = stride >= room ? kHighestRowid : bad + int64_t(stride);
      if (readsAt(probe)) {
        good = probe;
        break;
      }
      bad = probe;
    }
    while (uint64_t(good) - uint64_t(bad) > 1) {
      const int64_t middle = bad + int64_t((uint64_t(good) - uint64_t(bad)) / 2);
      (readsAt(middle) ? good : bad) = middle;
    }
    return good;
  }

 private:
  bool readsAt(int64_t rowid) {
    sqlite3_stmt* statement = select_.get();
    sqlite3_bind_int64(statement, 1, rowid);
    const int rc = sqlite3_step(statement);
    sqlite3_reset(statement);
    return rc == SQLITE_ROW || rc == SQLITE_DONE;
  }

  Statement select_;
};

// Every readable row of one table; false when the table cannot be read at all.
bool salvageTable(sqlite3* db, const char* sql, const RowidWalk::TakeRow& take,
                  size_t& unreadableRuns) {
  RowidWalk walk(db, sql);
  // A table an older version never made is plain SQLITE_ERROR; damage says so.
  if (!walk.usable()) return !isDamageCode(sqlite3_extended_errcode(db));
  int64_t from = kLowestRowid;
  for (size_t runs = 0;; ++runs) {
    const auto [last, reachedEnd] = walk.readFrom(from, take);
    if (reachedEnd) return true;
    ++unreadableRuns;
    if (last && *last == kHighestRowid) return true;
    const int64_t failed = last ? *last + 1 : from;
    const std::optional<int64_t> next =
        runs < kMostUnreadableRuns ? walk.nextReadableAfter(failed) : std::nullopt;
    if (!next) return true;
    from = *next;
  }
}

}  // namespace

SalvagedRows salvageSuiteRows(const std::filesystem::path& file, const char* vfs) {
  SalvagedRows rows;
  sqlite3* raw = nullptr;
  const int rc =
      sqlite3_open_v2(file.c_str(), &raw, SQLITE_OPEN_READONLY | SQLITE_OPEN_NOMUTEX, vfs);
  Database db(raw);
  if (rc != SQLITE_OK) {
    rows.unreadableTables = 2;
    return rows;
  }
  // A truncated file claims more pages than it has; with a writable schema SQLite reads the
  // pages that are there instead of refusing the file. Checking cell sizes turns more damage
  // into errors rather than into rows of garbage.
  executeStatement(raw, "PRAGMA writable_schema=ON");
  executeStatement(raw, "PRAGMA cell_size_check=ON");

  const bool entriesRead = salvageTable(
      raw, "SELECT rowid, key, value FROM entries WHERE rowid >= ?1 ORDER BY rowid",
      [&](sqlite3_stmt* row) {
        rows.entries.push_back({columnText(row, 1), columnBytes(row, 2)});
      },
      rows.unreadableRuns);
  const bool elementsRead = salvageTable(
      raw,
      "SELECT rowid, key, position, value FROM array_elements WHERE rowid >= ?1 ORDER BY rowid",
      [&](sqlite3_stmt* row) {
        rows.elements.push_back(
            {columnText(row, 1), sqlite3_column_int64(row, 2), columnBytes(row, 3)});
      },
      rows.unreadableRuns);
  rows.unreadableTables = size_t{!entriesRead} + size_t{!elementsRead};
  return rows;
}

}  // namespace orvane
