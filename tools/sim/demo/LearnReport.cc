#include "LearnReport.h"

#include <cmath>
#include <cstdio>
#include <fstream>

#include "Report.h"
#include "Svg.h"

namespace orvane::sim::demo {
namespace {

using nlohmann::json;

const FlowAcceptance* acceptanceOf(const LearnResult& result, const std::string& flow) {
  if (!result.records) return nullptr;
  const auto it = result.records->flows.find(flow);
  return it == result.records->flows.end() ? nullptr : &it->second;
}

bool ships(const LearnResult& result, const std::string& flow) {
  const json entry = trainedFlow(result, flow);
  return entry.is_object() && entry.value("ships", false);
}

// "58 % (47..68 %, 44/76)", or "none shown".
std::string rateText(const Tally& tally) {
  if (tally.shown == 0) return "none shown";
  const Interval i = wilson(tally);
  char text[96];
  std::snprintf(text, sizeof text, "%.0f %% (%.0f..%.0f %%, %lld/%lld)", i.rate * 100, i.low * 100,
                i.high * 100, static_cast<long long>(tally.positive),
                static_cast<long long>(tally.shown));
  return text;
}

std::string minutes(double seconds) {
  char text[32];
  const int whole = static_cast<int>(std::lround(seconds));
  std::snprintf(text, sizeof text, "%d min %02d s", whole / 60, whole % 60);
  return text;
}

json tallyJson(const Tally& tally) {
  const Interval i = wilson(tally);
  return {{"shown", tally.shown},
          {"positive", tally.positive},
          {"rate", i.rate},
          {"low", i.low},
          {"high", i.high}};
}

// ---- The page ------------------------------------------------------------------------------

constexpr double kChartLeft = 190, kChartRight = 1060, kRowHeight = 74;

struct Series {
  const char* label;
  const char* color;
  Tally FlowAcceptance::*tally;
};
constexpr Series kSeries[] = {
    {"act 1 (control rule)", "#78909c", &FlowAcceptance::before},
    {"act 2, model arm", "#2e7d32", &FlowAcceptance::model},
    {"act 2, control arm", "#f57c00", &FlowAcceptance::control},
};

// Each flow's acceptance per series: a dot at the rate and a bar over its interval.
std::string intervalChart(const LearnResult& result) {
  const double height = 50 + kRowHeight * double(result.flowOrder.size());
  const double bottom = height - 30;
  auto x = [](double rate) { return kChartLeft + rate * (kChartRight - kChartLeft); };
  std::string svg = "<svg id=\"acceptance\" width=\"1100\" height=\"" + number(height) +
                    "\" role=\"img\" aria-label=\"acceptance with 95 % intervals per flow\">";
  for (int p = 0; p <= 100; p += 10) {
    svg += "<line class=\"grid\" x1=\"" + number(x(p / 100.0)) + "\" y1=\"10\" x2=\"" +
           number(x(p / 100.0)) + "\" y2=\"" + number(bottom) + "\"/>";
    svg += "<text class=\"tick\" x=\"" + number(x(p / 100.0)) + "\" y=\"" + number(bottom + 16) +
           "\" text-anchor=\"middle\">" + std::to_string(p) + " %</text>";
  }
  double y = 20;
  for (const std::string& flow : result.flowOrder) {
    svg += "<text class=\"lanelabel\" x=\"10\" y=\"" + number(y + 26) + "\">" + escape(flow) +
           "</text>";
    const FlowAcceptance* acceptance = acceptanceOf(result, flow);
    double row = y + 10;
    for (const Series& series : kSeries) {
      const Tally tally = acceptance ? acceptance->*series.tally : Tally{};
      if (tally.shown > 0) {
        const Interval i = wilson(tally);
        svg += "<g><title>" + escape(std::string(series.label) + ": " + rateText(tally)) +
               "</title><line x1=\"" + number(x(i.low)) + "\" y1=\"" + number(row) + "\" x2=\"" +
               number(x(i.high)) + "\" y2=\"" + number(row) + "\" stroke=\"" + series.color +
               "\" stroke-width=\"3\"/><circle cx=\"" + number(x(i.rate)) + "\" cy=\"" +
               number(row) + "\" r=\"5\" fill=\"" + series.color + "\"/></g>";
      }
      row += 18;
    }
    y += kRowHeight;
  }
  double legend = kChartLeft;
  for (const Series& series : kSeries) {
    svg += "<circle cx=\"" + number(legend) + "\" cy=\"" + number(height - 6) +
           "\" r=\"5\" fill=\"" + series.color + "\"/><text class=\"legend\" x=\"" +
           number(legend + 10) + "\" y=\"" + number(height - 2) + "\">" + escape(series.label) +
           "</text>";
    legend += 220;
  }
  return svg + "</svg>";
}

std::string trainerCell(const LearnResult& result, const std::string& flow) {
  const json entry = trainedFlow(result, flow);
  if (!entry.is_object()) return "no answered contexts";
  std::string text = std::to_string(entry.value("shownContexts", 0)) + " shown contexts; ";
  if (entry.contains("holdout")) {
    const json& auc = entry["holdout"]["auc"];
    char line[96];
    std::snprintf(line, sizeof line, "held-out AUC %.2f (%.2f..%.2f); ", auc.value("value", 0.0),
                  auc.value("low", 0.0), auc.value("high", 0.0));
    text += line;
  }
  if (entry.value("ships", false)) return text + "ships";
  std::string reasons;
  for (const json& reason : entry.value("refused", json::array())) {
    reasons += (reasons.empty() ? "" : "; ") +
               (reason.is_string() ? reason.get<std::string>() : reason.dump());
  }
  return text + "not shipped: " + (reasons.empty() ? "no reason given" : reasons);
}

std::string flowTable(const LearnResult& result) {
  std::string html =
      "<table><tr><th>flow</th><th>trainer</th><th>act 1</th><th>act 2</th>"
      "<th>act 2, model arm</th><th>act 2, control arm</th><th>act 2, before the update</th>"
      "</tr>";
  for (const std::string& flow : result.flowOrder) {
    const FlowAcceptance* a = acceptanceOf(result, flow);
    const FlowAcceptance none;
    const FlowAcceptance& f = a ? *a : none;
    html += "<tr><td>" + escape(flow) + "</td><td>" + escape(trainerCell(result, flow)) +
            "</td><td class=n>" + escape(rateText(f.before)) + "</td><td class=n>" +
            escape(rateText(f.after)) + "</td><td class=n>" + escape(rateText(f.model)) +
            "</td><td class=n>" + escape(rateText(f.control)) + "</td><td class=n>" +
            std::to_string(f.beforeUpdate) + "</td></tr>";
  }
  return html + "</table>";
}

std::string facts(const LearnResult& r) {
  auto fact = [](const std::string& name, const std::string& value) {
    return "<dt>" + escape(name) + "</dt><dd>" + escape(value) + "</dd>";
  };
  std::string html = "<dl class=facts>";
  html += fact("installations", std::to_string(r.installations) +
                                    " per act, fresh in each, each an orvane-sim process");
  if (r.records) {
    const LearningRecords& s = *r.records;
    auto act = [](const ActCounts& a) {
      return std::to_string(a.installations) + " installations, " + std::to_string(a.uploads) +
             " uploads, " + std::to_string(a.events) + " records";
    };
    html += fact("service stored, act 1", act(s.act1));
    html += fact("service stored, act 2",
                 act(s.act2) + "; model arm " + std::to_string(s.modelInstallations) +
                     " installations, control arm " + std::to_string(s.controlInstallations));
    html += fact("re-sent records", std::to_string(s.duplicates) + " dropped");
    if (r.controlShare > 0 && s.act2.installations > 0 &&
        (s.modelInstallations == 0 || s.controlInstallations == 0)) {
      html += fact("note", "every installation of act 2 fell in one arm: no comparison of arms");
    }
  }
  html += fact("control share", number(r.controlShare * 100, 0) + " % of act 2's installations");
  html += fact("trainer", r.trainCommand.empty() ? "not run" : r.trainCommand);
  html +=
      fact("minimum counts", std::to_string(r.minContexts) + " shown, answered contexts per " +
                                 "flow, " + std::to_string(r.minEachClass) + " of each answer, " +
                                 std::to_string(r.minShown) + " held-out contexts shown");
  if (!r.trainProblem.empty()) html += fact("act 2 without a trained update", r.trainProblem);
  html += fact("wall time", minutes(r.wallSeconds) + ": act 1 " + minutes(r.act1WallSeconds) +
                                ", training " + minutes(r.trainWallSeconds) + ", act 2 " +
                                minutes(r.act2WallSeconds));
  if (r.act1Failures + r.act2Failures > 0) {
    html += fact("installations that failed", std::to_string(r.act1Failures) + " in act 1, " +
                                                  std::to_string(r.act2Failures) + " in act 2");
  }
  return html + "</dl>";
}

}  // namespace

json trainedFlow(const LearnResult& result, const std::string& flow) {
  if (!result.trainReport.is_object() || !result.trainReport["flows"].is_array()) return nullptr;
  for (const json& entry : result.trainReport["flows"]) {
    if (entry.is_object() && entry.value("flow", "") == flow) return entry;
  }
  return nullptr;
}

void printLearnSummary(std::ostream& out, const LearnResult& result) {
  out << "Summary of the learning run (" << result.installations << " installations per act, "
      << minutes(result.wallSeconds) << "); acceptance = yes / shown, 95 % interval\n";
  if (!result.records) {
    out << "  the service's records could not be read: " << result.recordsProblem << "\n";
    return;
  }
  std::string before = "  act 1 -> act 2:    ", arms = "  model vs control: ";
  bool first = true;
  for (const std::string& flow : result.flowOrder) {
    const FlowAcceptance* f = acceptanceOf(result, flow);
    const FlowAcceptance none;
    const FlowAcceptance& a = f ? *f : none;
    const std::string separator = first ? "" : "; ";
    first = false;
    before += separator + flow + " " + rateText(a.before) + " -> " + rateText(a.after);
    arms += separator + flow + " " + rateText(a.model) + " vs " + rateText(a.control) +
            (ships(result, flow) ? "" : " (no model shipped)");
  }
  out << before << "\n" << arms << "\n";
}

json learnFigures(const LearnResult& result) {
  json flows = json::object();
  for (const std::string& flow : result.flowOrder) {
    const FlowAcceptance* f = acceptanceOf(result, flow);
    const FlowAcceptance none;
    const FlowAcceptance& a = f ? *f : none;
    flows[flow] = {{"act1", tallyJson(a.before)},        {"act2", tallyJson(a.after)},
                   {"act2Model", tallyJson(a.model)},    {"act2Control", tallyJson(a.control)},
                   {"act2BeforeUpdate", a.beforeUpdate}, {"modelShipped", ships(result, flow)}};
  }
  json out = {{"installationsPerAct", result.installations},
              {"actSeconds", result.actSeconds},
              {"controlShare", result.controlShare},
              {"trainedVersion", result.trainedVersion},
              {"act1LastRequest", result.act1LastRequest},
              {"trainProblem", result.trainProblem},
              {"wallSeconds", result.wallSeconds},
              {"flows", flows},
              {"installationFailures", {result.act1Failures, result.act2Failures}}};
  if (result.records) {
    auto act = [](const ActCounts& a) {
      return json{{"installations", a.installations}, {"uploads", a.uploads}, {"events", a.events}};
    };
    out["act1"] = act(result.records->act1);
    out["act2"] = act(result.records->act2);
    out["act2"]["modelInstallations"] = result.records->modelInstallations;
    out["act2"]["controlInstallations"] = result.records->controlInstallations;
  }
  return out;
}

std::string renderLearnReport(const LearnResult& r) {
  std::string html = "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">";
  html += "<title>orvane-sim demo --learn report</title><style>" + std::string(reportStyle()) +
          "</style></head><body>";
  html +=
      "<h1>orvane-sim demo --learn</h1><p class=lead>Act 1 collects with the control rule, "
      "orvane-train learns a model per flow from what the service stored, and act 2 plays on "
      "with the trained update for all but a control share of fresh installations. Service " +
      escape(r.serviceURL) + ", acts of " + number(r.actSeconds) + " s.</p>";
  html +=
      "<h2>Acceptance per flow</h2><p class=lead>Positive answers over contexts shown, "
      "paired from the service's records as orvane-train pairs them, with 95 % Wilson "
      "intervals. Act 2 counts the contexts decided under the trained update; those decided "
      "before an installation received it are left out.</p>";
  if (!r.records) {
    html += "<p>The service's records could not be read: " + escape(r.recordsProblem) + "</p>";
  } else {
    html += flowTable(r) + intervalChart(r);
  }
  html += "<h2>The run</h2>" + facts(r);
  html += "<p class=lead>Each installation's own report is in its folder under " +
          escape(r.folder) + "/act1 and act2; the trainer's report.json and models under " +
          escape(r.folder) + "/trained.</p>";
  return html + "</body></html>\n";
}

bool writeLearnReport(const std::string& htmlPath, const std::string& jsonPath,
                      const LearnResult& result, std::string* error) {
  std::ofstream html(htmlPath, std::ios::binary | std::ios::trunc);
  html << renderLearnReport(result);
  std::ofstream figures(jsonPath, std::ios::binary | std::ios::trunc);
  figures << learnFigures(result).dump(1) << "\n";
  html.flush();
  figures.flush();
  if (!html || !figures) {
    if (error) *error = "cannot write " + (html ? jsonPath : htmlPath);
    return false;
  }
  return true;
}

}  // namespace orvane::sim::demo
