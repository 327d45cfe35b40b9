#include "platform/linux/SqliteSupport.h"

#include <cstdio>

namespace orvane {

Statement prepareStatement(sqlite3* db, const char* sql) {
  sqlite3_stmt* statement = nullptr;
  if (sqlite3_prepare_v3(db, sql, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr) !=
      SQLITE_OK) {
    sqlite3_finalize(statement);
    return nullptr;
  }
  return Statement(statement);
}

int executeStatement(sqlite3* db, const char* sql) {
  const int rc = sqlite3_exec(db, sql, nullptr, nullptr, nullptr);
  return rc == SQLITE_OK ? SQLITE_OK : sqlite3_extended_errcode(db);
}

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

}  // namespace orvane
