// File: evaluation_test.cc
// Evaluation rules that the scikit-learn fixtures do not reach: branch behaviours, missing
// values, transforms, probit, the preprocessing steps, input conversion, the compiled folder.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <limits>
#include <thread>

#include "coreml_test_support.h"

namespace orvane::coreml {
namespace {

using namespace testing;  // NOLINT: the helpers of this folder

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

// One stump over input "x": behaviour `b` against 1.0; the true leaf gives +1, the false -1.
schema::Model stump(TreeNode::TreeNodeBehavior b, bool missingGoesTrue) {
  schema::Model m;
  m.set_specificationversion(1);
  addFeature(m.mutable_description()->mutable_input(), "x", "double");
  addFeature(m.mutable_description()->mutable_output(), "y", "double");
  m.mutable_description()->set_predictedfeaturename("y");
  auto* params = m.mutable_treeensembleregressor()->mutable_treeensemble();
  params->set_numpredictiondimensions(1);
  addBranch(params, 0, 0, 0, 1.0, 1, 2, b)->set_missingvaluetrackstruechild(missingGoesTrue);
  addLeaf(params, 0, 1, 1.0);
  addLeaf(params, 0, 2, -1.0);
  return m;
}

double predictY(const Model& model, FeatureValue x) {
  auto out = predictWith(model, {{"x", std::move(x)}});
  EXPECT_TRUE(out.ok()) << out.message();
  return out.ok() ? out->at("y").doubleValue().value_or(kNaN) : kNaN;
}

struct BehaviourCase {
  TreeNode::TreeNodeBehavior behaviour;
  // Whether the true branch is taken for x = 0.5, 1.0 (the threshold) and 1.5.
  bool below, at, above;
};

class coremlBranchBehaviour : public ::testing::TestWithParam<BehaviourCase> {};

TEST_P(coremlBranchBehaviour, ComparesAndRoutesMissingValuesByTheNodesFlag) {
  const auto& c = GetParam();
  for (bool missingGoesTrue : {false, true}) {
    auto model = build(stump(c.behaviour, missingGoesTrue));
    ASSERT_TRUE(model.ok()) << model.message();
    EXPECT_EQ(predictY(*model, FeatureValue::fromDouble(0.5)), c.below ? 1.0 : -1.0);
    EXPECT_EQ(predictY(*model, FeatureValue::fromDouble(1.0)), c.at ? 1.0 : -1.0);
    EXPECT_EQ(predictY(*model, FeatureValue::fromDouble(1.5)), c.above ? 1.0 : -1.0);
    // NaN and a missing (undefined) value follow the flag whatever the comparison.
    EXPECT_EQ(predictY(*model, FeatureValue::fromDouble(kNaN)), missingGoesTrue ? 1.0 : -1.0);
    EXPECT_EQ(predictY(*model, FeatureValue::undefined(FeatureType::kDouble)),
              missingGoesTrue ? 1.0 : -1.0);
  }
}

INSTANTIATE_TEST_SUITE_P(
    All, coremlBranchBehaviour,
    ::testing::Values(BehaviourCase{TreeNode::BranchOnValueLessThanEqual, true, true, false},
                      BehaviourCase{TreeNode::BranchOnValueLessThan, true, false, false},
                      BehaviourCase{TreeNode::BranchOnValueGreaterThanEqual, false, true, true},
                      BehaviourCase{TreeNode::BranchOnValueGreaterThan, false, false, true},
                      BehaviourCase{TreeNode::BranchOnValueEqual, false, true, false},
                      BehaviourCase{TreeNode::BranchOnValueNotEqual, true, false, true}));

// A classifier whose trees add fixed scores, so the transform alone decides the answer.
schema::Model fixedScores(std::vector<double> scores, schema::TreeEnsemblePostEvaluationTransform t,
                          int classes) {
  schema::Model m = smallTreeClassifier();
  auto* tec = m.mutable_treeensembleclassifier();
  tec->set_postevaluationtransform(t);
  tec->mutable_int64classlabels()->clear_vector();
  for (int c = 0; c < classes; ++c) tec->mutable_int64classlabels()->add_vector(10 + c);
  auto* params = tec->mutable_treeensemble();
  params->Clear();
  params->set_numpredictiondimensions(scores.size());
  auto* leaf = addLeaf(params, 0, 0, scores[0], 0);
  for (size_t i = 1; i < scores.size(); ++i) {
    auto* info = leaf->add_evaluationinfo();
    info->set_evaluationindex(i);
    info->set_evaluationvalue(scores[i]);
  }
  return m;
}

std::map<int64_t, double> probabilities(const schema::Model& m) {
  auto model = build(m);
  EXPECT_TRUE(model.ok()) << model.message();
  if (!model.ok()) return {};
  auto out =
      predictWith(*model, {{"a", FeatureValue::fromDouble(0)}, {"b", FeatureValue::fromDouble(0)}});
  EXPECT_TRUE(out.ok()) << out.message();
  if (!out.ok()) return {};
  const auto* dict = out->at("classProbability").int64DictionaryValue();
  return dict ? *dict : std::map<int64_t, double>{};
}

// Two-class logistic and zero-class-reference scores are checked against the boosted-tree fixtures.
TEST(coremlTransforms, ShapeScoresIntoProbabilities) {
  auto p = probabilities(
      fixedScores({1.0, 2.0}, schema::Classification_SoftMaxWithZeroClassReference, 3));
  const double z = 1.0 + std::exp(1.0) + std::exp(2.0);
  EXPECT_NEAR(p[10], 1.0 / z, 1e-15);
  EXPECT_NEAR(p[12], std::exp(2.0) / z, 1e-15);
  // Soft-max of large scores must not overflow.
  p = probabilities(fixedScores({1000.0, 1000.0, 999.0}, schema::Classification_SoftMax, 3));
  EXPECT_NEAR(p[10], p[11], 1e-15);
  EXPECT_NEAR(p[10] + p[11] + p[12], 1.0, 1e-15);
  // No transform passes scores through.
  p = probabilities(fixedScores({0.25, 0.75}, schema::NoTransform, 2));
  EXPECT_EQ(p[10], 0.25);
  EXPECT_EQ(p[11], 0.75);
  // A tie picks the first label.
  auto tie = build(fixedScores({0.5, 0.5}, schema::NoTransform, 2));
  ASSERT_TRUE(tie.ok());
  EXPECT_EQ(
      predictWith(*tie, {{"a", FeatureValue::fromDouble(0)}, {"b", FeatureValue::fromDouble(0)}})
          ->at("classLabel")
          .int64Value(),
      10);
}

TEST(coremlLinear, ProbitUsesTheNormalDistribution) {
  schema::Model m = smallTreeClassifier();
  m.clear_treeensembleclassifier();
  auto* g = m.mutable_glmclassifier();
  auto* row = g->add_weights();
  row->add_value(2.0);
  row->add_value(-1.0);
  g->add_offset(0.5);
  g->set_postevaluationtransform(schema::GLMClassifier::Probit);
  g->mutable_stringclasslabels()->add_vector("no");
  g->mutable_stringclasslabels()->add_vector("yes");
  m.mutable_description()->mutable_output(0)->mutable_type()->mutable_stringtype();
  m.mutable_description()
      ->mutable_output(1)
      ->mutable_type()
      ->mutable_dictionarytype()
      ->mutable_stringkeytype();
  auto model = build(m);
  ASSERT_TRUE(model.ok()) << model.message();
  auto out = predictWith(*model,
                         {{"a", FeatureValue::fromDouble(0.3)}, {"b", FeatureValue::fromInt64(2)}});
  ASSERT_TRUE(out.ok()) << out.message();
  const double z = 0.5 + 2.0 * 0.3 - 2.0;
  const double phi = 0.5 * std::erfc(-z / std::sqrt(2.0));
  EXPECT_NEAR(out->at("classProbability").stringDictionaryValue()->at("yes"), phi, 1e-15);
  EXPECT_EQ(*out->at("classLabel").stringValue(), phi > 0.5 ? "yes" : "no");
}

// Preprocessing steps, each as a one-stage model.
schema::Model step(const std::string& inKind, const std::string& outKind) {
  schema::Model m;
  m.set_specificationversion(1);
  addFeature(m.mutable_description()->mutable_input(), "in", inKind);
  addFeature(m.mutable_description()->mutable_output(), "out", outKind);
  return m;
}

Result<FeatureValue> runStep(const schema::Model& m, FeatureValue in) {
  auto model = build(m);
  if (!model) return model.error();
  auto out = predictWith(*model, {{"in", std::move(in)}});
  if (!out) return out.error();
  return out->at("out");
}

std::vector<double> valuesOf(const Result<FeatureValue>& v) {
  EXPECT_TRUE(v.ok()) << (v.ok() ? "" : v.message());
  if (!v.ok() || !v->multiArrayValue()) return {};
  return v->multiArrayValue()->values;
}

// The pipeline fixtures run one-hot encoding that ignores unknown categories, mean imputation of
// arrays and per-element scaling; these are the other settings and steps.
TEST(coremlPreprocessing, StepsAndSettingsTheFixturesDoNotReach) {
  schema::Model oh = step("string", "array");
  for (const char* c : {"a", "b", "c"})
    oh.mutable_onehotencoder()->mutable_stringcategories()->add_vector(c);
  auto unknown = runStep(oh, FeatureValue::fromString("z"));
  ASSERT_FALSE(unknown.ok());
  EXPECT_NE(unknown.message().find("unknown category 'z'"), std::string::npos);
  oh.mutable_onehotencoder()->set_outputsparse(true);
  auto sparse = runStep(oh, FeatureValue::fromString("c"));
  ASSERT_TRUE(sparse.ok() && sparse->int64DictionaryValue());
  EXPECT_EQ(*sparse->int64DictionaryValue(), (FeatureValue::Int64Dictionary{{2, 1.0}}));

  schema::Model text = step("string", "string");
  text.mutable_imputer()->set_imputedstringvalue("other");
  text.mutable_imputer()->set_replacestringvalue("");
  EXPECT_EQ(*runStep(text, FeatureValue::fromString(""))->stringValue(), "other");
  EXPECT_EQ(*runStep(text, FeatureValue::fromString("x"))->stringValue(), "x");

  // One scale value is broadcast; a shift list of the wrong length is refused.
  schema::Model scaler = step("array", "array");
  scaler.mutable_scaler()->add_shiftvalue(1.0);
  scaler.mutable_scaler()->add_shiftvalue(-2.0);
  scaler.mutable_scaler()->add_scalevalue(3.0);
  EXPECT_EQ(valuesOf(runStep(scaler, FeatureValue::fromDoubles({1.0, 4.0}))),
            (std::vector<double>{6.0, 6.0}));
  EXPECT_FALSE(runStep(scaler, FeatureValue::fromDoubles({1.0, 2.0, 3.0})).ok());

  for (const auto& [norm, expected] :
       {std::pair{schema::Normalizer::LMax, std::vector<double>{-0.75, 1.0}},
        {schema::Normalizer::L1, {-3.0 / 7.0, 4.0 / 7.0}},
        {schema::Normalizer::L2, {-0.6, 0.8}}}) {
    schema::Model m = step("array", "array");
    m.mutable_normalizer()->set_normtype(norm);
    const auto out = valuesOf(runStep(m, FeatureValue::fromDoubles({-3.0, 4.0})));
    ASSERT_EQ(out.size(), 2u);
    EXPECT_NEAR(out[0], expected[0], 1e-15) << norm;
    EXPECT_NEAR(out[1], expected[1], 1e-15) << norm;
    // A zero vector is left alone rather than divided by zero.
    EXPECT_EQ(valuesOf(runStep(m, FeatureValue::fromDoubles({0.0, 0.0}))),
              (std::vector<double>{0.0, 0.0}));
  }

  schema::Model pick = step("array", "array");
  pick.mutable_arrayfeatureextractor()->add_extractindex(1);
  pick.mutable_arrayfeatureextractor()->add_extractindex(0);
  EXPECT_EQ(valuesOf(runStep(pick, FeatureValue::fromDoubles({5, 6}))),
            (std::vector<double>{6, 5}));
  auto outside = runStep(pick, FeatureValue::fromDoubles({5}));
  ASSERT_FALSE(outside.ok());
  EXPECT_NE(outside.message().find("index 1"), std::string::npos);

  schema::Model dv = step("stringdict", "array");
  for (const char* k : {"a", "c", "b"})
    dv.mutable_dictvectorizer()->mutable_stringtoindex()->add_vector(k);
  EXPECT_EQ(valuesOf(runStep(dv, FeatureValue::fromDictionary(FeatureValue::StringDictionary{
                                     {"a", 4}, {"b", 8}, {"z", 1}}))),
            (std::vector<double>{4, 0, 8}));
}

class ThrowingProvider : public FeatureProvider {
 public:
  std::vector<std::string> featureNames() const override { return {}; }
  std::optional<FeatureValue> featureValue(const std::string&) const override {
    throw std::runtime_error("host bug");
  }
};

TEST(coremlInputs, ConversionsAndRefusals) {
  auto model = build(smallTreeClassifier());
  ASSERT_TRUE(model.ok());
  auto p1 = [&](FeatureValue a) -> Result<double> {
    auto out = predictWith(*model, {{"a", std::move(a)}, {"b", FeatureValue::fromDouble(0)}});
    if (!out) return out.error();
    return out->at("classProbability").int64DictionaryValue()->at(1);
  };
  const double left = 1.0 / (1.0 + std::exp(-2.0));
  // An int64 is read as the same double, on both sides of the split.
  EXPECT_EQ(p1(FeatureValue::fromInt64(0)).value(), left);
  EXPECT_EQ(p1(FeatureValue::fromInt64(1)).value(), 1.0 / (1.0 + std::exp(2.0)));
  EXPECT_EQ(p1(FeatureValue::fromDouble(0.0)).value(), left);
  EXPECT_FALSE(p1(FeatureValue::fromDoubles({0.0})).ok());
  EXPECT_FALSE(p1(FeatureValue::fromString("0")).ok());
  auto missing = predictWith(*model, {{"a", FeatureValue::fromDouble(0)}});
  ASSERT_FALSE(missing.ok());
  EXPECT_NE(missing.message().find("missing input 'b'"), std::string::npos);
  auto thrown = model->predict(ThrowingProvider{});  // becomes an error
  ASSERT_FALSE(thrown.ok());
  EXPECT_NE(thrown.message().find("host bug"), std::string::npos);

  // An optional input may be absent and reads as missing.
  schema::Model m = stump(TreeNode::BranchOnValueLessThanEqual, true);
  m.mutable_description()->mutable_input(0)->mutable_type()->set_isoptional(true);
  auto optional = build(m);
  ASSERT_TRUE(optional.ok());
  EXPECT_EQ(optional->predict(DictionaryFeatureProvider{})->at("y").doubleValue(), 1.0);

  // Multi-arrays must have the declared shape.
  schema::Model shaped = step("array", "array");
  shaped.mutable_description()
      ->mutable_input(0)
      ->mutable_type()
      ->mutable_multiarraytype()
      ->add_shape(3);
  shaped.mutable_normalizer()->set_normtype(schema::Normalizer::L1);
  EXPECT_TRUE(runStep(shaped, FeatureValue::fromDoubles({1, 1, 2})).ok());
  EXPECT_FALSE(runStep(shaped, FeatureValue::fromDoubles({1, 1})).ok());
  EXPECT_FALSE(runStep(shaped, FeatureValue::fromMultiArray({{2, 2}, {1, 2, 3}})).ok());
}

TEST(coremlInputs, ConcurrentPredictionsAgree) {
  auto model = Model::loadModelFile(fixturesDir() + "/gbc_binary.mlmodel");
  ASSERT_TRUE(model.ok()) << model.message();
  auto run = [&](double shift) {
    std::map<std::string, FeatureValue> in;
    for (int i = 0; i < 6; ++i) in["f" + std::to_string(i)] = FeatureValue::fromDouble(shift * i);
    return predictWith(*model, in).value().at("classProbability");
  };
  const FeatureValue expected = run(0.1);
  std::vector<std::thread> threads;
  std::atomic<int> mismatches{0};
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 200; ++i) {
        if (!(run(0.1) == expected)) ++mismatches;
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(mismatches.load(), 0);
}

TEST(coremlCompiled, RoundTripReplacesAnOldFolderAndRefusesTamperedOnes) {
  namespace fs = std::filesystem;
  const fs::path dir =
      fs::temp_directory_path() / ("coreml_compiled_" + std::to_string(::getpid()));
  fs::create_directories(dir);
  const std::string source = (dir / "Flow.mlmodel").string();
  std::ofstream(source, std::ios::binary) << smallTreeClassifier().SerializeAsString();
  std::ofstream(dir / "Bad.mlmodel", std::ios::binary) << "\x08\x63";  // version 99, no body
  ASSERT_FALSE(compileModel((dir / "Bad.mlmodel").string(), (dir / "out").string()).ok());
  EXPECT_FALSE(fs::exists(dir / "out" / "Bad.mlmodelc"));

  auto first = compileModel(source, (dir / "out").string());
  ASSERT_TRUE(first.ok()) << first.message();
  EXPECT_EQ(first.value(), (dir / "out" / "Flow.mlmodelc").string());
  std::ofstream(dir / "out" / "Flow.mlmodelc" / "stale", std::ios::binary) << "x";
  auto second = compileModel(source, (dir / "out").string());
  ASSERT_TRUE(second.ok()) << second.message();
  EXPECT_FALSE(fs::exists(dir / "out" / "Flow.mlmodelc" / "stale"));
  auto model = Model::load(second.value());
  ASSERT_TRUE(model.ok()) << model.message();
  EXPECT_EQ(model->kindName(), "treeEnsembleClassifier");
  EXPECT_EQ(model->description().inputs.size(), 2u);

  const fs::path folder(second.value());
  {
    std::fstream f(folder / kCompiledModelFileName,
                   std::ios::in | std::ios::out | std::ios::binary);
    f.seekp(3);
    f.put('\x7f');
  }
  auto tampered = Model::load(folder.string());
  ASSERT_FALSE(tampered.ok());
  EXPECT_NE(tampered.message().find("do not match"), std::string::npos);
  std::ofstream(folder / kCompiledManifestFileName) << R"({"formatVersion": 2})";
  auto future = Model::load(folder.string());
  ASSERT_FALSE(future.ok());
  EXPECT_NE(future.message().find("compiled format version 2"), std::string::npos);
  fs::remove_all(dir);
}

}  // namespace
}  // namespace orvane::coreml
