#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "models/ContextDictionaryFeatureProvider.h"
#include "models/ModelExecutor.h"
#include "models/ModelOutputCheck.h"
#include "testutil/FakePlatform.h"
#include "testutil/Fixtures.h"

namespace orvane {
namespace {

using coreml::FeatureType;
using coreml::FeatureValue;

// A model whose answer the test chooses; it records the inputs it was given.
class ScriptedModel : public LoadedModel {
 public:
  explicit ScriptedModel(std::vector<coreml::FeatureDescription> inputs) {
    description_.inputs = std::move(inputs);
  }
  const coreml::ModelDescription& description() const override { return description_; }
  coreml::Result<std::map<std::string, FeatureValue>> predict(
      const coreml::FeatureProvider& inputs) const override {
    for (const auto& input : description_.inputs)
      seen[input.name] = inputs.featureValue(input.name);
    if (failWith) return coreml::Error(*failWith);
    return outputs;
  }

  std::map<std::string, FeatureValue> outputs;
  std::optional<std::string> failWith;
  mutable std::map<std::string, std::optional<FeatureValue>> seen;

 private:
  coreml::ModelDescription description_;
};

coreml::FeatureDescription input(std::string name, FeatureType type) {
  coreml::FeatureDescription d;
  d.name = std::move(name);
  d.type = type;
  return d;
}

std::map<std::string, FeatureValue> probabilityOfOne(double p) {
  return {{"classProbability",
           FeatureValue::fromDictionary(FeatureValue::StringDictionary{{"0", 1 - p}, {"1", p}})}};
}

class ModelExecutorTest : public ::testing::Test {
 protected:
  testing::FakePlatform fake;
  testing::RecordingErrorReporter reporter;
  std::shared_ptr<StubDateProvider> date = std::make_shared<StubDateProvider>(Date{0});
  ModelExecutor executor{{fake.random, makeFixedOffsetCalendar("GMT", 0), date, fake.log,
                          [this]() -> ErrorReporter& { return reporter; }}};
  std::shared_ptr<ScriptedModel> model =
      std::make_shared<ScriptedModel>(std::vector{input("70", FeatureType::kDouble)});
  SignalsManager signals{{SignalFloat(SignalEnum::id(70), 0.5f)}, fake.log};

