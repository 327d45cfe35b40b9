// The services the demo installs in the SDK's platform, the clockwork that plays its script,
// finding and starting the service, and the scripted user.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <thread>

#include "DevService.h"
#include "PostureMotionService.h"
#include "RecordingServices.h"
#include "Scheduler.h"
#include "ScriptedUser.h"
#include "testutil/FakePlatform.h"
#include "testutil/Fixtures.h"
#include "testutil/RecordingHttpTransport.h"

namespace orvane::sim::demo {
namespace {

Bytes bytes(const std::string& text) { return Bytes(text.begin(), text.end()); }

HttpResponse answer(int status, const std::string& body = "") {
  HttpResponse response;
  response.statusCode = status;
  response.body = bytes(body);
  return response;
}

TEST(DemoHttpWatcher, RecordsEachExchangeAndPassesTheAnswerOn) {
  auto inner = std::make_shared<orvane::testing::RecordingHttpTransport>();
  const std::string update = R"({"update_data": {"version": 4, "modelInfoPerFlow": {}}})";
  inner->script(
      {{answer(200, update), std::nullopt, std::nullopt},
       {answer(200, update), std::nullopt, std::nullopt},
       {std::nullopt, PlatformError{"NSURLErrorDomain", -1005, "connection lost"}, std::nullopt},
       {answer(200), std::nullopt, std::nullopt}});
  auto recorder = std::make_shared<Recorder>(nullptr);
  RecordingHttpTransport watcher(inner, recorder);

  std::vector<int> statuses;
  auto send = [&](const std::string& path, const std::string& body) {
    watcher.send(HttpRequest{"http://127.0.0.1:1" + path, "POST", {}, bytes(body), 60},
                 [&](std::optional<HttpResponse> response, std::optional<PlatformError>) {
                   statuses.push_back(response ? response->statusCode : -1);
                 });
  };
  send("/v3/queue/tech", R"({"events": [{"ctx_8": "a"}, {"ctx_8": "b"}]})");
  send("/v3/queue/tech", R"({"events": [{"ctx_8": "c"}]})");
  send("/v3/queue/tech", "not json");
  send("/v2/error-reporting", "");

  EXPECT_EQ(statuses, (std::vector<int>{200, 200, -1, 200}));
  const RunRecord r = recorder->snapshot();
  ASSERT_EQ(r.exchanges.size(), 4u);
  EXPECT_EQ(r.exchanges[0].logIds, (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(r.exchanges[0].updateVersion, 4);
  EXPECT_TRUE(r.exchanges[0].accepted());
  EXPECT_FALSE(r.exchanges[2].accepted());
  EXPECT_EQ(r.exchanges[2].error, "connection lost");
  EXPECT_TRUE(r.exchanges[2].logIds.empty());
  EXPECT_EQ(r.exchanges[3].kind, Exchange::Kind::kErrorReport);
  // The service repeats its update; the timeline names it once, and the failure.
  size_t updateLines = 0, failureLines = 0;
  for (const Note& note : r.notes) {
    updateLines += note.text.find("update v4") != std::string::npos;
    failureLines += note.text.find("failed") != std::string::npos;
  }
  EXPECT_EQ(updateLines, 1u);
  EXPECT_EQ(failureLines, 1u);
}

TEST(DemoPostureDevice, ReplaysThePostureOfTheMomentUntilStopped) {
  orvane::testing::FakePlatform fake;
  std::vector<double> magnitudes;
  std::string error;
  auto device = PostureMotionService::load(
      fake.clock, orvane::testing::fixturePath("motion"),
      [&](double magnitude) { magnitudes.push_back(magnitude); }, &error);
  ASSERT_TRUE(device) << error;
  EXPECT_FALSE(PostureMotionService::load(fake.clock, "/no/such/folder", nullptr, &error));
  EXPECT_NE(error.find("table_still_face_up.json"), std::string::npos) << error;

  auto queue = fake.executors->makeSerialQueue("samples");
  std::vector<double> stamps;
  device->startDeviceMotionUpdates(queue,
                                   [&](const DeviceMotion* m) { stamps.push_back(m->timestamp); });
  fake.executors->advance(1.0);
  ASSERT_EQ(magnitudes.size(), 100u);  // the traces' 100 Hz
  EXPECT_DOUBLE_EQ(stamps.back(), fake.clock->uptime());
  const double stillPeak = *std::max_element(magnitudes.begin(), magnitudes.end());

  device->setPosture(Posture::kWalkingInHand);
  fake.executors->advance(1.0);
  const double walkingPeak = *std::max_element(magnitudes.begin() + 100, magnitudes.end());
  EXPECT_LT(stillPeak, 0.03);
  EXPECT_GT(walkingPeak, 0.06);

  device->stopMotionUpdates();
  const size_t delivered = stamps.size();
  fake.executors->advance(1.0);
  EXPECT_EQ(stamps.size(), delivered);
}

TEST(DemoScheduler, RunsMomentsInTimeOrderWhoeverAddsThem) {
  Recorder clock(nullptr);
  Scheduler scheduler(clock);
  std::vector<std::string> ran;
  std::mutex mutex;
  auto mark = [&](std::string name) {
    return [&, name] {
      std::lock_guard<std::mutex> guard(mutex);
      ran.push_back(name);
    };
  };
  scheduler.at(0.2, mark("late"));
  scheduler.at(0.1, mark("early"));
  scheduler.at(-1, mark("overdue"));
  scheduler.at(5, mark("after the end"));
  // A task added from another thread while the scheduler waits, due before "late".
  std::thread other([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    scheduler.at(0.15, mark("from another thread"));
  });
  int ticks = 0;
  scheduler.runUntil(0.3, 0.1, [&] { ++ticks; });
  other.join();
  EXPECT_EQ(ran, (std::vector<std::string>{"overdue", "early", "from another thread", "late"}));
  EXPECT_GE(ticks, 2);
  EXPECT_GE(clock.now(), 0.3);
  EXPECT_LT(clock.now(), 1.0);
}

TEST(DemoService, FoundBesideTheToolInstalledOrInTheBuildTree) {
  namespace fs = std::filesystem;
  const fs::path root =
      fs::temp_directory_path() / ("demo-find-" + std::to_string(std::random_device()()));
  auto touch = [](const fs::path& path) {
    fs::create_directories(path.parent_path());
    std::ofstream(path) << "#!/bin/sh\n";
  };
  touch(root / "bin/orvane-sim");
  touch(root / "bin/orvane-devservice");
  touch(root / "build/tools/sim/orvane-sim");
  touch(root / "build/tools/devservice/orvane-devservice");
  touch(root / "alone/orvane-sim");
  EXPECT_EQ(findDevService((root / "bin/orvane-sim").string()),
            fs::weakly_canonical(root / "bin/orvane-devservice").string());
  EXPECT_EQ(findDevService((root / "build/tools/sim/orvane-sim").string()),
            fs::weakly_canonical(root / "build/tools/devservice/orvane-devservice").string());
  EXPECT_EQ(findDevService((root / "alone/orvane-sim").string()), "");

  // A program that exits without saying where it listens is reported, not waited for.
  DevServiceOptions options;
  options.program = "/bin/true";
  options.payloadFile = (root / "payload.json").string();
  options.logFile = (root / "service.log").string();
  std::string error;
  const auto started = std::chrono::steady_clock::now();
  EXPECT_FALSE(DevService::start(options, &error));
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(5));
  EXPECT_NE(error.find("did not start"), std::string::npos) << error;
  fs::remove_all(root);
}

TEST(DemoUser, RepeatableAndKeenerWhileThePhoneLiesStill) {
  ScriptedUser first(11), second(11);
  std::map<Posture, int> yes;
  for (int i = 0; i < 600; ++i) {
    for (Posture posture : {Posture::kTableFaceUp, Posture::kWalkingInHand}) {
      const EventOutcome answer = first.answer(kModelFlow, posture);
      EXPECT_EQ(second.answer(kModelFlow, posture), answer);
      EXPECT_TRUE(answer == EventOutcome::kPositiveConverted ||
                  answer == EventOutcome::kNegativeDismissed);
      yes[posture] += answer == EventOutcome::kPositiveConverted;
    }
  }
  for (Posture posture : {Posture::kTableFaceUp, Posture::kWalkingInHand}) {
    EXPECT_NEAR(yes[posture] / 600.0, ScriptedUser::receptiveness(posture), 0.07);
  }
  // Answers come after the SDK's premature-log threshold of 0.2 s.
  for (int i = 0; i < 100; ++i) EXPECT_GT(first.reactionTime(), 0.2);
}

}  // namespace
}  // namespace orvane::sim::demo
