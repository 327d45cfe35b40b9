#include "Storage.h"

#include <chrono>
#include <cstdio>
#include <ctime>
#include <stdexcept>

namespace devservice {
namespace {

using nlohmann::json;

constexpr const char* kSchema = R"(
PRAGMA journal_mode = WAL;
CREATE TABLE IF NOT EXISTS uploads (
  request_number INTEGER PRIMARY KEY AUTOINCREMENT,
  received_at TEXT NOT NULL,
  installation_uuid TEXT, bundle_id TEXT, sdk_version TEXT, platform TEXT,
  last_ota_update INTEGER,
  event_count INTEGER NOT NULL,
  answered INTEGER,     -- NULL: the connection was broken without an answer
  problem TEXT,         -- why the body was not the expected JSON
  envelope TEXT,        -- the body without its events (the whole body when unreadable)
  arm TEXT              -- which file answered the installation: payload or control
);
CREATE TABLE IF NOT EXISTS events (
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  request_number INTEGER NOT NULL REFERENCES uploads(request_number),
  received_at TEXT NOT NULL,
  installation_uuid TEXT,
  log_id TEXT, outcome, flow TEXT,
  event TEXT NOT NULL
);
CREATE INDEX IF NOT EXISTS events_log_id ON events(log_id);
CREATE TABLE IF NOT EXISTS error_reports (
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  received_at TEXT NOT NULL,
  installation_uuid TEXT, message TEXT, severity TEXT,
  body TEXT NOT NULL
);
)";

// UTC with milliseconds, e.g. 2024-06-01T12:00:00.123Z.
std::string nowText() {
  const auto now = std::chrono::system_clock::now();
  const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
  const auto millis =
      std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  char text[32];
  const size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
  std::snprintf(text + length, sizeof text - length, ".%03dZ", static_cast<int>(millis));
  return text;
}

// A prepared statement that finalises itself; bind() takes JSON so absent keys become NULL.
class Statement {
 public:
  Statement(sqlite3* db, const char* sql) : db_(db) {
    if (sqlite3_prepare_v2(db, sql, -1, &stmt_, nullptr) != SQLITE_OK)
      throw std::runtime_error(sqlite3_errmsg(db));
  }
  ~Statement() { sqlite3_finalize(stmt_); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  Statement& bind(int index, const json& value) {
    if (value.is_null()) {
      sqlite3_bind_null(stmt_, index);
    } else if (value.is_string()) {
      const auto& text = value.get_ref<const std::string&>();
      sqlite3_bind_text(stmt_, index, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
    } else if (value.is_number_integer() || value.is_boolean()) {
      sqlite3_bind_int64(stmt_, index, value.get<int64_t>());
    } else if (value.is_number()) {
      sqlite3_bind_double(stmt_, index, value.get<double>());
    } else {
      bind(index, json(value.dump()));
    }
    return *this;
  }
  bool step() {
    const int rc = sqlite3_step(stmt_);
    if (rc != SQLITE_ROW && rc != SQLITE_DONE) throw std::runtime_error(sqlite3_errmsg(db_));
    return rc == SQLITE_ROW;
  }
  void reset() {
    sqlite3_reset(stmt_);
    sqlite3_clear_bindings(stmt_);
  }
  // The current row as an object keyed by column name.
  json row() const {
    json out = json::object();
    for (int i = 0; i < sqlite3_column_count(stmt_); ++i) {
      json& field = out[sqlite3_column_name(stmt_, i)];
      switch (sqlite3_column_type(stmt_, i)) {
        case SQLITE_INTEGER:
          field = sqlite3_column_int64(stmt_, i);
          break;
        case SQLITE_FLOAT:
          field = sqlite3_column_double(stmt_, i);
          break;
        case SQLITE_NULL:
          field = nullptr;
          break;
        default:
          field = reinterpret_cast<const char*>(sqlite3_column_text(stmt_, i));
      }
    }
    return out;
  }
  json rows() {
    json out = json::array();
    while (step()) out.push_back(row());
    return out;
  }

 private:
  sqlite3* db_;
  sqlite3_stmt* stmt_ = nullptr;
};

json valueAt(const json& object, const char* key) {
  if (!object.is_object()) return nullptr;
  auto it = object.find(key);
  return it == object.end() ? json() : *it;
}

// Stored bodies are JSON text; the listing shows them as JSON again.
void parseField(json& row, const char* key) {
  if (!row[key].is_string()) return;
  json parsed = json::parse(row[key].get<std::string>(), nullptr, false);
  if (!parsed.is_discarded()) row[key] = std::move(parsed);
}

}  // namespace

Storage::Storage(const std::string& path) {
  if (sqlite3_open(path.c_str(), &db_) != SQLITE_OK) {
    const std::string message = sqlite3_errmsg(db_);
    sqlite3_close(db_);
    throw std::runtime_error("cannot open " + path + ": " + message);
  }
  exec(kSchema);
  // Files written before uploads had an arm keep their rows; those rows have none.
  if (!Statement(db_, "SELECT 1 FROM pragma_table_info('uploads') WHERE name = 'arm'").step()) {
    exec("ALTER TABLE uploads ADD COLUMN arm TEXT");
  }
}

Storage::~Storage() { sqlite3_close(db_); }

void Storage::exec(const char* sql) {
  char* error = nullptr;
  if (sqlite3_exec(db_, sql, nullptr, nullptr, &error) != SQLITE_OK) {
    const std::string message = error ? error : "unknown error";
    sqlite3_free(error);
    throw std::runtime_error(message);
  }
}

int64_t Storage::addUpload(const std::string& body, std::optional<int> answered,
                           const std::string& arm) {
  json request = json::parse(body, nullptr, false);
  json events = json::array();
  json problem;
  json envelope = body;
  if (!request.is_object()) {
    problem = "body is not a JSON object";
  } else {
    if (request.contains("events") && request["events"].is_array()) {
      events = std::move(request["events"]);
    } else {
      problem = "no \"events\" array";
    }
    request.erase("events");
    envelope = request.dump();
  }
  const json uuid = valueAt(request, "installation_uuid");
  const std::string received = nowText();

  std::lock_guard<std::mutex> guard(mutex_);
  exec("BEGIN");
  try {
    Statement upload(db_,
                     "INSERT INTO uploads (received_at, installation_uuid, bundle_id, sdk_version,"
                     " platform, last_ota_update, event_count, answered, problem, envelope, arm)"
                     " VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)");
    upload.bind(1, received)
        .bind(2, uuid)
        .bind(3, valueAt(request, "bundle_id"))
        .bind(4, valueAt(request, "sdk_version"))
        .bind(5, valueAt(request, "platform"))
        .bind(6, valueAt(request, "last_ota_update"))
        .bind(7, events.size())
        .bind(8, answered ? json(*answered) : json())
        .bind(9, problem)
        .bind(10, envelope)
        .bind(11, arm)
        .step();
    const int64_t number = sqlite3_last_insert_rowid(db_);
    Statement event(db_,
                    "INSERT INTO events (request_number, received_at, installation_uuid, log_id,"
                    " outcome, flow, event) VALUES (?, ?, ?, ?, ?, ?, ?)");
    for (const json& record : events) {
      event.bind(1, number)
          .bind(2, received)
          .bind(3, uuid)
          .bind(4, valueAt(record, "ctx_8"))
          .bind(5, valueAt(record, "ctx_3"))
          .bind(6, valueAt(record, "ctx_20"))
          .bind(7, record.dump())
          .step();
      event.reset();
    }
    exec("COMMIT");
    return number;
  } catch (...) {
    exec("ROLLBACK");
    throw;
  }
}

int64_t Storage::addErrorReport(const std::string& body) {
  const json report = json::parse(body, nullptr, false);
  std::lock_guard<std::mutex> guard(mutex_);
  Statement insert(db_,
                   "INSERT INTO error_reports (received_at, installation_uuid, message, severity,"
                   " body) VALUES (?, ?, ?, ?, ?)");
  insert.bind(1, nowText())
      .bind(2, valueAt(report, "installation_uuid"))
      .bind(3, valueAt(report, "message"))
      .bind(4, valueAt(report, "severity"))
      .bind(5, body)
      .step();
  return sqlite3_last_insert_rowid(db_);
}

json Storage::listing() {
  std::lock_guard<std::mutex> guard(mutex_);
  json out;
  out["uploads"] = Statement(db_, "SELECT * FROM uploads ORDER BY request_number").rows();
  out["events"] = Statement(db_, "SELECT * FROM events ORDER BY id").rows();
  out["error_reports"] = Statement(db_, "SELECT * FROM error_reports ORDER BY id").rows();
  for (json& row : out["uploads"]) parseField(row, "envelope");
  for (json& row : out["events"]) parseField(row, "event");
  for (json& row : out["error_reports"]) parseField(row, "body");

  json duplicates = json::object();
  Statement repeated(db_,
                     "SELECT log_id, COUNT(*) FROM events WHERE log_id IS NOT NULL"
                     " GROUP BY log_id HAVING COUNT(*) > 1 ORDER BY log_id");
  while (repeated.step()) {
    const json row = repeated.row();
    const json& id = row["log_id"];
    duplicates[id.is_string() ? id.get<std::string>() : id.dump()] = row["COUNT(*)"];
  }
  out["duplicates"] = std::move(duplicates);
  out["counts"] = {{"uploads", out["uploads"].size()},
                   {"events", out["events"].size()},
                   {"error_reports", out["error_reports"].size()}};
  out["arms"] = armCountsLocked();
  return out;
}

json Storage::armCounts() {
  std::lock_guard<std::mutex> guard(mutex_);
  return armCountsLocked();
}

json Storage::armCountsLocked() {
  json arms = json::object();
  Statement counts(db_,
                   "SELECT arm, COUNT(*) AS uploads, COUNT(DISTINCT installation_uuid) AS"
                   " installations, TOTAL(event_count) AS events FROM uploads WHERE arm IS NOT NULL"
                   " GROUP BY arm ORDER BY arm");
  while (counts.step()) {
    json row = counts.row();
    arms[row["arm"].get<std::string>()] = {
        {"uploads", row["uploads"]},
        {"installations", row["installations"]},
        {"events", static_cast<int64_t>(row["events"].get<double>())}};
  }
  return arms;
}

}  // namespace devservice
