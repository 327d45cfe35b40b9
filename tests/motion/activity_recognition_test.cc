// Finding, checking, caching and running the activity models.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <optional>
#include <vector>

#include "motion/ActivityRecognitionManager.h"
#include "motion/MotionTrace.h"
#include "motion_test_support.h"
#include "testutil/FakePlatform.h"

namespace orvane {
namespace {

namespace fs = std::filesystem;
using testing::RecordingErrorReporter;

// A model that only describes itself: its metadata and input are what a test sets.
class DescribedModel : public LoadedModel {
 public:
  coreml::ModelDescription declared;
  const coreml::ModelDescription& description() const override { return declared; }
  coreml::Result<std::map<std::string, coreml::FeatureValue>> predict(
      const coreml::FeatureProvider&) const override {
    return coreml::Error("not a real model");
  }
};

class ActivityRecognitionTest : public ::testing::Test {
 protected:
  ActivityRecognitionManager makeManager(std::string resourceDirectory = ORVANE_SOURCE_RESOURCES) {
    ActivityRecognitionManager::Dependencies deps;
    deps.configuration = [this] { return configuration; };
    deps.errorReporter = [this]() -> ErrorReporter& { return reporter; };
    deps.modelRuntime = makePortableModelRuntime();
    deps.fileSystem = makeLocalFileSystem(::testing::TempDir());
    deps.resourceDirectory = std::move(resourceDirectory);
    return ActivityRecognitionManager(std::move(deps));
  }
  std::vector<std::string> messages() const {
    std::vector<std::string> out;
    for (const auto& r : reporter.reports()) out.push_back(r.message);
    return out;
  }