  ModelExecutorResult run(double probability, double threshold, double chance,
                          ExtraModelExecutionInformation extra = {},
                          std::optional<std::vector<std::vector<double>>> hourly = {}) {
    model->outputs = probabilityOfOne(probability);
    CoreMLModelExecutionInformation info(chance, ModelThresholds{threshold, hourly, {}}, model,
                                         CoreMLModelMetadata{5, false, {}});
    return executor.executeCoreMLModel("v7", info, extra, signals, {});
  }
  static float thresholdOf(const ModelExecutorResult& r) {
    return std::get<float>(r.signals.at(3).value());
  }
  static bool forcedOf(const ModelExecutorResult& r) {
    return std::get<bool>(r.signals.at(4).value());
  }
};

TEST_F(ModelExecutorTest, ModelDecisionAgainstThresholdAndChance) {
  fake.random->scriptUniform({0.3});  // every draw 0.3
  struct Case {
    double probability, threshold, chance;
    ModelDecisionCode code;
    bool forced;
  };
  const Case cases[] = {
      {0.5, 0.5, 0.0, ModelDecisionCode::kUpsell, false},  // equal is not below
      {0.7, 0.5, 0.0, ModelDecisionCode::kUpsell, false},
      {0.4, 0.5, 0.0, ModelDecisionCode::kNoUpsell, false},  // a chance of 0 never hits
      {0.4, 0.5, 0.3, ModelDecisionCode::kNoUpsell, false},  // 0.3 is not below 0.3
      {0.4, 0.5, 0.31, ModelDecisionCode::kForcedUpsell, true},
      {0.4, 0.5, 1.0, ModelDecisionCode::kForcedUpsell, true},
      {0.9, 0.95, 1.0, ModelDecisionCode::kForcedUpsell, true},
  };
  for (const Case& c : cases) {
    auto r = run(c.probability, c.threshold, c.chance);
    EXPECT_EQ(r.decision, c.code) << c.probability << " vs " << c.threshold << " @" << c.chance;
    EXPECT_EQ(forcedOf(r), c.forced) << c.probability << " @" << c.chance;
  }
}

TEST_F(ModelExecutorTest, SignalsComeInOrderWithVersionProbabilitiesAndThreshold) {
  fake.random->scriptUniform({0.9});
  auto r = run(0.25, 0.3, 0.1);
  EXPECT_EQ(testing::signalSummary(r.signals),
            R"(s18="v7" i16=1 s24="{"0":0.75,"1":0.25}" f426=0.3 b26=false)");
  EXPECT_EQ(r.decision, ModelDecisionCode::kNoUpsell);
  // The model was handed the float signal widened to double.
  EXPECT_EQ(model->seen.at("70"), FeatureValue::fromDouble(0.5));
}

TEST_F(ModelExecutorTest, MissingOrNumberKeyedProbabilitiesCountAsUpsell) {
  fake.random->scriptUniform({0.0});
  const std::map<std::string, FeatureValue> answers[] = {
      {},
      {{"classProbability",
        FeatureValue::fromDictionary(FeatureValue::Int64Dictionary{{0, 0.9}, {1, 0.1}})}},
      {{"classProbability",
        FeatureValue::fromDictionary(FeatureValue::StringDictionary{{"yes", 0.1}})}},
  };
  for (const auto& outputs : answers) {
    model->outputs = outputs;
    CoreMLModelExecutionInformation info(1.0, ModelThresholds{0.5, {}, {}}, model, {});
    auto r = executor.executeCoreMLModel("v", info, {}, signals, {});
    EXPECT_EQ(r.decision, ModelDecisionCode::kUpsell);
    EXPECT_FALSE(forcedOf(r));
  }
  model->outputs = {};
  CoreMLModelExecutionInformation info(1.0, ModelThresholds{0.5, {}, {}}, model, {});
  EXPECT_EQ(executor.executeCoreMLModel("v", info, {}, signals, {}).signals[2],
            SignalString(SignalEnum::id(24), R"({"1":-1})"));
}

TEST_F(ModelExecutorTest, ThresholdComesFromRequestThenHourlyTableThenFixedValue) {
  std::vector<std::vector<double>> hourly(7, std::vector<double>(24, 0.2));
  // 1970-01-01 was a Thursday (weekday 5); 10:15 UTC.
  date->setStubDate(Date{10 * 3600 + 15 * 60});
  hourly[4][10] = 0.4;
  hourly[4][11] = 0.8;
  EXPECT_FLOAT_EQ(thresholdOf(run(0.5, 0.6, 0, {}, hourly)), 0.5f);
  ExtraModelExecutionInformation extra{
      [](const CoreMLModelExecutionInformation& info) -> std::optional<double> {
        return info.modelThresholds().upsellThreshold / 2;
      }};
  EXPECT_FLOAT_EQ(thresholdOf(run(0.5, 0.6, 0, extra, hourly)), 0.3f);
  ExtraModelExecutionInformation declines{
      [](const CoreMLModelExecutionInformation&) -> std::optional<double> { return {}; }};
  EXPECT_FLOAT_EQ(thresholdOf(run(0.5, 0.6, 0, declines)), 0.6f);
}

TEST_F(ModelExecutorTest, HourlyInterpolationCrossesIntoTheNextDay) {
  std::vector<std::vector<double>> table(7, std::vector<double>(24, 0));
  for (size_t day = 0; day < 7; ++day) {
    for (size_t hour = 0; hour < 24; ++hour)
      table[day][hour] = static_cast<double>(day * 100 + hour);
  }
  auto at = [&](double seconds) {
    return ModelExecutor::calculateHourlyUpsellThreshold(*makeFixedOffsetCalendar("GMT", 0),
                                                         Date{seconds}, table);
  };
  const double tuesday = 5 * 86400;  // 1970-01-06
  EXPECT_DOUBLE_EQ(*at(tuesday + 23 * 3600 + 30 * 60), 0.5 * 223 + 0.5 * 300);
  EXPECT_DOUBLE_EQ(*at(tuesday + 9 * 3600), 209);
  EXPECT_DOUBLE_EQ(*at(tuesday + 9 * 3600 + 45 * 60), 209.75);
  const double saturday = 2 * 86400;  // 1970-01-03
  EXPECT_DOUBLE_EQ(*at(saturday + 23 * 3600 + 6 * 60), 623 + 0.1 * (0 - 623));

  table[2] = {0.6};
  table[2].resize(24, 0.6);
  table[3][0] = 0.7;
  EXPECT_NEAR(*at(tuesday + 23 * 3600 + 30 * 60), 0.65, 1e-12);
  EXPECT_FALSE(ModelExecutor::calculateHourlyUpsellThreshold(*makeFixedOffsetCalendar("GMT", 0),
                                                             Date{1e300}, table));
}

TEST_F(ModelExecutorTest, FailingModelIsReportedAndFallsToAlwaysUpsell) {
  model->failWith = "missing input '70'";
  CoreMLModelExecutionInformation info(0.0, ModelThresholds{0.5, {}, {}}, model, {});
  auto r = executor.executeCoreMLModel("v7", info, {}, signals, {});
  EXPECT_EQ(r.decision, ModelDecisionCode::kForcedUpsell);
  EXPECT_EQ(r.signals, (SignalList{SignalInt(SignalEnum::id(16), 0)}));
  ASSERT_EQ(reporter.count("Failed to execute CoreML model."), 1u);
  EXPECT_TRUE(reporter.reports()[0].usingDefaultConfiguration);
  EXPECT_EQ(reporter.reports()[0].error->description, "missing input '70'");
}

TEST_F(ModelExecutorTest, ControlRule) {
  auto certain = executor.executeControlGroup("ctl", 1.0);
  EXPECT_EQ(certain.decision, ModelDecisionCode::kForcedUpsell);
  EXPECT_EQ(testing::signalSummary(certain.signals), R"(i16=0 s18="ctl")");
  EXPECT_EQ(executor.executeControlGroup("", 1.0).signals.size(), 1u);

  fake.random->scriptUniform({0.4, 0.6});
  auto hit = executor.executeControlGroup("", 0.5);
  EXPECT_EQ(hit.decision, ModelDecisionCode::kForcedUpsell);
  EXPECT_EQ(hit.signals.back(), SignalBool(SignalEnum::id(26), true));
  auto miss = executor.executeControlGroup("", 0.5);
  EXPECT_EQ(miss.decision, ModelDecisionCode::kNoUpsell);
  EXPECT_EQ(miss.signals.back(), SignalBool(SignalEnum::id(26), false));
}

TEST(ProbabilitiesJsonTest, NonFiniteValuesFallBackToTheShortForm) {
  EXPECT_EQ(ModelExecutor::probabilitiesJson(std::map<std::string, double>{{"1", NAN}}, NAN),
            "{\"1\": nan}");
  EXPECT_EQ(ModelExecutor::probabilitiesJson(std::map<std::string, double>{{"a\"b", 1e-7}}, 0),
            R"({"a\"b":1e-07})");
}

TEST(FeatureNameGrammarTest, SplitsSignalCustomAndCategory) {
  using P = ParsedFeatureName;
  auto parse = ContextDictionaryFeatureProvider::parseFeatureName;
  EXPECT_EQ(parse("412"), (P{"412", false, std::nullopt}));
  EXPECT_EQ(parse("412_0"), (P{"412", false, "0"}));
  EXPECT_EQ(parse("412_-1_x"), (P{"412", false, "-1"}));
  EXPECT_EQ(parse("412_"), (P{"412", false, ""}));
  EXPECT_EQ(parse("<c>plan</c>_2"), (P{"plan", true, "2"}));
  EXPECT_EQ(parse("<c>my_plan</c>"), (P{"my_plan", true, std::nullopt}));
  EXPECT_EQ(parse("<c></c>_1"), (P{"", true, "1"}));
  EXPECT_EQ(parse("<c>plan"), std::nullopt);
  EXPECT_EQ(parse("x<c>plan</c>"), (P{"x<c>plan</c>", false, std::nullopt}));
}

class FeatureProviderTest : public ::testing::Test {
 protected:
  testing::FakePlatform fake;
  ScriptedModel model{
      {input("34_0", FeatureType::kInt64),          input("34_1", FeatureType::kInt64),
       input("34_-1", FeatureType::kInt64),         input("35_-1", FeatureType::kInt64),
       input("35_0", FeatureType::kInt64),          input("52", FeatureType::kInt64),
       input("53", FeatureType::kDouble),           input("71", FeatureType::kString),
       input("<c>a</c>", FeatureType::kInt64),      input("<c>b</c>", FeatureType::kDouble),
       input("<c>d</c>", FeatureType::kString),     input("<c>e</c>", FeatureType::kDouble),
       input("<c>f</c>", FeatureType::kInt64),      input("<c>g</c>", FeatureType::kString),
       input("<c>h</c>", FeatureType::kString),     input("<c>none</c>", FeatureType::kInt64),
       input("abc", FeatureType::kDouble),          input("70000", FeatureType::kInt64),
       input("999", FeatureType::kDouble),          input("+52", FeatureType::kInt64),
       input("<c>f</c>_0", FeatureType::kInt64),    input("<c>plan</c>_0", FeatureType::kInt64),
       input("<c>plan</c>_1", FeatureType::kInt64), input("<c>plan</c>_-1", FeatureType::kInt64),
       input("<c>g</c>_1", FeatureType::kDouble),   input("<c>d</c>_0", FeatureType::kInt64)}};
  CoreMLModelMetadata metadata{
      5, false,
      std::map<std::string, std::vector<std::string>>{{"34", {"US", "DE"}},
                                                      {"f", {"7", "8"}},
                                                      {"<c>plan</c>", {"free", "pro"}},
                                                      {"plan", {"pro", "free"}},
                                                      {"g", {"silver", "gold"}},
                                                      {"<c>d</c>", {"12.5"}}}};
  SignalsManager signals{
      {SignalString(SignalEnum::id(34), "FR"), SignalString(SignalEnum::id(35), "x"),
       SignalBool(SignalEnum::id(52), true), SignalFloat(SignalEnum::id(53), 0.25f),
       SignalString(SignalEnum::id(71), "hi"), SignalInt(SignalEnum::id(52), 9)},
      fake.log};
  CustomSignalList custom{CustomSignalBool("a", true),
                          CustomSignalFloat("b", 1.5f),
                          CustomSignalDecimal("d", *Decimal::parse("12.50")),
                          CustomSignalDecimal("e", *Decimal::parse("2.5")),
                          CustomSignalInt("f", 8),
                          CustomSignalString("g", "gold"),
                          CustomSignalInt("h", 3),
                          CustomSignalInt("f", 99),
                          CustomSignalString("plan", "pro")};
  ContextDictionaryFeatureProvider provider{signals, custom, model, metadata, fake.log};

