// The demo's own arithmetic: the script of a short run, the update the service offers, the
// accounting of records in the summary, and a report that stays well-formed for any run.
#include <gtest/gtest.h>

#include <algorithm>

#include "Report.h"
#include "Script.h"
#include "Summary.h"
#include "UpdatePayload.h"
#include "config/ServerPayload.h"
#include "testutil/FakePlatform.h"
#include "timing/Timing.h"

namespace orvane::sim::demo {
namespace {

TEST(DemoScript, AShortRunKeepsEveryMomentInOrderAndEveryFlowAsks) {
  for (double seconds : {5.0, 10.0, 60.0}) {
    const Script s = makeScript(seconds);
    EXPECT_LT(0, s.updateAt);
    EXPECT_LT(s.updateAt, s.outageAt);
    EXPECT_LT(s.outageAt, s.recoveryAt);
    EXPECT_LT(s.recoveryAt, s.resignAt);
    EXPECT_LT(s.resignAt, s.becomeActiveAt);
    EXPECT_LT(s.becomeActiveAt, s.length);
    EXPECT_EQ(s.postures.back().end, s.length);
    // A flow asks first while the app is active, with time left for its answer.
    for (const FlowPlan& flow : s.flows) {
      EXPECT_TRUE(s.isActiveAt(flow.firstAt)) << flow.name << " in " << seconds << " s";
      EXPECT_LE(flow.firstAt, s.length - flow.seconds - 1) << flow.name << " in " << seconds;
    }
  }
  const Script minute = makeScript(60);
  EXPECT_EQ(minute.postureAt(10), Posture::kTableFaceUp);
  EXPECT_EQ(minute.postureAt(30), Posture::kWalkingInHand);
  EXPECT_EQ(minute.postureAt(59.9), Posture::kTableFaceDown);
  EXPECT_FALSE(minute.isActiveAt((minute.resignAt + minute.becomeActiveAt) / 2));
}

// The SDK takes a flow's assignment only when it was made for the duration the flow asks for,
// and turns the timing rules into windows only when they are valid.
TEST(DemoUpdate, EveryFlowGetsAnAssignmentTheSdkUsesAsIntended) {
  const Script script = makeScript(10);
  std::string why;
  const auto payload =
      decodeServerPayload(makeUpdatePayload(7, "http://127.0.0.1:9", script).dump(), &why);
  ASSERT_TRUE(payload && payload->updateData) << why;
  const ServerUpdatePayload& update = *payload->updateData;
  EXPECT_EQ(update.version, 7);
  orvane::testing::RecordingErrorReporter reports;
  for (const FlowPlan& flow : script.flows) {
    ASSERT_TRUE(update.modelInfoPerFlow.count(flow.name)) << flow.name;
    const ServerModelInfo& info = update.modelInfoPerFlow.at(flow.name);
    EXPECT_EQ(info.supportedDuration, flow.seconds) << flow.name;
    EXPECT_EQ(info.useInstantContext, flow.form == RequestForm::kInstantContext) << flow.name;
    if (!info.isControl) {
      EXPECT_EQ(info.modelUrl, std::string("http://127.0.0.1:9/models/") + kModelFile);
    }
    if (info.timingConfiguration) {
      EXPECT_TRUE(toClient(*info.timingConfiguration, reports)) << flow.name;
    }
  }
  EXPECT_EQ(reports.reports().size(), 0u);
  EXPECT_EQ(update.configuration->automaticEntryPointPollingIntervalSeconds,
            std::lround(script.observerPolling));
}

Exchange upload(std::vector<std::string> ids, int status) {
  Exchange e;
  e.logIds = std::move(ids);
  e.status = status;
  return e;
}

TEST(DemoSummary, AccountsForEveryQueuedRecordOnce) {
  RunRecord r;
  r.flowOrder = {"paywall", "banner"};
  // Creation records c1..c3 and outcomes o1, o2; c1 and c2 were replaced by their outcome.
  r.queuedLogIds = {"c1", "o1", "c2", "o2", "c3", "o3"};
  r.exchanges = {upload({"old", "o1"}, 200),
                 upload({"o2", "o3"}, 503),  // failed, then sent again and accepted
                 upload({"o2"}, 202)};
  r.waitingLogIds = {"c3", "o3"};
  const Summary s = summarize(r);
  EXPECT_EQ(s.queued, 6u);
  EXPECT_EQ(s.uploaded, 2u);  // o1, o2
  EXPECT_EQ(s.waiting, 2u);   // c3, o3
  EXPECT_EQ(s.replaced, 2u);  // c1, c2
  EXPECT_EQ(s.uploadedFromEarlierRuns, 1u);
  EXPECT_EQ(s.uploadAttempts, 3u);
  EXPECT_EQ(s.uploadsFailed, 1u);
}

TEST(DemoSummary, RatesAndTimingEffectsPerFlowInScriptOrder) {
  RunRecord r;
  r.flowOrder = {"paywall", "banner"};
  auto decision = [](std::string flow, bool upsell, bool forced, bool blocked, bool due) {
    Decision d;
    d.flow = std::move(flow);
    d.method = "optimize";
    d.upsell = upsell;
    d.forced = forced;
    d.blocked = blocked;
    d.forcedAct = due;
    d.decidedBy = "control";
    return d;
  };
  r.decisions = {decision("banner", true, true, false, true),
                 decision("banner", false, false, true, false),
                 decision("banner", true, false, false, false),
                 decision("banner", false, false, false, false)};
  r.outcomes = {{1, "banner", "EventOutcome.positiveInteracted"},
                {2, "banner", "EventOutcome.negativeDismissed"}};
  const Summary s = summarize(r);
  ASSERT_EQ(s.flows.size(), 2u);
  EXPECT_EQ(s.flows[0].flow, "paywall");
  EXPECT_EQ(s.flows[0].contexts, 0u);
  const FlowSummary& banner = s.flows[1];
  EXPECT_EQ(banner.contexts, 4u);
  EXPECT_DOUBLE_EQ(banner.upsellRate(), 0.5);
  EXPECT_DOUBLE_EQ(banner.forcedRate(), 0.25);
  EXPECT_EQ(banner.blocked, 1u);
  EXPECT_EQ(banner.forcedActs, 1u);
  EXPECT_EQ(banner.answeredYes, 1u);
  EXPECT_EQ(banner.answeredNo, 1u);
  EXPECT_EQ(s.all.contexts, 4u);
  EXPECT_EQ(percent(s.all.upsellRate()), "50 %");
}

TEST(DemoReport, EscapesNamesAndStaysFiniteForAnEmptyRun) {
  RunRecord empty;
  empty.flowOrder = {"<flow & \"friends\">"};
  const std::string html = renderReport(empty, summarize(empty));
  EXPECT_NE(html.find("&lt;flow &amp; &quot;friends&quot;&gt;"), std::string::npos);
  EXPECT_EQ(html.find("<flow &"), std::string::npos);
  for (const char* broken : {"=\"nan", "=\"-nan", "=\"inf", "width=\"-", "height=\"-"}) {
    EXPECT_EQ(html.find(broken), std::string::npos) << broken;
  }
  EXPECT_EQ(std::count(html.begin(), html.end(), '<') - std::count(html.begin(), html.end(), '>'),
            0);
}

// The charts' lines: the queue as steps (across, then up or down), and no motion drawn across
// a stretch without samples.
TEST(DemoReport, QueueStepsAndMotionGaps) {
  RunRecord r;
  r.length = 10;
  r.queue = {{0, 0, 0, 0}, {5, 3, 1, 30}};
  for (double t = 0; t < 2; t += 0.01) r.motion.push_back({t, 0.01});
  for (double t = 6; t < 8; t += 0.01) r.motion.push_back({t, 0.2});
  const std::string html = renderReport(r, summarize(r));

  const auto pathOf = [&](const std::string& cls) {
    const std::string head = "<path class=\"" + cls + "\" d=\"";
    const size_t at = html.find(head);
    if (at == std::string::npos) return std::string();
    const size_t from = at + head.size();
    return html.substr(from, html.find('"', from) - from);
  };
  const std::string main = pathOf("main");
  ASSERT_FALSE(main.empty());
  EXPECT_EQ(main.rfind("M", 0), 0u) << main;
  EXPECT_EQ(std::count(main.begin(), main.end(), 'H'), 1) << main;
  EXPECT_EQ(std::count(main.begin(), main.end(), 'V'), 1) << main;
  EXPECT_NE(main.find('V', main.find('H')), std::string::npos) << main;
  const std::string motion = pathOf("motion");
  EXPECT_EQ(std::count(motion.begin(), motion.end(), 'M'), 2) << motion;
}

}  // namespace
}  // namespace orvane::sim::demo
