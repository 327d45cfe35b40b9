// Finding, checking, caching and running the activity models.
#include <gtest/gtest.h>

#include <filesystem>

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

SignalList windowOf(const std::string& trace) {
  auto recorded = readMotionTraceFile(testing::motionFixturesDir() + "/" + trace + ".json");
  EXPECT_TRUE(recorded.ok());
  return testing::extractAtEnd(recorded->samples, 3).allSignals();
}

TEST_F(ActivityRecognitionTest, ShippedModelsLoadAndScoreRecordedMotion) {
  auto manager = makeManager();
  for (ActivityType activity : kAllActivityTypes) {
    EXPECT_TRUE(manager.getOrLoadModel(activity)) << rawName(activity);
  }
  EXPECT_TRUE(messages().empty()) << messages().front();
  // Cached: the same model object comes back.
  EXPECT_EQ(manager.getOrLoadModel(ActivityType::kWalking),
            manager.getOrLoadModel(ActivityType::kWalking));

  const SignalList walking = windowOf("walking_in_hand");
  const SignalList still = windowOf("table_still_face_up");
  auto walkingModel = manager.getOrLoadModel(ActivityType::kWalking);
  auto tableModel = manager.getOrLoadModel(ActivityType::kTable);
  EXPECT_GT(manager.evaluateModel(*walkingModel, walking).value_or(0), 0.6f);
  EXPECT_LT(manager.evaluateModel(*tableModel, walking).value_or(1), 0.1f);
  EXPECT_GT(manager.evaluateModel(*tableModel, still).value_or(0), 0.6f);
  EXPECT_LT(manager.evaluateModel(*walkingModel, still).value_or(1), 0.1f);

  // Without motion signals the zero-filled vector still gets a score.
  EXPECT_TRUE(manager.evaluateModel(*walkingModel, {}).has_value());
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