  FeatureValue value(const std::string& name) { return *provider.featureValue(name); }
};

TEST_F(FeatureProviderTest, BuiltInSignalsAndOneHotColumns) {
  // One-hot columns of a mapped signal are fed through the delivered model's fixture below.
  // 35 has no mapping at all: "-1" is 1, any other column 0.
  EXPECT_EQ(value("35_-1"), FeatureValue::fromInt64(1));
  EXPECT_EQ(value("35_0"), FeatureValue::fromInt64(0));
  EXPECT_EQ(value("52"), FeatureValue::fromInt64(1));  // the first 52 wins
  EXPECT_EQ(value("53"), FeatureValue::fromDouble(0.25));
  EXPECT_EQ(value("71"), FeatureValue::fromString("hi"));
  EXPECT_EQ(value("+52"), FeatureValue::fromInt64(1));
  // Not a number, out of range, or not in the catalogue: missing, typed as the input.
  EXPECT_EQ(value("abc"), FeatureValue::undefined(FeatureType::kDouble));
  EXPECT_EQ(value("70000"), FeatureValue::undefined(FeatureType::kInt64));
  EXPECT_EQ(value("999"), FeatureValue::undefined(FeatureType::kDouble));
  EXPECT_EQ(value("not-an-input"), FeatureValue::undefined(FeatureType::kDouble));
}

TEST_F(FeatureProviderTest, CustomSignalsFollowTheInputType) {
  EXPECT_EQ(value("<c>a</c>"), FeatureValue::fromInt64(1));
  EXPECT_EQ(value("<c>b</c>"), FeatureValue::fromDouble(1.5));
  EXPECT_EQ(value("<c>d</c>"), FeatureValue::fromString("12.5"));
  EXPECT_EQ(value("<c>e</c>"), FeatureValue::fromDouble(2.5));
  EXPECT_EQ(value("<c>f</c>"), FeatureValue::fromInt64(8));  // the first "f"
  EXPECT_EQ(value("<c>g</c>"), FeatureValue::fromString("gold"));
  EXPECT_EQ(value("<c>f</c>_0"), FeatureValue::fromInt64(0));  // "8" is category 1
  EXPECT_EQ(value("<c>none</c>"), FeatureValue::undefined(FeatureType::kInt64));
  EXPECT_EQ(fake.log->lines().size(), 0u);

  // An int where the model wants a string: logged, and served as missing.
  EXPECT_EQ(value("<c>h</c>"), FeatureValue::undefined(FeatureType::kString));
  EXPECT_EQ(fake.log->count("[Orvane] Encountered feature <c>h</c> where Model type (3) does not "
                            "match custom signal type (int)"),
            1u);
}

TEST_F(FeatureProviderTest, CategoricalCustomSignalsLightTheirColumn) {
  // Text and decimal signals feed numeric one-hot columns; the tagged name's categories win
  // over the bare id's, which still serve a model that lists them only there.
  EXPECT_EQ(value("<c>plan</c>_0"), FeatureValue::fromInt64(0));
  EXPECT_EQ(value("<c>plan</c>_1"), FeatureValue::fromInt64(1));
  EXPECT_EQ(value("<c>plan</c>_-1"), FeatureValue::fromInt64(0));
  EXPECT_EQ(value("<c>g</c>_1"), FeatureValue::fromInt64(1));
  EXPECT_EQ(value("<c>d</c>_0"), FeatureValue::fromInt64(1));
  EXPECT_EQ(fake.log->lines().size(), 0u);  // no type mismatch for a one-hot column
}

coreml::ModelDescription classifierDescription(std::vector<std::string> labels,
                                               coreml::DictionaryKeyType keys) {
  coreml::ModelDescription d;
  d.predictedFeatureName = "classLabel";
  d.predictedProbabilitiesName = "classProbability";
  coreml::FeatureDescription probabilities = input("classProbability", FeatureType::kDictionary);
  probabilities.dictionaryKeyType = keys;
  d.outputs = {input("classLabel", FeatureType::kString), probabilities};
  d.stringClassLabels = std::move(labels);
  return d;
}

TEST(ModelOutputCheckTest, OnlyStringLabelledProbabilitiesWithLabelOneDriveTheDecision) {
  using coreml::DictionaryKeyType;
  EXPECT_EQ(whyModelCannotDecide(classifierDescription({"0", "1"}, DictionaryKeyType::kString)),
            std::nullopt);
  // Older files leave the probability output's name out.
  auto unnamed = classifierDescription({"1", "2"}, DictionaryKeyType::kString);
  unnamed.predictedProbabilitiesName.clear();
  EXPECT_EQ(whyModelCannotDecide(unnamed), std::nullopt);

  auto integers = classifierDescription({}, DictionaryKeyType::kInt64);
  integers.int64ClassLabels = {0, 1};
  auto regressor = classifierDescription({}, DictionaryKeyType::kString);
  auto labelOnly = classifierDescription({"0", "1"}, DictionaryKeyType::kString);
  labelOnly.predictedProbabilitiesName.clear();
  labelOnly.outputs.pop_back();
  auto renamed = classifierDescription({"0", "1"}, DictionaryKeyType::kString);
  renamed.predictedProbabilitiesName = "probabilities";
  renamed.outputs[1].name = "probabilities";
  const std::pair<coreml::ModelDescription, const char*> refused[] = {
      {integers, "integers"},
      {regressor, "not a classifier"},
      {labelOnly, "no class probabilities"},
      {renamed, "'probabilities'"},
      {classifierDescription({"no", "yes"}, DictionaryKeyType::kString), "do not include \"1\""},
  };
  for (const auto& [description, reason] : refused) {
    const auto why = whyModelCannotDecide(description);
    ASSERT_TRUE(why) << reason;
    EXPECT_NE(why->find(reason), std::string::npos) << *why;
  }
}

TEST(DefaultDecimalTextTest, MatchesThePlatformsNumberText) {
  for (const auto& [value, text] : {std::pair{2.0, "2.0"},
                                    {-1.0, "-1.0"},
                                    {0.1, "0.1"},
                                    {1e-5, "1e-05"},
                                    {1e16, "1e+16"},
                                    {0.0, "0.0"},
                                    {INFINITY, "inf"}}) {
    EXPECT_EQ(defaultDecimalText(value), text);
  }
}

TEST(UpsellModelTest, ProviderFeedsTheDeliveredModelAsScikitLearnPredicted) {
  auto runtime = makePortableModelRuntime();
  auto compiled = runtime->compileModel(testing::fixturePath("coreml/upsell_signals.mlmodel"),
                                        ::testing::TempDir() + "orvane-executor-upsell");
  ASSERT_TRUE(compiled.ok()) << compiled.message();
  auto loaded = runtime->loadCompiledModel(*compiled);
  ASSERT_TRUE(loaded.ok());
  auto metadata = decodeCoreMLModelMetadata((*loaded)->description().metadata.shortDescription);
  ASSERT_TRUE(metadata.ok());

  const auto expected =
      nlohmann::json::parse(testing::readFixture("coreml/upsell_signals.expected.json"));
  testing::FakePlatform fake;
  const std::vector<std::string> regions = {"US", "DE", "GB", "FR"};
  int checked = 0;
  for (const auto& c : expected["cases"]) {
    SignalList list;
    CustomSignalList custom;
    std::string region = "elsewhere";
    for (const auto& [name, typed] : c["inputs"].items()) {
      if (name.starts_with("34_")) {
        const int column = std::stoi(name.substr(3));
        if (typed["int64"] == 1 && column >= 0) region = regions[static_cast<size_t>(column)];
      } else if (name == "<c>sessions</c>") {
        custom.push_back(CustomSignalInt("sessions", typed["int64"].get<int64_t>()));
      } else {
        const auto id = *SignalEnum::fromRawValue(static_cast<uint16_t>(std::stoi(name)));
        if (typed.contains("double")) {
          list.push_back(SignalFloat(id, typed["double"].get<float>()));
        } else {
          list.push_back(SignalInt(id, typed["int64"].get<int64_t>()));
        }
      }
    }
    list.push_back(SignalString(SignalEnum::id(34), region));
    SignalsManager signals(list, fake.log);
    ModelExecutor executor({fake.random, makeFixedOffsetCalendar("GMT", 0),
                            std::make_shared<StubDateProvider>(Date{0}), fake.log, nullptr});
    CoreMLModelExecutionInformation info(0.0, ModelThresholds{0.5, {}, {}}, *loaded, *metadata);
    auto r = executor.executeCoreMLModel("upsell-demo-2024.06.1", info, {}, signals, custom);
    const double p1 = c["probabilities"]["1"].get<double>();
    auto probabilities = nlohmann::json::parse(std::get<std::string>(r.signals[2].value()));
    EXPECT_NEAR(probabilities["1"].get<double>(), p1, 1e-9);
    EXPECT_EQ(r.decision, p1 < 0.5 ? ModelDecisionCode::kNoUpsell : ModelDecisionCode::kUpsell);
    ++checked;
  }
  EXPECT_GT(checked, 20);
}

}  // namespace
}  // namespace orvane
