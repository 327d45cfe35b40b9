#include "Report.h"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <set>

#include "Svg.h"

namespace orvane::sim::demo {
namespace {

constexpr double kWidth = 1100;
constexpr double kLeft = 170;
constexpr double kRight = 1080;

// ---- Decision marks -----------------------------------------------------------------------

enum class Mark { kUpsell, kForcedByChance, kForcedDue, kNoUpsell, kBlocked };

Mark markOf(const Decision& d) {
  if (d.blocked) return Mark::kBlocked;
  if (!d.upsell) return Mark::kNoUpsell;
  if (d.forcedAct) return Mark::kForcedDue;
  if (d.forced) return Mark::kForcedByChance;
  return Mark::kUpsell;
}

struct MarkStyle {
  Mark mark;
  const char* label;
  const char* color;
};
constexpr MarkStyle kMarks[] = {
    {Mark::kUpsell, "upsell", "#2e7d32"},
    {Mark::kForcedByChance, "upsell forced by chance", "#f57c00"},
    {Mark::kForcedDue, "upsell forced: flow due", "#8e24aa"},
    {Mark::kNoUpsell, "no upsell", "#9e9e9e"},
    {Mark::kBlocked, "blocked by timing", "#c62828"},
};

const MarkStyle& styleOf(Mark mark) {
  for (const MarkStyle& style : kMarks) {
    if (style.mark == mark) return style;
  }
  return kMarks[0];
}

std::string shape(Mark mark, double x, double y) {
  const std::string color = styleOf(mark).color;
  const std::string cx = number(x), cy = number(y);
  switch (mark) {
    case Mark::kUpsell:
    case Mark::kForcedByChance:
      return "<circle cx=\"" + cx + "\" cy=\"" + cy + "\" r=\"6\" fill=\"" + color + "\"/>";
    case Mark::kForcedDue:
      return "<polygon points=\"" + number(x) + "," + number(y - 7) + " " + number(x + 7) + "," +
             cy + " " + cx + "," + number(y + 7) + " " + number(x - 7) + "," + cy + "\" fill=\"" +
             color + "\"/>";
    case Mark::kNoUpsell:
      return "<circle cx=\"" + cx + "\" cy=\"" + cy + "\" r=\"5\" fill=\"#fff\" stroke=\"" + color +
             "\" stroke-width=\"2\"/>";
    case Mark::kBlocked:
      return "<path d=\"M" + number(x - 5) + " " + number(y - 5) + "L" + number(x + 5) + " " +
             number(y + 5) + "M" + number(x - 5) + " " + number(y + 5) + "L" + number(x + 5) + " " +
             number(y - 5) + "\" stroke=\"" + color + "\" stroke-width=\"2.5\"/>";
  }
  return "";
}

std::string titled(const std::string& title, const std::string& body) {
  return "<g><title>" + escape(title) + "</title>" + body + "</g>";
}

std::string text(double x, double y, const std::string& content, const std::string& cls,
                 const char* anchor = "start") {
  return "<text class=\"" + cls + "\" x=\"" + number(x) + "\" y=\"" + number(y) +
         "\" text-anchor=\"" + anchor + "\">" + escape(content) + "</text>";
}

std::string line(double x1, double y1, double x2, double y2, const std::string& cls) {
  return "<line class=\"" + cls + "\" x1=\"" + number(x1) + "\" y1=\"" + number(y1) + "\" x2=\"" +
         number(x2) + "\" y2=\"" + number(y2) + "\"/>";
}

std::string svgOpen(const std::string& id, double height, const std::string& label) {
  return "<svg id=\"" + id + "\" viewBox=\"0 0 " + number(kWidth) + " " + number(height) +
         "\" width=\"" + number(kWidth) + "\" height=\"" + number(height) +
         "\" role=\"img\" aria-label=\"" + escape(label) + "\">";
}

std::string decisionTitle(const Decision& d) {
  std::string title = d.flow + " (" + d.method + ") at " + number(d.t) +
                      " s: " + styleOf(markOf(d)).label + "; decided by " + d.decidedBy;
  if (d.probability) title += ", model probability " + number(*d.probability, 2);
  if (d.waited >= 0.05) title += "; answered after " + number(d.waited) + " s";
  return title;
}

// Bands every time chart shares: the app in the background, hatched.
std::string inactiveBands(const RunRecord& r, const Frame& f, double top, double bottom) {
  std::string svg;
  for (const Span& span : r.inactive) {
    svg += f.band(span.start, span.end, "url(#inactive)", top, bottom);
    svg += text((f.x(span.start) + f.x(span.end)) / 2, top + 12, "app in background", "note",
                "middle");
  }
  return svg;
}

std::string legendItem(double& x, double y, const std::string& swatch, const std::string& label) {
  std::string svg = swatch + text(x + 12, y + 4, label, "legend");
  x += 30 + 7 * label.size();
  return svg;
}

std::string goldenMark(double x, double y) {
  return "<rect x=\"" + number(x - 3) + "\" y=\"" + number(y - 3) +
         "\" width=\"6\" height=\"6\" fill=\"#c9a000\"/>";
}

// ---- Charts --------------------------------------------------------------------------------

std::string motionChart(const RunRecord& r) {
  const size_t lanes = std::max<size_t>(r.flowOrder.size(), 1);
  const double laneHeight = 38;
  const double lanesTop = 250;
  const double lanesBottom = lanesTop + laneHeight * lanes;
  const double height = lanesBottom + 82;

  double peak = 0.05;
  for (const MotionPoint& p : r.motion) peak = std::max(peak, p.magnitude);
  Frame motion{kLeft, kRight, 40, 220, r.length, 0, peak * 1.1};
  Frame axis = motion;
  axis.bottom = lanesBottom;

  std::string svg = svgOpen("motion-decisions", height, "motion magnitude and decisions");
  const char* postureFills[] = {"#e3f2fd", "#fff3e0", "#ede7f6", "#e8f5e9"};
  for (size_t i = 0; i < r.postures.size(); ++i) {
    const Span& span = r.postures[i];
    svg += motion.band(span.start, span.end, postureFills[i % 4], motion.top, lanesBottom);
    svg += text((motion.x(span.start) + motion.x(span.end)) / 2, motion.top - 10, span.label,
                "band", "middle");
  }
  svg += inactiveBands(r, motion, motion.top, lanesBottom);
  svg += axis.timeAxis(motion.top);
  svg += motion.valueAxis("user acceleration, g");

  // One point per pixel column: the strongest motion in it.
  const int columns = static_cast<int>(kRight - kLeft);
  std::vector<double> strongest(columns, -1);
  for (const MotionPoint& p : r.motion) {
    const int column = std::clamp(static_cast<int>((motion.x(p.t) - kLeft)), 0, columns - 1);
    strongest[column] = std::max(strongest[column], p.magnitude);
  }
  // No line across a stretch without motion updates (sampling stops in the background).
  const double gapColumns = 0.25 / std::max(r.length, 0.25) * columns;
  std::string path;
  int last = -1;
  for (int c = 0; c < columns; ++c) {
    if (strongest[c] < 0) continue;
    path += (last < 0 || c - last > std::max(gapColumns, 1.0) ? "M" : "L") + number(kLeft + c) +
            " " + number(motion.y(strongest[c]));
    last = c;
  }
  svg += "<path class=\"motion\" d=\"" + path + "\"/>";

  for (const ModelChange& change : r.modelChanges) {
    const double x = motion.x(change.t);
    svg += line(x, motion.top, x, lanesBottom, "update");
    svg += text(x + 4, motion.top + 12, "update " + change.generation + " applied", "note");
  }

  for (size_t i = 0; i < r.flowOrder.size(); ++i) {
    const double y = lanesTop + laneHeight * i + laneHeight / 2 - 4;
    svg += line(kLeft, y, kRight, y, "lane");
    svg += text(kLeft - 8, y + 4, r.flowOrder[i], "lanelabel", "end");
    for (const Decision& d : r.decisions) {
      if (d.flow != r.flowOrder[i]) continue;
      svg += titled(decisionTitle(d), shape(markOf(d), motion.x(d.t), y));
    }
    for (const GoldenBid& bid : r.goldenBids) {
      if (bid.flow != r.flowOrder[i]) continue;
      svg += titled(bid.bidID + " at " + number(bid.t) + " s: " + std::to_string(bid.values) +
                        " golden signals for the ad's bid",
                    goldenMark(motion.x(bid.t), y - 12));
    }
    for (const Outcome& o : r.outcomes) {
      if (o.flow != r.flowOrder[i]) continue;
      const bool yes = o.outcome.find("positive") != std::string::npos;
      const double x = motion.x(o.t);
      const double ty = y + 13;
      const std::string triangle =
          yes ? "<polygon points=\"" + number(x - 4) + "," + number(ty + 3) + " " + number(x + 4) +
                    "," + number(ty + 3) + " " + number(x) + "," + number(ty - 4) +
                    "\" fill=\"#2e7d32\"/>"
              : "<polygon points=\"" + number(x - 4) + "," + number(ty - 3) + " " + number(x + 4) +
                    "," + number(ty - 3) + " " + number(x) + "," + number(ty + 4) +
                    "\" fill=\"#b71c1c\"/>";
      svg += titled(o.flow + " at " + number(o.t) + " s: the user answered " + o.outcome, triangle);
    }
  }

  // Two rows: the decisions, then what goes with them.
  double x = kLeft;
  double legendY = lanesBottom + 40;
  for (const MarkStyle& style : kMarks) {
    svg += legendItem(x, legendY, shape(style.mark, x, legendY), style.label);
  }
  x = kLeft;
  legendY += 22;
  svg += legendItem(x, legendY,
                    "<polygon points=\"" + number(x - 4) + "," + number(legendY + 3) + " " +
                        number(x + 4) + "," + number(legendY + 3) + " " + number(x) + "," +
                        number(legendY - 4) + "\" fill=\"#2e7d32\"/>",
                    "user said yes");
  svg += legendItem(x, legendY,
                    "<polygon points=\"" + number(x - 4) + "," + number(legendY - 3) + " " +
                        number(x + 4) + "," + number(legendY - 3) + " " + number(x) + "," +
                        number(legendY + 4) + "\" fill=\"#b71c1c\"/>",
                    "user said no");
  svg += legendItem(x, legendY, goldenMark(x, legendY), "golden signals for an ad bid");
  return svg + "</svg>";
}

std::string decisionsChart(const Summary& s) {
  const double rowHeight = 34;
  const double top = 20;
  const double height = top + rowHeight * s.flows.size() + 50;
  const double barRight = 740;
  size_t most = 1;
  for (const FlowSummary& f : s.flows) most = std::max(most, f.contexts);
  const double perContext = (barRight - kLeft) / most;

  std::string svg = svgOpen("decisions-per-flow", height, "decisions per flow");
  for (size_t i = 0; i < s.flows.size(); ++i) {
    const FlowSummary& f = s.flows[i];
    const double y = top + rowHeight * i;
    svg += text(kLeft - 8, y + 17, f.flow, "lanelabel", "end");
    const size_t counts[] = {f.upsells - f.forced, f.forced - f.forcedActs, f.forcedActs,
                             f.contexts - f.upsells - f.blocked, f.blocked};
    double x = kLeft;
    for (size_t k = 0; k < std::size(kMarks); ++k) {
      if (counts[k] == 0) continue;
      const double width = counts[k] * perContext;
      svg += titled(f.flow + ": " + std::to_string(counts[k]) + " " + kMarks[k].label,
                    "<rect x=\"" + number(x) + "\" y=\"" + number(y + 4) + "\" width=\"" +
                        number(width) + "\" height=\"22\" fill=\"" + kMarks[k].color + "\"/>");
      if (width >= 18) {
        svg += text(x + width / 2, y + 19, std::to_string(counts[k]), "barlabel", "middle");
      }
      x += width;
    }
    svg += text(x + 8, y + 19,
                std::to_string(f.contexts) + " contexts, " + f.method + ", upsell " +
                    percent(f.upsellRate()) + ", forced " + percent(f.forcedRate()),
                "note");
  }
  double x = kLeft;
  const double legendY = height - 20;
  for (const MarkStyle& style : kMarks) {
    svg += legendItem(x, legendY,
                      "<rect x=\"" + number(x - 5) + "\" y=\"" + number(legendY - 5) +
                          "\" width=\"10\" height=\"10\" fill=\"" + style.color + "\"/>",
                      style.label);
  }
  return svg + "</svg>";
}

std::string stepPath(const std::vector<QueuePoint>& points, const Frame& f,
                     double (*value)(const QueuePoint&)) {
  std::string d;
  for (const QueuePoint& p : points) {
    const std::string x = number(f.x(p.t));
    const std::string y = number(f.y(value(p)));
    const bool first = d.empty();
    d.append(first ? "M" : " H").append(x).append(first ? " " : " V").append(y);
  }
  return d;
}

std::string outageBands(const RunRecord& r, const Frame& f, double top, double bottom) {
  std::string svg;
  for (const Span& span : r.outages) {
    svg += f.band(span.start, span.end, "#ffebee", top, bottom);
    svg += text(f.x(span.start) + 4, top + 12, "service outage", "note");
  }
  return svg;
}

std::string queueChart(const RunRecord& r) {
  size_t most = 4;
  for (const QueuePoint& p : r.queue) most = std::max({most, p.main, p.unlogged});
  Frame f{kLeft, kRight, 30, 200, r.length, 0, most * 1.15};
  std::string svg = svgOpen("upload-queue", 260, "upload queue size over time");
  svg += outageBands(r, f, f.top, f.bottom);
  svg += inactiveBands(r, f, f.top, f.bottom);
  svg += f.timeAxis(f.top);
  svg += f.valueAxis("records");
  svg += "<path class=\"main\" d=\"" +
         stepPath(r.queue, f, [](const QueuePoint& p) { return double(p.main); }) + "\"/>";
  svg += "<path class=\"unlogged\" d=\"" +
         stepPath(r.queue, f, [](const QueuePoint& p) { return double(p.unlogged); }) + "\"/>";
  double x = kLeft;
  svg += legendItem(x, 240, line(x - 8, 240, x + 6, 240, "main"), "outcomes waiting for upload");
  svg += legendItem(x, 240, line(x - 8, 240, x + 6, 240, "unlogged"),
                    "creation records of unanswered contexts");
  return svg + "</svg>";
}

std::string uploadsChart(const RunRecord& r) {
  double longest = 10;
  for (const QueuePoint& p : r.queue) longest = std::max(longest, p.backoff);
  Frame f{kLeft, kRight, 30, 140, r.length, 0, longest * 1.15};
  const double attemptsY = 175;
  const double othersY = 210;
  Frame axis = f;
  axis.bottom = 230;
  std::string svg = svgOpen("uploads-backoff", 290, "upload attempts and back-off");
  svg += outageBands(r, f, f.top, axis.bottom);
  svg += inactiveBands(r, f, f.top, axis.bottom);

  // After a failure the queue waits out its back-off before it tries again by itself.
  for (const Exchange& e : r.exchanges) {
    if (e.kind != Exchange::Kind::kUpload || e.accepted()) continue;
    double wait = 0;
    for (const QueuePoint& p : r.queue) {
      if (p.t >= e.end && p.backoff > 0) {
        wait = p.backoff;
        break;
      }
    }
    if (wait <= 0) continue;
    svg += f.band(e.end, e.end + wait, "rgba(245,124,0,0.12)", f.top, axis.bottom);
    svg += text(f.x(e.end) + 4, f.top + 26, "waits " + number(wait) + " s", "note");
  }
  svg += axis.timeAxis(f.top);
  svg += f.valueAxis("back-off, s");
  svg += "<path class=\"backoff\" d=\"" +
         stepPath(r.queue, f, [](const QueuePoint& p) { return p.backoff; }) + "\"/>";
  svg += line(kLeft, attemptsY, kRight, attemptsY, "lane");
  svg += text(kLeft - 8, attemptsY + 4, "uploads", "lanelabel", "end");
  svg += line(kLeft, othersY, kRight, othersY, "lane");
  svg += text(kLeft - 8, othersY + 4, "models, error reports", "lanelabel", "end");

  // The service repeats its update in every answer; the first answer with it is the one that
  // brings it.
  std::set<int64_t> broughtVersions;
  for (const Exchange& e : r.exchanges) {
    const double x = f.x(e.start);
    const std::string result =
        e.status ? "status " + std::to_string(*e.status) : "no answer: " + e.error;
    if (e.kind == Exchange::Kind::kUpload) {
      const double radius = std::min(3 + 1.5 * std::sqrt(double(e.logIds.size())), 10.0);
      std::string body = "<circle cx=\"" + number(x) + "\" cy=\"" + number(attemptsY) + "\" r=\"" +
                         number(radius) + "\" fill=\"" + (e.accepted() ? "#43a047" : "#e53935") +
                         "\" fill-opacity=\"0.75\"/>";
      std::string title = "upload of " + std::to_string(e.logIds.size()) + " records at " +
                          number(e.start) + " s: " + result;
      if (e.updateVersion && broughtVersions.insert(*e.updateVersion).second) {
        body += "<circle cx=\"" + number(x) + "\" cy=\"" + number(attemptsY) + "\" r=\"" +
                number(radius + 4) + "\" fill=\"none\" stroke=\"#1565c0\" stroke-width=\"2\"/>";
        body += text(x, attemptsY - 16, "update v" + std::to_string(*e.updateVersion), "note",
                     "middle");
        title += ", carrying update v" + std::to_string(*e.updateVersion);
      }
      svg += titled(title, body);
    } else if (e.kind == Exchange::Kind::kModelDownload) {
      svg += titled("model download at " + number(e.start) + " s: " + result,
                    "<rect x=\"" + number(x - 5) + "\" y=\"" + number(othersY - 5) +
                        "\" width=\"10\" height=\"10\" fill=\"#1565c0\"/>");
    } else {
      svg += titled("error report at " + number(e.start) + " s: " + result,
                    "<polygon points=\"" + number(x - 6) + "," + number(othersY + 5) + " " +
                        number(x + 6) + "," + number(othersY + 5) + " " + number(x) + "," +
                        number(othersY - 6) + "\" fill=\"#c62828\"/>");
    }
  }

  double x = kLeft;
  const double legendY = 270;
  svg += legendItem(
      x, legendY,
      "<circle cx=\"" + number(x) + "\" cy=\"" + number(legendY) + "\" r=\"5\" fill=\"#43a047\"/>",
      "accepted (size: records)");
  svg += legendItem(
      x, legendY,
      "<circle cx=\"" + number(x) + "\" cy=\"" + number(legendY) + "\" r=\"5\" fill=\"#e53935\"/>",
      "failed");
  svg += legendItem(x, legendY,
                    "<circle cx=\"" + number(x) + "\" cy=\"" + number(legendY) +
                        "\" r=\"6\" fill=\"none\" stroke=\"#1565c0\" stroke-width=\"2\"/>",
                    "answer brings an update");
  svg += legendItem(x, legendY,
                    "<rect x=\"" + number(x - 5) + "\" y=\"" + number(legendY - 5) +
                        "\" width=\"10\" height=\"10\" fill=\"#1565c0\"/>",
                    "model download");
  svg += legendItem(x, legendY, line(x - 8, legendY, x + 6, legendY, "backoff"), "back-off");
  return svg + "</svg>";
}

// ---- Page ------------------------------------------------------------------------------------

constexpr const char* kStyle = R"(
body { font: 14px/1.45 system-ui, -apple-system, "Segoe UI", Roboto, sans-serif; color: #222;
       margin: 24px auto; max-width: 1120px; padding: 0 12px; }
h1 { font-size: 22px; margin-bottom: 4px; }
h2 { font-size: 17px; margin: 28px 0 6px; }
p.lead { color: #555; margin-top: 0; }
table { border-collapse: collapse; }
td, th { padding: 3px 10px; text-align: left; border-bottom: 1px solid #eee; }
th { font-weight: 600; }
td.n { text-align: right; font-variant-numeric: tabular-nums; }
dl.facts { display: grid; grid-template-columns: max-content auto; gap: 2px 14px; }
dl.facts dt { color: #666; } dl.facts dd { margin: 0; }
svg text { font-family: system-ui, -apple-system, "Segoe UI", Roboto, sans-serif; }
.tick { font-size: 11px; fill: #666; } .unit { font-size: 11px; fill: #444; }
.band { font-size: 12px; fill: #455a64; } .note { font-size: 11px; fill: #37474f; }
.legend { font-size: 12px; fill: #333; } .lanelabel { font-size: 12px; fill: #222; }
.barlabel { font-size: 11px; fill: #fff; font-weight: 600; }
.grid { stroke: #000; stroke-opacity: 0.07; } .axis { stroke: #888; }
.lane { stroke: #cfd8dc; stroke-dasharray: 2 3; }
.motion { fill: none; stroke: #37474f; stroke-width: 1.2; }
.update { stroke: #1565c0; stroke-width: 1.5; stroke-dasharray: 5 4; }
.main { fill: none; stroke: #1565c0; stroke-width: 2; }
.unlogged { fill: none; stroke: #8e24aa; stroke-width: 2; stroke-dasharray: 6 3; }
.backoff { fill: none; stroke: #f57c00; stroke-width: 2; }
details { margin-top: 8px; } summary { cursor: pointer; color: #1565c0; }
td.t { color: #666; text-align: right; font-variant-numeric: tabular-nums; white-space: nowrap; }
td.c { color: #666; }
)";

std::string summaryTable(const Summary& s) {
  std::string html =
      "<table><tr><th>flow</th><th>method</th><th>contexts</th><th>upsell</th>"
      "<th>forced upsell</th><th>blocked by timing</th><th>forced acts</th>"
      "<th>decided by a model</th><th>user said yes / no</th></tr>";
  auto row = [&](const FlowSummary& f) {
    html += "<tr><td>" + escape(f.flow) + "</td><td>" + escape(f.method) + "</td><td class=n>" +
            std::to_string(f.contexts) + "</td><td class=n>" + percent(f.upsellRate()) +
            "</td><td class=n>" + percent(f.forcedRate()) + "</td><td class=n>" +
            std::to_string(f.blocked) + "</td><td class=n>" + std::to_string(f.forcedActs) +
            "</td><td class=n>" + std::to_string(f.byModel) + "</td><td class=n>" +
            std::to_string(f.answeredYes) + " / " + std::to_string(f.answeredNo) + "</td></tr>";
  };
  for (const FlowSummary& f : s.flows) row(f);
  row(s.all);
  html += "</table>";

  auto fact = [](const std::string& name, const std::string& value) {
    return "<dt>" + escape(name) + "</dt><dd>" + escape(value) + "</dd>";
  };
  std::string models;
  for (const std::string& m : s.modelsApplied) models += (models.empty() ? "" : ", ") + m;
  html += "<dl class=facts>";
  if (s.consentAt) {
    html += fact("consent", "granted at " + number(*s.consentAt) +
                                " s; contexts before it were decided on the device, not kept");
  }
  html += fact("records", std::to_string(s.queued) + " queued: " + std::to_string(s.uploaded) +
                              " uploaded, " + std::to_string(s.waiting) + " still waiting, " +
                              std::to_string(s.replaced) + " replaced by their outcome");
  html += fact("uploads", std::to_string(s.uploadAttempts) +
                              " attempts: " + std::to_string(s.uploadsAccepted) + " accepted, " +
                              std::to_string(s.uploadsFailed) + " failed; longest back-off " +
                              number(s.longestBackoff) + " s");
  html += fact("models applied", models.empty() ? "none" : models);
  html += fact("golden signals", std::to_string(s.goldenBids) + " bids, " +
                                     number(s.goldenValuesPerBid, 0) + " values each on average");
  html += fact("errors reported", std::to_string(s.errorReports) + " (SDK error lines: " +
                                      std::to_string(s.sdkErrorLines) + ")");
  if (s.serviceStoredEvents) {
    html += fact("service stored", std::to_string(*s.serviceStoredEvents) + " events");
  }
  return html + "</dl>";
}

std::string timelineTable(const RunRecord& r) {
  std::string html =
      "<details><summary>Timeline: " + std::to_string(r.notes.size()) + " lines</summary><table>";
  for (const Note& n : r.notes) {
    html += "<tr><td class=t>" + number(n.t) + " s</td><td class=c>" + escape(n.category) +
            "</td><td>" + escape(n.text) + "</td></tr>";
  }
  return html + "</table></details>";
}

}  // namespace

const char* reportStyle() { return kStyle; }

std::string renderReport(const RunRecord& r, const Summary& s) {
  std::string html = "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">";
  html += "<title>orvane-sim demo report</title><style>" + std::string(kStyle) +
          "</style></head><body>";
  // Shared by every chart: the hatching of the time the app spent in the background.
  html +=
      "<svg width=\"0\" height=\"0\" style=\"position:absolute\"><defs>"
      "<pattern id=\"inactive\" width=\"8\" height=\"8\" patternUnits=\"userSpaceOnUse\" "
      "patternTransform=\"rotate(45)\"><rect width=\"8\" height=\"8\" fill=\"#eceff1\" "
      "fill-opacity=\"0.7\"/><line x1=\"0\" y1=\"0\" x2=\"0\" y2=\"8\" stroke=\"#b0bec5\" "
      "stroke-width=\"3\"/></pattern></defs></svg>";
  html += "<h1>orvane-sim demo</h1><p class=lead>A host app on Linux for " + number(r.length) +
          " s: SDK " + escape(r.sdkVersion) + ", installation " + escape(r.installation) +
          ", service " + escape(r.serviceURL) + ".</p>";
  html += "<h2>Summary</h2>" + summaryTable(s);
  html +=
      "<h2>Motion and decisions</h2><p class=lead>The magnitude of the user acceleration "
      "the device reported, the posture it was in, and every decision in each flow with "
      "the user's answer below it.</p>" +
      motionChart(r);
  html += "<h2>Decisions per flow</h2>" + decisionsChart(s);
  html += "<h2>Upload queue</h2><p class=lead>Records waiting in the SDK's two queues.</p>" +
          queueChart(r);
  html +=
      "<h2>Uploads and back-off</h2><p class=lead>Every upload attempt; after a failure "
      "the queue waits out its back-off before it tries again by itself.</p>" +
      uploadsChart(r);
  html += "<h2>Timeline</h2>" + timelineTable(r);
  return html + "</body></html>\n";
}

bool writeReport(const std::string& path, const RunRecord& record, const Summary& summary,
                 std::string* error) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << renderReport(record, summary);
  out.flush();
  if (!out) {
    if (error) *error = "cannot write " + path;
    return false;
  }
  return true;
}

}  // namespace orvane::sim::demo
