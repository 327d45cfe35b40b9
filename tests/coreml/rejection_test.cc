// File: rejection_test.cc
// Broken and hostile model files must be refused with an error that names the problem; none
// may crash or load.
#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>

#include "coreml_test_support.h"

namespace orvane::coreml {
namespace {

using namespace testing;  // NOLINT: the helpers of this folder
using M = schema::Model;

struct Broken {
  const char* name;
  std::function<void(schema::Model&)> breakIt;
  const char* messagePart;
};

schema::TreeEnsembleParameters* trees(M& m) {
  return m.mutable_treeensembleclassifier()->mutable_treeensemble();
}
auto* input(M& m, int i) { return m.mutable_description()->mutable_input(i); }
auto* labels(M& m) { return m.mutable_treeensembleclassifier()->mutable_int64classlabels(); }
// `m` as a linear classifier over its two inputs, `rows` weight rows of [1, 2], `classes` labels.
void asLinear(M& m, int rows, int classes, schema::GLMClassifier::ClassEncoding encoding) {
  m.clear_treeensembleclassifier();
  auto* g = m.mutable_glmclassifier();
  for (int r = 0; r < rows; ++r) {
    auto* row = g->add_weights();
    row->add_value(1.0);
    row->add_value(2.0);
  }
  g->set_classencoding(encoding);
  for (int c = 0; c < classes; ++c) g->mutable_int64classlabels()->add_vector(c);
}
// `m` as the only stage of a pipeline classifier.
void asPipeline(M& m, const M& stage) {
  m.clear_treeensembleclassifier();
  *m.mutable_pipelineclassifier()->mutable_pipeline()->add_models() = stage;
}

const Broken kBrokenModels[] = {
    {"VersionFromTheFuture",
     [](M& m) { m.set_specificationversion(kNewestSpecificationVersion + 1); },
     "is outside the range"},
    {"NoDescription", [](M& m) { m.clear_description(); }, "no description"},
    {"NoKind", [](M& m) { m.clear_treeensembleclassifier(); }, "no kind"},
    {"UnsupportedKind", [](M& m) { m.mutable_neuralnetworkclassifier(); },
     "'neuralNetworkClassifier' are not supported"},
    {"InputWithoutType", [](M& m) { input(m, 0)->clear_type(); }, "has no type"},
    {"DuplicateInputName", [](M& m) { input(m, 1)->set_name("a"); },
     "two input features are named 'a'"},
    {"StringInputToTrees", [](M& m) { input(m, 1)->mutable_type()->mutable_stringtype(); },
     "only numbers and multi-arrays"},
    {"NoPredictedFeatureName", [](M& m) { m.mutable_description()->clear_predictedfeaturename(); },
     "does not name its predicted feature"},
    {"LabelTypeDiffersFromOutput",
     [](M& m) { m.mutable_description()->mutable_output(0)->mutable_type()->mutable_stringtype(); },
     "declared as string but the class labels are int64"},
    {"NoClassLabels", [](M& m) { m.mutable_treeensembleclassifier()->clear_int64classlabels(); },
     "no class labels"},
    {"RepeatedClassLabels", [](M& m) { labels(m)->set_vector(1, 0); }, "class labels repeat"},
    {"LabelCountMismatch", [](M& m) { labels(m)->add_vector(7); },
     "predict 1 values for 3 class labels"},
    {"UndeclaredOutput",
     [](M& m) { addFeature(m.mutable_description()->mutable_output(), "extra", "double"); },
     "output 'extra' is declared"},
    {"NoNodes", [](M& m) { trees(m)->clear_nodes(); }, "no nodes"},
    {"ZeroDimensions", [](M& m) { trees(m)->set_numpredictiondimensions(0); }, "zero dimensions"},
    {"BaseValueCountMismatch",
     [](M& m) {
       trees(m)->add_basepredictionvalue(1);
       trees(m)->add_basepredictionvalue(2);
     },
     "2 base values for 1 dimensions"},
    {"UnknownTransform",
     [](M& m) {
       m.mutable_treeensembleclassifier()->set_postevaluationtransform(
           static_cast<schema::TreeEnsemblePostEvaluationTransform>(9));
     },
     "unknown post-evaluation transform"},
    {"DanglingChild", [](M& m) { trees(m)->mutable_nodes(0)->set_falsechildnodeid(42); },
     "names child 42, which does not exist"},
    {"DuplicateNodeId", [](M& m) { trees(m)->mutable_nodes(2)->set_nodeid(1); },
     "two nodes with id 1"},
    {"SelfLoop", [](M& m) { trees(m)->mutable_nodes(0)->set_truechildnodeid(0); }, "its own child"},
    {"TwoRoots", [](M& m) { addLeaf(trees(m), 0, 3, 1.0); }, "several roots"},
    {"CycleBesideTheRoot",
     [](M& m) {
       addBranch(trees(m), 0, 10, 0, 0.0, 11, 11);
       addBranch(trees(m), 0, 11, 0, 0.0, 10, 10);
     },
     "contains a cycle"},
    {"CycleWithoutRoot",
     [](M& m) {
       addBranch(trees(m), 5, 0, 0, 0.0, 1, 1);
       addBranch(trees(m), 5, 1, 0, 0.0, 0, 0);
     },
     "tree 5 has no root"},
    {"SharedChild",
     [](M& m) {
       addBranch(trees(m), 2, 0, 0, 0.0, 1, 2);
       addBranch(trees(m), 2, 1, 1, 0.0, 3, 3);
       addBranch(trees(m), 2, 2, 1, 0.0, 3, 3);
       addLeaf(trees(m), 2, 3, 1.0);
     },
     "more than one parent"},
    {"FeatureIndexOutOfRange", [](M& m) { trees(m)->mutable_nodes(0)->set_branchfeatureindex(2); },
     "reads input index 2 but the input has only 2 values"},
    {"EvaluationIndexOutOfRange",
     [](M& m) { trees(m)->mutable_nodes(1)->mutable_evaluationinfo(0)->set_evaluationindex(1); },
     "adds to dimension 1 of only 1"},
    {"UnknownNodeBehaviour",
     [](M& m) {
       trees(m)->mutable_nodes(0)->set_nodebehavior(static_cast<TreeNode::TreeNodeBehavior>(7));
     },
     "unknown behaviour 7"},
    {"LinearRowsAndClassesDisagree",
     [](M& m) { asLinear(m, 2, 3, schema::GLMClassifier::OneVsRest); }, "2 weight rows for 3"},
    {"ReferenceClassWithThreeClasses",
     [](M& m) { asLinear(m, 2, 3, schema::GLMClassifier::ReferenceClass); },
     "needs two classes and one weight row"},
    {"LinearRowWiderThanTheInputs",
     [](M& m) {
       asLinear(m, 1, 2, schema::GLMClassifier::ReferenceClass);
       m.mutable_glmclassifier()->mutable_weights(0)->add_value(3.0);
     },
     "3 weights per row but its inputs have 2"},
    {"LinearOffsetCount",
     [](M& m) {
       asLinear(m, 1, 2, schema::GLMClassifier::ReferenceClass);
       m.mutable_glmclassifier()->add_offset(1);
       m.mutable_glmclassifier()->add_offset(2);
     },
     "2 offsets for 1 weight rows"},
    {"ProbitOverThreeClasses",
     [](M& m) {
       asLinear(m, 3, 3, schema::GLMClassifier::OneVsRest);
       m.mutable_glmclassifier()->set_postevaluationtransform(schema::GLMClassifier::Probit);
     },
     "probit is supported for two classes only"},
    {"EmptyPipeline",
     [](M& m) {
       m.clear_treeensembleclassifier();
       m.mutable_pipelineclassifier()->mutable_pipeline();
     },
     "no stages"},
    {"PipelineStageInputNobodyProvides",
     [](M& m) {
       M stage = m;
       input(stage, 1)->set_name("c");
       asPipeline(m, stage);
     },
     "needs input 'c'"},
    {"PipelineOutputNobodyProduces",
     [](M& m) {
       asPipeline(m, M(m));
       m.mutable_description()->mutable_output(1)->set_name("probabilities");
     },
     "pipeline output 'probabilities' is produced by no stage"},
    {"UnsupportedKindInsidePipeline",
     [](M& m) {
       M stage = m;
       stage.mutable_supportvectorclassifier();
       asPipeline(m, stage);
     },
     "pipeline stage 0: models of kind 'supportVectorClassifier' are not supported"},
    {"DeeplyNestedPipelines",
     [](M& m) {
       M inner = m;
       for (int i = 0; i < 20; ++i) {
         M outer;
         outer.set_specificationversion(1);
         *outer.mutable_description() = m.description();
         *outer.mutable_pipeline()->add_models() = inner;
         inner = outer;
       }
       m = inner;
     },
     "nested too deeply"},
};

class Rejection : public ::testing::TestWithParam<Broken> {};

TEST_P(Rejection, RefusesWithAClearMessage) {
  schema::Model m = smallTreeClassifier();
  ASSERT_TRUE(build(m).ok()) << "the unbroken model must load";
  GetParam().breakIt(m);
  auto loaded = build(m);
  ASSERT_FALSE(loaded.ok());
  EXPECT_NE(loaded.message().find(GetParam().messagePart), std::string::npos) << loaded.message();
}

INSTANTIATE_TEST_SUITE_P(coreml, Rejection, ::testing::ValuesIn(kBrokenModels),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(coremlRejection, EveryTruncationOfAValidFileFailsCleanly) {
  const std::string bytes = smallTreeClassifier().SerializeAsString();
  for (size_t n = 0; n < bytes.size(); ++n) {
    auto loaded = Model::fromBytes(bytes.data(), n);
    EXPECT_FALSE(loaded.ok()) << "prefix of " << n << " bytes loaded";
  }
}

TEST(coremlRejection, GarbageAndOversizedInputsFail) {
  const std::string garbage = "\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\x01 not a model";
  EXPECT_FALSE(Model::fromBytes(garbage.data(), garbage.size()).ok());
  EXPECT_FALSE(Model::fromBytes(nullptr, 0).ok());
  auto huge = Model::fromBytes(garbage.data(), kMaxModelFileBytes + 1);
  ASSERT_FALSE(huge.ok());
  EXPECT_NE(huge.message().find("limit"), std::string::npos);
}

TEST(coremlRejection, AFileThatExpandsWhenParsedIsRefusedWithinItsBudget) {
  // A million empty tree nodes: two bytes each in the file, far more once parsed. The same
  // nodes with contents, as real models have them, stay well inside the budget.
  M bomb = smallTreeClassifier();
  for (int i = 0; i < 1'000'000; ++i) trees(bomb)->add_nodes();
  const std::string bytes = bomb.SerializeAsString();
  ASSERT_LT(bytes.size(), size_t{3} << 20);
  auto refused = Model::fromBytes(bytes.data(), bytes.size());
  ASSERT_FALSE(refused.ok());
  EXPECT_NE(refused.message().find(std::to_string(kMaxParsedModelBytes)), std::string::npos)
      << refused.message();

  M large = smallTreeClassifier();
  for (uint64_t tree = 1; tree < 20'000; ++tree) {
    addBranch(trees(large), tree, 0, 0, 0.5, 1, 2);
    addLeaf(trees(large), tree, 1, 2.0);
    addLeaf(trees(large), tree, 2, -2.0);
  }
  EXPECT_TRUE(build(large).ok()) << build(large).message();
}

TEST(coremlRejection, AnOversizedManifestIsNotRead) {
  namespace fs = std::filesystem;
  const fs::path dir = fs::temp_directory_path() / ("coreml_manifest_" + std::to_string(getpid()));
  fs::create_directories(dir);
  std::ofstream(dir / "Flow.mlmodel", std::ios::binary)
      << smallTreeClassifier().SerializeAsString();
  auto compiled = compileModel((dir / "Flow.mlmodel").string(), dir.string());
  ASSERT_TRUE(compiled.ok()) << compiled.message();
  ASSERT_TRUE(Model::load(compiled.value()).ok());
  // Still valid JSON with the same members, padded past the limit.
  std::ofstream(fs::path(compiled.value()) / kCompiledManifestFileName, std::ios::app)
      << std::string(kMaxManifestBytes, ' ');
  auto refused = Model::load(compiled.value());
  ASSERT_FALSE(refused.ok());
  EXPECT_NE(refused.message().find("limit"), std::string::npos) << refused.message();
  fs::remove_all(dir);
}

TEST(coremlRejection, MissingFilesAndFoldersAreErrors) {
  EXPECT_FALSE(Model::loadModelFile("/nonexistent/model.mlmodel").ok());
  EXPECT_FALSE(Model::load("/nonexistent/model.mlmodelc").ok());
  EXPECT_FALSE(compileModel("/nonexistent/model.mlmodel", "/tmp").ok());
}

}  // namespace
}  // namespace orvane::coreml
