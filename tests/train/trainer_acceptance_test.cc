// The loop from the SDK's records to the SDK's decision: contexts made by the SDK are
// uploaded, orvane-train learns from them, and what it writes (payload, model file) goes back
// through the SDK's own payload decoder, model store, feature provider and decision.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <limits>

#include "config/RemoteConfiguration.h"
#include "config/ServerPayload.h"
#include "models/ContextDictionaryFeatureProvider.h"
#include "models/CoreMLModelManager.h"
#include "models/ModelExecutor.h"
#include "models/ModelOutputCheck.h"
#include "testutil/FakePlatform.h"
#include "testutil/RecordingHttpTransport.h"
#include "testutil/TemporaryDirectory.h"
#include "train/SdkUploads.h"
#include "train/TrainerRun.h"

namespace orvane {
namespace {

namespace fs = std::filesystem;
using testing::kLearnableFlow;
using testing::kNoiseFlow;

constexpr const char* kModelBaseUrl = "http://127.0.0.1:9/models";

// One SDK session of contexts and one trainer run on its uploads, shared by the cases of a
// process.
struct Loop {
  std::string missing = testing::trainerMissing();
  testing::TemporaryDirectory folder{"orvane-train-accept"};
  testing::SdkUploads uploads;
  testing::TrainerRun run;

  Loop() {
    if (!missing.empty()) return;
    uploads = testing::makeSdkUploads(450, 7);
    testing::writeUploadBodies(uploads, folder.path() / "uploads");
    run = testing::runTrainer(folder.path() / "uploads", folder.path() / "out",
                              std::string("--payload-version 5 --model-base-url ") + kModelBaseUrl);
  }
};

class TrainerAcceptanceTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { loop_ = new Loop(); }
  static void TearDownTestSuite() { delete std::exchange(loop_, nullptr); }

  void SetUp() override {
    if (!loop_->missing.empty()) GTEST_SKIP() << "orvane-train cannot run: " << loop_->missing;
    ASSERT_EQ(run().status, 0) << run().output;
    shipped_ = run().flowReport(kLearnableFlow);
    ASSERT_NE(shipped_, nullptr) << run().output;
    ASSERT_TRUE((*shipped_)["ships"].get<bool>()) << run().output;
  }

  static const testing::TrainerRun& run() { return loop_->run; }
  static const testing::SdkUploads& uploads() { return loop_->uploads; }
  std::string modelFileName() const {
    return fs::path((*shipped_)["modelFile"].get<std::string>()).filename().string();
  }
  double threshold() const { return (*shipped_)["holdout"]["threshold"].get<double>(); }

  // The model store of a fresh installation, with the trainer's payload applied: the model
  // file is downloaded from where the payload says, compiled and placed.
  void installPayload() {
    auto payload = decodeServerPayload(run().payloadText);
    ASSERT_TRUE(payload && payload->updateData);
    const std::string bytes = testing::readText(run().out / "models" / modelFileName());
    http_->script({{HttpResponse{200, {}, {}}, std::nullopt, bytes}});
    CoreMLModelManager::Dependencies deps;
    deps.defaults = defaults_;
    deps.fileSystem = makeLocalFileSystem((store_.path() / "data").string());
    deps.modelRuntime = makePortableModelRuntime();
    deps.http = http_;
    deps.crypto = fake_.platform.crypto;
    deps.dateProvider = std::make_shared<StubDateProvider>(Date{1.7e9});
    deps.log = fake_.log;
    deps.updatingQueue = fake_.executors->makeSerialQueue("models");
    deps.errorReporter = [this]() -> ErrorReporter& { return reporter_; };
    deps.remoteConfiguration = [this]() -> RemoteConfiguration& { return remote_; };
    deps.sdkVersion = "5.13.0";
    manager_ = std::make_unique<CoreMLModelManager>(std::move(deps));
    manager_->applyModelUpdates(payload->updateData);
    fake_.drain();
  }

  // The shipped flow's model as the decision gets it from the store.
  const CoreMLModelExecutionInformation* installedModel() {
    info_ = manager_->getModelInfoForFlow(kLearnableFlow);
    return dynamic_cast<const CoreMLModelExecutionInformation*>(info_.executionInformation.get());
  }

