// File: fixture_agreement_test.cc
// Every converted scikit-learn model must give scikit-learn's own answers: the predicted label
// and each class probability (or the regression value) to 1e-9, both when the model file is
// loaded directly and after compiling it into a folder and loading that.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <limits>
#include <nlohmann/json.hpp>

#include "coreml_test_support.h"

namespace orvane::coreml {
namespace {

using testing::fixturesDir;
using Json = nlohmann::json;

constexpr double kTolerance = 1e-9;

Json readJson(const std::string& path) {
  std::ifstream in(path);
  return Json::parse(in, nullptr, false);
}

double numberOrNaN(const Json& v) {
  return v.is_null() ? std::numeric_limits<double>::quiet_NaN() : v.get<double>();
}

FeatureValue inputValue(const Json& encoded) {
  if (encoded.contains("double")) return FeatureValue::fromDouble(numberOrNaN(encoded["double"]));
  if (encoded.contains("int64")) return FeatureValue::fromInt64(encoded["int64"].get<int64_t>());
  if (encoded.contains("string")) return FeatureValue::fromString(encoded["string"]);
  std::vector<double> values;
  for (const auto& v : encoded["array"]) values.push_back(numberOrNaN(v));
  return FeatureValue::fromDoubles(std::move(values));
}

void expectAgreement(const Model& model, const Json& expected, const std::string& how) {
  const auto& cases = expected["cases"];
  ASSERT_FALSE(cases.empty());
  for (size_t i = 0; i < cases.size(); ++i) {
    SCOPED_TRACE(how + ", case " + std::to_string(i));
    const Json& c = cases[i];
    DictionaryFeatureProvider provider;
    for (const auto& [name, encoded] : c["inputs"].items()) provider.set(name, inputValue(encoded));
    auto out = model.predict(provider);
    ASSERT_TRUE(out.ok()) << out.message();

    if (expected.contains("predictionOutput")) {
      const auto& value = out->at(expected["predictionOutput"].get<std::string>());
      ASSERT_TRUE(value.doubleValue());
      EXPECT_NEAR(*value.doubleValue(), c["prediction"].get<double>(), kTolerance);
      continue;
    }

    const FeatureValue& label = out->at(expected["labelOutput"].get<std::string>());
    const FeatureValue& probabilities = out->at(expected["probabilityOutput"].get<std::string>());
    const bool stringLabels = expected["labelType"] == "string";
    if (stringLabels) {
      ASSERT_NE(label.stringValue(), nullptr);
      EXPECT_EQ(*label.stringValue(), c["label"].get<std::string>());
      const auto* dict = probabilities.stringDictionaryValue();
      ASSERT_NE(dict, nullptr);
      ASSERT_EQ(dict->size(), c["probabilities"].size());
      for (const auto& [key, p] : c["probabilities"].items()) {
        ASSERT_TRUE(dict->count(key)) << key;
        EXPECT_NEAR(dict->at(key), p.get<double>(), kTolerance) << "class " << key;
      }
    } else {
      ASSERT_TRUE(label.int64Value());
      EXPECT_EQ(*label.int64Value(), c["label"].get<int64_t>());
      const auto* dict = probabilities.int64DictionaryValue();
      ASSERT_NE(dict, nullptr);
      ASSERT_EQ(dict->size(), c["probabilities"].size());
      for (const auto& [key, p] : c["probabilities"].items()) {
        const int64_t k = std::stoll(key);
        ASSERT_TRUE(dict->count(k)) << key;
        EXPECT_NEAR(dict->at(k), p.get<double>(), kTolerance) << "class " << key;
      }
    }
  }
}

class FixtureAgreement : public ::testing::TestWithParam<const char*> {};

TEST_P(FixtureAgreement, MatchesScikitLearnLoadedDirectlyAndAfterCompiling) {
  const std::string dir = fixturesDir();
  const std::string name = GetParam();
  const Json expected = readJson(dir + "/" + name + ".expected.json");
  ASSERT_TRUE(expected.is_object()) << "no expected answers for " << name << " in " << dir;

  auto direct = Model::loadModelFile(dir + "/" + name + ".mlmodel");
  ASSERT_TRUE(direct.ok()) << direct.message();
  expectAgreement(direct.value(), expected, "direct");

  const auto out = std::filesystem::temp_directory_path() /
                   ("coreml_fixture_" + name + "_" + std::to_string(::getpid()));
  auto compiled = compileModel(dir + "/" + name + ".mlmodel", out.string());
  ASSERT_TRUE(compiled.ok()) << compiled.message();
  EXPECT_EQ(compiled.value(), (out / (name + ".mlmodelc")).string());
  auto loaded = Model::load(compiled.value());
  ASSERT_TRUE(loaded.ok()) << loaded.message();
  expectAgreement(loaded.value(), expected, "compiled");
  std::filesystem::remove_all(out);
}

INSTANTIATE_TEST_SUITE_P(coreml, FixtureAgreement,
                         ::testing::Values("gbc_binary", "gbc_binary_zero_reference",
                                           "gbc_multiclass", "random_forest",
                                           "decision_tree_mixed_behaviours", "logistic_binary",
                                           "logistic_one_vs_rest", "gbr_regressor",
                                           "pipeline_onehot_gbc", "pipeline_impute_scale_logistic",
                                           "hist_gbc_missing_values", "upsell_signals",
                                           "bench_gbc_400", "bench_gbc_signals", "demo_moment"),
                         [](const auto& info) { return std::string(info.param); });

// The model the service delivers for a flow: what the SDK's executor reads from it.
TEST(coremlUpsellFixture, CarriesTheDescriptionTheExecutorReads) {
  auto model = Model::loadModelFile(fixturesDir() + "/upsell_signals.mlmodel");
  ASSERT_TRUE(model.ok()) << model.message();
  const auto& meta = model->metadata();
  EXPECT_EQ(meta.versionString, "upsell-demo-2024.06.1");
  const Json description = Json::parse(meta.shortDescription, nullptr, false);
  ASSERT_TRUE(description.is_object());
  EXPECT_TRUE(description["supportedDuration"].is_number_integer());
  EXPECT_TRUE(description["useInstantContext"].is_boolean());
  EXPECT_EQ(description["mappings"]["34"].size(), 4u);
  const auto& d = model->description();
  EXPECT_EQ(d.predictedProbabilitiesName, "classProbability");
  ASSERT_NE(d.input("34_-1"), nullptr);
  EXPECT_EQ(d.input("34_-1")->type, FeatureType::kInt64);
  ASSERT_NE(d.input("<c>sessions</c>"), nullptr);
  ASSERT_NE(d.output("classProbability"), nullptr);
  EXPECT_EQ(d.output("classProbability")->dictionaryKeyType, DictionaryKeyType::kString);
}

}  // namespace
}  // namespace orvane::coreml
