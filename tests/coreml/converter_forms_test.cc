// File: converter_forms_test.cc
// Forms a converter writes that the fixtures' own writer does not: sparse one-hot output
// feeding the feature vectorizer; what a description says about class labels; and which
// refusals mean "this runtime will never run the model" rather than "this file is broken".
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "coreml_test_support.h"

namespace orvane::coreml {
namespace {

using namespace testing;  // NOLINT: the helpers of this folder
using Json = nlohmann::json;

schema::Model fixtureMessage(const std::string& name) {
  schema::Model m;
  EXPECT_TRUE(m.ParseFromString(::orvane::testing::readFixture("coreml/" + name + ".mlmodel")));
  return m;
}

void setInt64Dictionary(schema::FeatureType* type) {
  type->Clear();
  type->mutable_dictionarytype()->mutable_int64keytype();
}

// The one-hot pipeline with both encoders switched to sparse output, declared as such.
schema::Model sparseOneHotPipeline() {
  schema::Model m = fixtureMessage("pipeline_onehot_gbc");
  auto* stages = m.mutable_pipelineclassifier()->mutable_pipeline();
  for (int i = 0; i < 2; ++i) {
    schema::Model* encoder = stages->mutable_models(i);
    encoder->mutable_onehotencoder()->set_outputsparse(true);
    setInt64Dictionary(encoder->mutable_description()->mutable_output(0)->mutable_type());
    // The vectorizer's first two inputs are the encoders' outputs.
    setInt64Dictionary(
        stages->mutable_models(2)->mutable_description()->mutable_input(i)->mutable_type());
  }
  return m;
}

TEST(coremlSparseOneHot, VectorizerPlacesDictionaryEntriesAtTheirKeys) {
  auto model = build(sparseOneHotPipeline());
  ASSERT_TRUE(model.ok()) << model.message();
  const Json expected =
      Json::parse(::orvane::testing::readFixture("coreml/pipeline_onehot_gbc.expected.json"));
  ASSERT_FALSE(expected["cases"].empty());
  // The same answers as the dense pipeline, which matches scikit-learn (unknown categories
  // included: a sparse encoder leaves them out, the dense one writes zeros).
  for (const Json& c : expected["cases"]) {
    const Json& in = c["inputs"];
    auto out = predictWith(*model, {{"color", FeatureValue::fromString(in["color"]["string"])},
                                    {"size", FeatureValue::fromInt64(in["size"]["int64"])},
                                    {"x0", FeatureValue::fromDouble(in["x0"]["double"])},
                                    {"x1", FeatureValue::fromDouble(in["x1"]["double"])}});
    ASSERT_TRUE(out.ok()) << out.message();
    const auto* probabilities = out->at("classProbability").int64DictionaryValue();
    ASSERT_NE(probabilities, nullptr);
    for (const auto& [label, p] : c["probabilities"].items()) {
      EXPECT_NEAR(probabilities->at(std::stoll(label)), p.get<double>(), 1e-9) << c.dump();
    }
  }
}

TEST(coremlSparseOneHot, KeysOutsideTheDeclaredWidthAndStringKeysAreRefused) {
  schema::Model vec;
  vec.set_specificationversion(1);
  addFeature(vec.mutable_description()->mutable_input(), "in", "int64dict");
  addFeature(vec.mutable_description()->mutable_input(), "x", "double");
  addFeature(vec.mutable_description()->mutable_output(), "out", "array");
  for (const auto& [column, width] : {std::pair{"in", 3}, {"x", 1}}) {
    auto* c = vec.mutable_featurevectorizer()->add_inputlist();
    c->set_inputcolumn(column);
    c->set_inputdimensions(width);
  }
  auto model = build(vec);
  ASSERT_TRUE(model.ok()) << model.message();
  auto placed = predictWith(
      *model,
      {{"in", FeatureValue::fromDictionary(FeatureValue::Int64Dictionary{{2, 0.5}, {0, 4}})},
       {"x", FeatureValue::fromDouble(7)}});
  ASSERT_TRUE(placed.ok()) << placed.message();
  EXPECT_EQ(placed->at("out").multiArrayValue()->values, (std::vector<double>{4, 0, 0.5, 7}));

  for (int64_t key : {3, -1}) {
    auto outside = predictWith(
        *model, {{"in", FeatureValue::fromDictionary(FeatureValue::Int64Dictionary{{key, 1.0}})},
                 {"x", FeatureValue::fromDouble(0)}});
    ASSERT_FALSE(outside.ok()) << key;
    EXPECT_NE(outside.message().find("key " + std::to_string(key)), std::string::npos)
        << outside.message();
  }

  setInt64Dictionary(vec.mutable_description()->mutable_input(0)->mutable_type());
  vec.mutable_description()
      ->mutable_input(0)
      ->mutable_type()
      ->mutable_dictionarytype()
      ->mutable_stringkeytype();
  auto stringKeys = build(vec);
  ASSERT_FALSE(stringKeys.ok());
  EXPECT_NE(stringKeys.message().find("integer keys"), std::string::npos) << stringKeys.message();
}

TEST(coremlDescription, APipelineNamesTheLabelsOfTheStageThatWritesItsProbabilities) {
  auto pipeline = Model::loadModelFile(fixturesDir() + "/pipeline_onehot_gbc.mlmodel");
  ASSERT_TRUE(pipeline.ok());
  EXPECT_EQ(pipeline->description().int64ClassLabels, (std::vector<int64_t>{0, 1}));
  EXPECT_TRUE(pipeline->description().stringClassLabels.empty());
}

// Newer versions and unknown kinds at the top level are marked too (the store's suite).
TEST(coremlUnsupported, TheMarkSurvivesNestingAndBrokenFilesCarryNone) {
  schema::Model nested = fixtureMessage("pipeline_onehot_gbc");
  nested.mutable_pipelineclassifier()->mutable_pipeline()->mutable_models(3)->mutable_mlprogram();
  auto refused = build(nested);
  ASSERT_FALSE(refused.ok());
  EXPECT_TRUE(refused.error().isUnsupported()) << refused.message();
  EXPECT_NE(refused.message().find("'trees'"), std::string::npos);  // the stage is named

  schema::Model dangling = smallTreeClassifier();
  dangling.mutable_treeensembleclassifier()
      ->mutable_treeensemble()
      ->mutable_nodes(0)
      ->set_truechildnodeid(9);
  EXPECT_FALSE(build(dangling).error().isUnsupported());
}

}  // namespace
}  // namespace orvane::coreml
