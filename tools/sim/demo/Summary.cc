#include "Summary.h"

#include <algorithm>
#include <cstdio>
#include <set>

namespace orvane::sim::demo {
namespace {

bool isYes(const std::string& outcome) { return outcome.find("positive") != std::string::npos; }

FlowSummary& flowEntry(Summary& summary, const std::string& flow) {
  for (FlowSummary& entry : summary.flows) {
    if (entry.flow == flow) return entry;
  }
  summary.flows.push_back({});
  summary.flows.back().flow = flow;
  return summary.flows.back();
}

void add(FlowSummary& into, const FlowSummary& from) {
  into.contexts += from.contexts;
  into.upsells += from.upsells;
  into.forced += from.forced;
  into.blocked += from.blocked;
  into.forcedActs += from.forcedActs;
  into.byModel += from.byModel;
  into.answeredYes += from.answeredYes;
  into.answeredNo += from.answeredNo;
}

}  // namespace

std::string percent(double share) {
  char text[16];
  std::snprintf(text, sizeof text, "%.0f %%", share * 100);
  return text;
}

Summary summarize(const RunRecord& record) {
  Summary s;
  s.length = record.length;
  s.consentAt = record.consentAt;
  for (const std::string& flow : record.flowOrder) flowEntry(s, flow);
  for (const Decision& d : record.decisions) {
    FlowSummary& f = flowEntry(s, d.flow);
    if (f.method.empty()) f.method = d.method;
    ++f.contexts;
    f.upsells += d.upsell;
    f.forced += d.upsell && d.forced;
    f.blocked += d.blocked;
    f.forcedActs += d.forcedAct;
    f.byModel += d.decidedBy != "control";
  }
  for (const Outcome& o : record.outcomes) {
    FlowSummary& f = flowEntry(s, o.flow);
    (isYes(o.outcome) ? f.answeredYes : f.answeredNo)++;
  }
  s.all.flow = "all";
  for (const FlowSummary& f : s.flows) add(s.all, f);

  const std::set<std::string> queued(record.queuedLogIds.begin(), record.queuedLogIds.end());
  const std::set<std::string> waiting(record.waitingLogIds.begin(), record.waitingLogIds.end());
  std::set<std::string> uploaded;
  for (const Exchange& e : record.exchanges) {
    if (e.kind == Exchange::Kind::kModelDownload) ++s.modelDownloads;
    if (e.kind == Exchange::Kind::kErrorReport) ++s.errorReports;
    if (e.kind != Exchange::Kind::kUpload) continue;
    ++s.uploadAttempts;
    if (e.accepted()) {
      ++s.uploadsAccepted;
      uploaded.insert(e.logIds.begin(), e.logIds.end());
    } else {
      ++s.uploadsFailed;
    }
  }
  s.queued = queued.size();
  for (const std::string& id : queued) {
    if (uploaded.count(id)) {
      ++s.uploaded;
    } else if (waiting.count(id)) {
      ++s.waiting;
    } else {
      ++s.replaced;
    }
  }
  for (const std::string& id : uploaded) s.uploadedFromEarlierRuns += !queued.count(id);
  for (const std::string& id : waiting) s.waiting += !queued.count(id) && !uploaded.count(id);
  for (const QueuePoint& q : record.queue) s.longestBackoff = std::max(s.longestBackoff, q.backoff);
  for (const ModelChange& change : record.modelChanges) {
    char at[32];
    std::snprintf(at, sizeof at, " at %.1f s", change.t);
    s.modelsApplied.push_back(change.generation + at);
  }
  s.goldenBids = record.goldenBids.size();
  for (const GoldenBid& bid : record.goldenBids) s.goldenValuesPerBid += bid.values;
  if (s.goldenBids) s.goldenValuesPerBid /= s.goldenBids;
  s.sdkErrorLines = record.sdkErrorLines;
  s.serviceStoredEvents = record.serviceStoredEvents;
  return s;
}

void printSummary(std::ostream& out, const Summary& s) {
  char line[200];
  std::snprintf(line, sizeof line, "Summary of %.0f s\n", s.length);
  out << line;
  std::snprintf(line, sizeof line, "  %-24s %-15s %8s %7s %7s %8s %7s\n", "flow", "method",
                "contexts", "upsell", "forced", "blocked", "forced");
  out << line;
  std::snprintf(line, sizeof line, "  %-24s %-15s %8s %7s %7s %8s %7s\n", "", "", "", "", "",
                "(timing)", "act");
  out << line;
  auto row = [&](const FlowSummary& f) {
    std::snprintf(line, sizeof line, "  %-24s %-15s %8zu %7s %7s %8zu %7zu\n", f.flow.c_str(),
                  f.method.c_str(), f.contexts, percent(f.upsellRate()).c_str(),
                  percent(f.forcedRate()).c_str(), f.blocked, f.forcedActs);
    out << line;
  };
  for (const FlowSummary& f : s.flows) row(f);
  row(s.all);

  if (s.consentAt) {
    std::snprintf(line, sizeof line, "  consent           granted at %.1f s: collection started\n",
                  *s.consentAt);
    out << line;
  }
  out << "  user answers      " << s.all.answeredYes << " yes, " << s.all.answeredNo << " no\n";
  out << "  records           " << s.queued << " queued: " << s.uploaded << " uploaded, "
      << s.waiting << " still waiting, " << s.replaced << " replaced by their outcome\n";
  if (s.uploadedFromEarlierRuns) {
    out << "                    and " << s.uploadedFromEarlierRuns
        << " uploaded from an earlier run\n";
  }
  std::snprintf(line, sizeof line,
                "%zu attempts: %zu accepted, %zu failed; longest back-off %.1f s", s.uploadAttempts,
                s.uploadsAccepted, s.uploadsFailed, s.longestBackoff);
  out << "  uploads           " << line << "\n";
  out << "  models applied    ";
  if (s.modelsApplied.empty()) out << "none";
  for (size_t i = 0; i < s.modelsApplied.size(); ++i) out << (i ? ", " : "") << s.modelsApplied[i];
  out << " (" << s.modelDownloads << " model download" << (s.modelDownloads == 1 ? "" : "s")
      << ")\n";
  std::snprintf(line, sizeof line, "%zu bids, %.0f values each on average", s.goldenBids,
                s.goldenValuesPerBid);
  out << "  golden signals    " << line << "\n";
  out << "  errors reported   " << s.errorReports << " (SDK error lines: " << s.sdkErrorLines
      << ")\n";
  if (s.serviceStoredEvents) {
    out << "  service stored    " << *s.serviceStoredEvents << " events\n";
  }
}

}  // namespace orvane::sim::demo