  static Loop* loop_;
  const nlohmann::json* shipped_ = nullptr;
  testing::FakePlatform fake_;
  testing::TemporaryDirectory store_{"orvane-train-store"};
  std::shared_ptr<testing::RecordingHttpTransport> http_ =
      std::make_shared<testing::RecordingHttpTransport>();
  testing::RecordingErrorReporter reporter_;
  std::shared_ptr<UserDefaultsProvider> defaults_ = std::make_shared<UserDefaultsProvider>(
      fake_.platform.keyValueStores->openSuite("com.orvane.ads"));
  RemoteConfiguration remote_{defaults_, [this]() -> ErrorReporter& { return reporter_; }, nullptr};
  std::unique_ptr<CoreMLModelManager> manager_;
  CustomModelInfo info_;
};

Loop* TrainerAcceptanceTest::loop_ = nullptr;

TEST_F(TrainerAcceptanceTest, PayloadDecodesToTheEntriesTheTrainerMeant) {
  std::string error;
  auto payload = decodeServerPayload(run().payloadText, &error);
  ASSERT_TRUE(payload && payload->updateData) << error;
  const ServerUpdatePayload& update = *payload->updateData;
  EXPECT_EQ(update.version, 5);
  ASSERT_EQ(update.modelInfoPerFlow.size(), run().report["flows"].size());

  const ServerModelInfo& model = update.modelInfoPerFlow.at(kLearnableFlow);
  EXPECT_FALSE(model.isControl);
  EXPECT_EQ(model.modelUrl, std::string(kModelBaseUrl) + "/" + modelFileName());
  EXPECT_EQ(model.modelVersion, fs::path(modelFileName()).stem().string());
  EXPECT_EQ(model.upsellThreshold, threshold());
  EXPECT_EQ(model.randomUpsellChance, 0.05);
  EXPECT_EQ(model.supportedDuration, 3);  // the duration every context asked for
  EXPECT_EQ(model.useInstantContext, false);

  // The flow without a learnable moment stays on the control rule, as does every flow of the
  // control payload.
  ASSERT_FALSE((*run().flowReport(kNoiseFlow))["ships"].get<bool>());
  const ServerModelInfo& noise = update.modelInfoPerFlow.at(kNoiseFlow);
  EXPECT_TRUE(noise.isControl);
  EXPECT_FALSE(noise.modelUrl);
  EXPECT_EQ(noise.randomUpsellChance, 1.0);
  auto control = decodeServerPayload(run().controlPayloadText, &error);
  ASSERT_TRUE(control && control->updateData) << error;
  for (const auto& [flow, entry] : control->updateData->modelInfoPerFlow) {
    EXPECT_TRUE(entry.isControl && entry.randomUpsellChance == 1.0) << flow;
  }
  EXPECT_EQ(control->updateData->modelInfoPerFlow.size(), update.modelInfoPerFlow.size());
}

TEST_F(TrainerAcceptanceTest, ModelStoreInstallsTheShippedModelAndControlFlow) {
  installPayload();
  EXPECT_TRUE(reporter_.reports().empty()) << reporter_.reports()[0].message;
  ASSERT_EQ(http_->requests().size(), 1u);
  EXPECT_EQ(http_->requests()[0].url, std::string(kModelBaseUrl) + "/" + modelFileName());

  const CoreMLModelExecutionInformation* model = installedModel();
  ASSERT_NE(model, nullptr);
  ASSERT_TRUE(model->coreMLModel());
  EXPECT_FALSE(info_.isControl);
  EXPECT_EQ(info_.modelVersion, fs::path(modelFileName()).stem().string());
  EXPECT_EQ(info_.supportedDuration, 3);
  EXPECT_EQ(whyModelCannotDecide(model->coreMLModel()->description()), std::nullopt);
  EXPECT_EQ(model->modelThresholds().upsellThreshold, threshold());
  EXPECT_EQ(model->randomUpsellChance(), 0.05);
  // The installed model asks for the inputs the report lists, in that order.
  std::vector<std::string> inputs;
  for (const auto& input : model->coreMLModel()->description().inputs) inputs.push_back(input.name);
  EXPECT_EQ(inputs, (*shipped_)["inputs"].get<std::vector<std::string>>());

  const CustomModelInfo noise = manager_->getModelInfoForFlow(kNoiseFlow);
  EXPECT_TRUE(noise.isControl);
  ASSERT_TRUE(noise.executionInformation);
  EXPECT_EQ(noise.executionInformation->randomUpsellChance(), 1.0);
}

// Each row's value as the model reads it: a number, or NaN for a missing value.
double servedNumber(const coreml::FeatureValue& value) {
  if (value.isUndefined()) return NAN;
  if (auto i = value.int64Value()) return static_cast<double>(*i);
  if (auto d = value.doubleValue()) return *d;
  return -12345.678;  // text: no model input here takes it
}

TEST_F(TrainerAcceptanceTest, FeatureProviderServesTheTrainersRowForEachRecord) {
  installPayload();
  const CoreMLModelExecutionInformation* model = installedModel();
  ASSERT_NE(model, nullptr);
  const LoadedModel& loaded = *model->coreMLModel();
  // Every kind of value the SDK sends is an input here: floats (large ones too), integers,
  // bools, text one-hot, custom integers, bools, floats and text; the float that never has a
  // value is not.
  const auto names = (*shipped_)["inputs"].get<std::vector<std::string>>();
  for (const char* name : {"51", "64", "66", "70", "71", "113", "34_-1", "<c>plan</c>_-1",
                           "<c>ratio</c>", "<c>returning</c>", "<c>sessions</c>"}) {
    EXPECT_NE(std::find(names.begin(), names.end(), name), names.end()) << name;
  }
  EXPECT_EQ((*shipped_)["notInputs"].value("72", ""), "never has a value");
  size_t compared = 0, missing = 0, infinite = 0, otherCategory = 0;
  for (const auto& [contextId, row] : run().rows) {
    if (row["flow"] != kLearnableFlow) continue;
    const auto& log = uploads().firstAnswer.at(contextId);
    SignalsManager signals(log->signals(), nullptr);
    ContextDictionaryFeatureProvider provider(signals, log->customSignals(), loaded,
                                              model->coreMLModelMetadata(), fake_.log,
                                              model->featurePlan());
    const auto& inputs = row["inputs"];
    ASSERT_EQ(inputs.size(), loaded.description().inputs.size());
    auto expected = inputs.begin();
    for (const auto& input : loaded.description().inputs) {
      ASSERT_EQ(expected.key(), input.name);
      auto served = provider.featureValue(input.name);
      ASSERT_TRUE(served);
      const double value = servedNumber(*served);
      missing += std::isnan(value);
      infinite += std::isinf(value);
      otherCategory += input.name.ends_with("_-1") && value == 1;
      if (expected->is_null()) {
        EXPECT_TRUE(std::isnan(value)) << contextId << " " << input.name << " = " << value;
      } else if (std::isinf(value)) {
        // scikit-learn refuses infinities: the trainer stands in the largest float of the same
        // sign, which every split it learned sends the same way.
        EXPECT_EQ(expected->get<double>(), std::copysign(std::numeric_limits<float>::max(), value))
            << contextId << " " << input.name;
      } else {
        EXPECT_EQ(value, expected->get<double>()) << contextId << " " << input.name;
        // An int64 input is served an integer, never a double the runtime would refuse.
        if (input.type == coreml::FeatureType::kInt64) {
          EXPECT_TRUE(served->int64Value()) << contextId << " " << input.name;
        }
      }
      ++expected;
    }
    ++compared;
  }
  EXPECT_EQ(compared, (*shipped_)["shownContexts"].get<size_t>());
  EXPECT_GT(missing, 0u);
  EXPECT_GT(infinite, 0u);
  EXPECT_GT(otherCategory, 0u);
}

TEST_F(TrainerAcceptanceTest, DecisionGivesTheTrainersProbabilityForEachRecord) {
  installPayload();
  const CoreMLModelExecutionInformation* model = installedModel();
  ASSERT_NE(model, nullptr);
  fake_.random->scriptUniform({1.0});  // the random chance never forces an upsell
  ModelExecutor executor({fake_.random, nullptr, nullptr, fake_.log,
                          [this]() -> ErrorReporter& { return reporter_; }});
  size_t shown = 0, compared = 0;
  for (const auto& [contextId, row] : run().rows) {
    if (row["flow"] != kLearnableFlow) continue;
    const auto& log = uploads().firstAnswer.at(contextId);
    SignalsManager signals(log->signals(), nullptr);
    const ModelExecutorResult result =
        executor.executeCoreMLModel(info_.modelVersion, *model, {}, signals, log->customSignals());
    auto probabilities = testing::signalValue<std::string>(result.signals, 24);
    ASSERT_TRUE(probabilities) << contextId;
    const double probability = nlohmann::json::parse(*probabilities).at("1").get<double>();
    const double expected = row["probability"].get<double>();
    EXPECT_NEAR(probability, expected, 1e-9) << contextId;
    EXPECT_EQ(result.decision == ModelDecisionCode::kUpsell, probability >= threshold());
    shown += result.decision == ModelDecisionCode::kUpsell;
    ++compared;
  }
  EXPECT_TRUE(reporter_.reports().empty()) << reporter_.reports()[0].message;
  EXPECT_EQ(compared, (*shipped_)["shownContexts"].get<size_t>());
  // The threshold shows about half of the contexts, as the trainer chose it to.
  EXPECT_GT(shown, compared / 3);
  EXPECT_LT(shown, compared * 2 / 3);
}

}  // namespace
}  // namespace orvane
