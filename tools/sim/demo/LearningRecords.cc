#include "LearningRecords.h"

#include <sqlite3.h>

#include <cmath>
#include <memory>
#include <set>
#include <vector>

#include <nlohmann/json.hpp>

namespace orvane::sim::demo {
namespace {

using nlohmann::json;

constexpr int kAnswerEventType = 2;

using Database = std::unique_ptr<sqlite3, decltype(&sqlite3_close)>;
using Statement = std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)>;

Database openReadOnly(const std::string& path, std::string* error) {
  sqlite3* db = nullptr;
  const int rc = sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr);
  Database owned(db, &sqlite3_close);
  if (rc != SQLITE_OK) {
    *error = "cannot open " + path + ": " + (db ? sqlite3_errmsg(db) : "out of memory");
    return Database(nullptr, &sqlite3_close);
  }
  return owned;
}

Statement prepare(sqlite3* db, const char* sql, std::string* error) {
  sqlite3_stmt* statement = nullptr;
  if (sqlite3_prepare_v2(db, sql, -1, &statement, nullptr) != SQLITE_OK) {
    *error = sqlite3_errmsg(db);
  }
  return Statement(statement, &sqlite3_finalize);
}

std::optional<int64_t> integerOf(const json& value) {
  if (value.is_number_integer()) return value.get<int64_t>();
  if (value.is_number_float()) {
    const double number = value.get<double>();
    if (std::isfinite(number) && number == std::floor(number)) return int64_t(number);
  }
  return std::nullopt;
}

std::string textOf(const json& record, const char* key) {
  const auto it = record.find(key);
  return it != record.end() && it->is_string() ? it->get<std::string>() : "";
}

std::optional<int64_t> integerAt(const json& record, const char* key) {
  const auto it = record.find(key);
  return it == record.end() ? std::nullopt : integerOf(*it);
}

struct Answer {
  int64_t request = 0;
  std::string arm;
  int64_t outcome = 0;
  bool shown = false;
  std::optional<int64_t> appliedVersion;
};

struct ContextAnswers {
  std::string flow;
  std::vector<Answer> answers;  // in the order received
};

}  // namespace

Interval wilson(const Tally& tally) {
  if (tally.shown <= 0) return {};
  constexpr double z = 1.959963984540054;
  const double n = double(tally.shown);
  const double p = double(tally.positive) / n;
  const double denominator = 1 + z * z / n;
  const double centre = (p + z * z / (2 * n)) / denominator;
  const double half = z * std::sqrt(p * (1 - p) / n + z * z / (4 * n * n)) / denominator;
  return {p, std::max(0.0, centre - half), std::min(1.0, centre + half)};
}

std::optional<int64_t> lastRequestNumber(const std::string& database, std::string* error) {
  Database db = openReadOnly(database, error);
  if (!db) return std::nullopt;
  Statement last = prepare(db.get(), "SELECT COALESCE(MAX(request_number), 0) FROM uploads", error);
  if (!last || sqlite3_step(last.get()) != SQLITE_ROW) {
    if (error->empty()) *error = sqlite3_errmsg(db.get());
    return std::nullopt;
  }
  return sqlite3_column_int64(last.get(), 0);
}

std::optional<LearningRecords> readLearningRecords(const std::string& database,
                                                   int64_t act1LastRequest, int64_t trainedVersion,
                                                   std::string* error) {
  Database db = openReadOnly(database, error);
  if (!db) return std::nullopt;
  LearningRecords out;

  // Per act: uploads, events and installations; per arm of act 2: installations.
  Statement acts = prepare(db.get(),
                           "SELECT request_number > ?1 AS act2, COUNT(*), TOTAL(event_count),"
                           " COUNT(DISTINCT installation_uuid) FROM uploads GROUP BY act2",
                           error);
  if (!acts) return std::nullopt;
  sqlite3_bind_int64(acts.get(), 1, act1LastRequest);
  while (sqlite3_step(acts.get()) == SQLITE_ROW) {
    ActCounts& act = sqlite3_column_int(acts.get(), 0) ? out.act2 : out.act1;
    act = {sqlite3_column_int64(acts.get(), 1), int64_t(sqlite3_column_double(acts.get(), 2)),
           sqlite3_column_int64(acts.get(), 3)};
  }
  Statement arms = prepare(db.get(),
                           "SELECT arm, COUNT(DISTINCT installation_uuid) FROM uploads"
                           " WHERE request_number > ?1 GROUP BY arm",
                           error);
  if (!arms) return std::nullopt;
  sqlite3_bind_int64(arms.get(), 1, act1LastRequest);
  while (sqlite3_step(arms.get()) == SQLITE_ROW) {
    const auto* arm = reinterpret_cast<const char*>(sqlite3_column_text(arms.get(), 0));
    const int64_t count = sqlite3_column_int64(arms.get(), 1);
    if (arm && std::string(arm) == "control") {
      out.controlInstallations += count;
    } else {
      out.modelInstallations += count;
    }
  }

  // Every answer, in the order received, grouped by context.
  Statement events = prepare(db.get(),
                             "SELECT events.request_number, uploads.arm, events.event FROM events"
                             " JOIN uploads USING (request_number) ORDER BY events.id",
                             error);
  if (!events) return std::nullopt;
  std::set<std::string> seenLogIds;
  std::map<std::string, ContextAnswers> contexts;
  std::vector<std::string> contextOrder;
  int rc;
  while ((rc = sqlite3_step(events.get())) == SQLITE_ROW) {
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(events.get(), 2));
    const json record = json::parse(text ? text : "", nullptr, /*allow_exceptions=*/false);
    if (!record.is_object()) continue;
    const std::string logId = textOf(record, "ctx_8");
    if (!logId.empty() && !seenLogIds.insert(logId).second) {
      ++out.duplicates;
      continue;
    }
    const auto eventType = integerAt(record, "ctx_23");
    const auto outcome = integerAt(record, "ctx_3");
    if (eventType != kAnswerEventType || !outcome || *outcome < -3 || *outcome > 4) continue;
    const std::string context = textOf(record, "ctx_29"), flow = textOf(record, "ctx_20");
    if (context.empty() || flow.empty()) continue;
    const auto* arm = reinterpret_cast<const char*>(sqlite3_column_text(events.get(), 1));
    const auto shown = record.find("ctx_12");
    auto [entry, added] = contexts.try_emplace(context);
    if (added) {
      entry->second.flow = flow;
      contextOrder.push_back(context);
    }
    entry->second.answers.push_back({sqlite3_column_int64(events.get(), 0), arm ? arm : "",
                                     *outcome, shown != record.end() && *shown == true,
                                     integerAt(record, "ctx_402")});
  }
  if (rc != SQLITE_DONE) {
    *error = sqlite3_errmsg(db.get());
    return std::nullopt;
  }

  for (const std::string& id : contextOrder) {
    const ContextAnswers& context = contexts[id];
    const Answer& first = context.answers.front();
    bool positive = false, negative = false;
    for (const Answer& answer : context.answers) {
      positive |= answer.outcome > 0;
      negative |= answer.outcome < 0;
    }
    if ((!positive && !negative) || !first.shown) continue;
    FlowAcceptance& flow = out.flows[context.flow];
    auto add = [positive](Tally& tally) {
      ++tally.shown;
      tally.positive += positive;
    };
    if (first.request <= act1LastRequest) {
      add(flow.before);
    } else if (first.appliedVersion != trainedVersion) {
      ++flow.beforeUpdate;
    } else {
      add(flow.after);
      add(first.arm == "control" ? flow.control : flow.model);
    }
  }
  return out;
}

}  // namespace orvane::sim::demo