  ConfigurationData configuration = [] {
    ConfigurationData c;
    c.activityTaggerVersion = "0.0.5";
    return c;
  }();
  RecordingErrorReporter reporter;
};

// The motion signals of the 3-second window that ends `secondsBeforeEnd` before the trace does.
SignalList windowOf(const std::string& trace, double secondsBeforeEnd) {
  auto recorded = readMotionTraceFile(testing::motionFixturesDir() + "/" + trace + ".json");
  EXPECT_TRUE(recorded.ok()) << trace;
  if (!recorded.ok()) return {};
  auto samples = recorded->samples;
  const double end = samples.back().timestamp.secondsSince1970 - secondsBeforeEnd;
  std::erase_if(samples, [&](const auto& s) { return s.timestamp.secondsSince1970 > end; });
  return testing::extractAtEnd(samples, 3).allSignals();
}

TEST_F(ActivityRecognitionTest, ShippedModelsTagRecordedAndGeneratedMotion) {
  auto manager = makeManager();
  for (ActivityType activity : kAllActivityTypes) {
    EXPECT_TRUE(manager.getOrLoadModel(activity)) << rawName(activity);
  }
  ASSERT_TRUE(messages().empty()) << messages().front();
  EXPECT_EQ(manager.getOrLoadModel(ActivityType::kWalking),
            manager.getOrLoadModel(ActivityType::kWalking));  // cached

  // "recorded_" traces are real phone recordings, the others generated. The shipped models
  // were trained on generated motion: they find the real phone lying still on a table, but
  // take the real one walking sideways in a trouser pocket for lying in bed, so for that
  // recording only what it is not is checked. Scores are independent: a still phone may also
  // pass for one in a lift at rest.
  struct Case {
    const char* trace;
    std::optional<ActivityType> tagged;  // scores above 0.6
    std::vector<ActivityType> ruledOut;  // each scores below 0.1
  };
  using enum ActivityType;
  const Case cases[] = {
      {"recorded_flat_still", kTable, {kWalking, kRunning, kPocket, kTableFaceDown}},
      {"recorded_walking_pocket", std::nullopt, {kTable, kTableFaceDown, kSitting, kStanding}},
      {"walking_in_hand", kWalking, {kTable, kTableFaceDown}},
      {"table_face_down", kTableFaceDown, {kTable, kWalking}},
  };
  for (const Case& c : cases) {
    for (double secondsBeforeEnd : {0.0, 1.0, 2.0}) {
      SCOPED_TRACE(std::string(c.trace) + " -" + std::to_string(secondsBeforeEnd) + " s");
      const SignalList window = windowOf(c.trace, secondsBeforeEnd);
      std::map<ActivityType, float> scores;
      for (ActivityType activity : kAllActivityTypes) {
        scores[activity] =
            manager.evaluateModel(*manager.getOrLoadModel(activity), window).value_or(-1);
      }
      if (c.tagged) {
        EXPECT_GT(scores[*c.tagged], 0.6f) << rawName(*c.tagged);
      }
      for (ActivityType activity : c.ruledOut) {
        EXPECT_LT(scores[activity], 0.1f) << rawName(activity);
      }
    }
  }

  // Without motion signals the zero-filled vector still gets a score.
  EXPECT_TRUE(manager.evaluateModel(*manager.getOrLoadModel(kWalking), {}).has_value());
}

TEST_F(ActivityRecognitionTest, ConfigurationIsCheckedBeforeAnyFileIsLookedUp) {
  auto manager = makeManager("/nonexistent");
  configuration.activityTaggerVersion.reset();
  EXPECT_FALSE(manager.getOrLoadModel(ActivityType::kCouch));
  EXPECT_TRUE(messages().empty());
  EXPECT_FALSE(manager.loadModel(ActivityType::kCouch));
  EXPECT_EQ(messages(), std::vector<std::string>{"[Tavel] No activity tagger version provided"});

  reporter.clear();
  configuration.activityTaggerVersion = "0.0.6";
  EXPECT_FALSE(manager.getOrLoadModel(ActivityType::kCouch));
  configuration.activityTaggerVersion = "0.0.5";
  configuration.goldenSignalsDurationSeconds = 5;
  EXPECT_FALSE(manager.getOrLoadModel(ActivityType::kCouch));
  EXPECT_EQ(messages(), (std::vector<std::string>{"[Tavel] InputMapping version mismatch",
                                                  "[Tavel] InputMapping duration mismatch"}));
  EXPECT_EQ(reporter.reports()[0].additionalData->at("actualVersion"), PlistValue("0.0.6"));
  EXPECT_EQ(reporter.reports()[1].additionalData->at("actualDuration"), PlistValue(int64_t{5}));

  reporter.clear();
  configuration.goldenSignalsDurationSeconds = 3;
  EXPECT_FALSE(manager.getOrLoadModel(ActivityType::kCouch));
  EXPECT_EQ(messages(), std::vector<std::string>{"[Tavel] Orvane resource bundle not found"});
}

TEST_F(ActivityRecognitionTest, AFailedLoadIsTriedAgain) {
  const fs::path resources = fs::path(::testing::TempDir()) / "activity-resources";
  fs::remove_all(resources);
  fs::create_directories(resources / "Orvane.bundle");
  auto manager = makeManager(resources.string());

  EXPECT_FALSE(manager.getOrLoadModel(ActivityType::kPocket));
  ASSERT_EQ(messages(), std::vector<std::string>{"[Tavel] Activity model not found in bundle"});
  const PlistDictionary data = *reporter.reports()[0].additionalData;
  EXPECT_EQ(data.at("activity"), PlistValue("pocket"));
  EXPECT_EQ(data.at("modelName"), PlistValue("0_0_5-3-ios-" + obfuscatedModelName("pocket")));

  const std::string name =
      ActivityRecognitionManager::modelName(ActivityType::kPocket, "0.0.5", 3) + ".mlmodelc";
  fs::copy(fs::path(ORVANE_SOURCE_RESOURCES) / "Orvane.bundle" / name,
           resources / "Orvane.bundle" / name);
  EXPECT_TRUE(manager.getOrLoadModel(ActivityType::kPocket));
}

TEST_F(ActivityRecognitionTest, ModelMetadataMustMatchTheConfiguration) {
  auto manager = makeManager();
  struct Case {
    std::map<std::string, std::string> metadata;
    const char* report;  // none: accepted
  };
  const std::map<std::string, std::string> good{
      {"platform", "ios"}, {"number_of_seconds", "3"}, {"activity_tagger_version", "0.0.5"}};
  auto with = [&](const char* key, std::optional<std::string> value) {
    auto m = good;
    if (value) {
      m[key] = *value;
    } else {
      m.erase(key);
    }
    return m;
  };
  const Case cases[] = {
      {good, nullptr},
      {with("number_of_seconds", "+3"), nullptr},
      {{}, "[Tavel] Activity model missing user-defined metadata"},
      {with("platform", std::nullopt), "[Tavel] Activity model missing platform metadata"},
      {with("platform", "android"), "[Tavel] Activity model platform mismatch"},
      {with("number_of_seconds", "3.0"),
       "[Tavel] Activity model missing number_of_seconds metadata"},
      {with("number_of_seconds", "-3"), "[Tavel] Activity model duration mismatch"},
      {with("activity_tagger_version", std::nullopt),
       "[Tavel] Activity model missing activity_tagger_version metadata"},
      {with("activity_tagger_version", "0.0.4"), "[Tavel] Activity model version mismatch"},
  };
  for (const Case& c : cases) {
    reporter.clear();
    DescribedModel model;
    model.declared.metadata.userDefined = c.metadata;
    const bool accepted =
        manager.ensureModelMetadataMatches(model, ActivityType::kBike, "0.0.5", 3);
    EXPECT_EQ(accepted, c.report == nullptr) << (c.report ? c.report : "accepted");
    if (c.report) {
      ASSERT_EQ(messages(), std::vector<std::string>{c.report});
      EXPECT_EQ(reporter.reports()[0].additionalData->at("activity"), PlistValue("bike"));
    } else {
      EXPECT_TRUE(messages().empty());
    }
  }
}

TEST_F(ActivityRecognitionTest, InputVectorPlacesMappedNumericSignals) {
  auto manager = makeManager();
  const SignalList signals{SignalFloat(SignalEnum::id(205), 0.5f),   // position 0
                           SignalFloat(SignalEnum::id(209), 2.25f),  // position 107
                           SignalBool(SignalEnum::id(192), true),    // position 75
                           SignalFloat(SignalEnum::id(114), 9.0f),   // not read by the models
                           SignalString(SignalEnum::id(20), "flow")};
  auto input = manager.prepareInputFeatures(signals, 108);
  ASSERT_TRUE(input);
  std::vector<double> expected(108, 0.0);
  expected[0] = 0.5;
  expected[107] = 2.25;
  expected[75] = 1.0;
  EXPECT_EQ(input->values, expected);

  DescribedModel noInput;  // declares no "input": nothing to fill
  EXPECT_FALSE(manager.evaluateModel(noInput, signals));
  EXPECT_EQ(messages(), std::vector<std::string>{
                            "[Tavel] Failed to create MLMultiArray for activity prediction"});
}

}  // namespace
}  // namespace orvane
