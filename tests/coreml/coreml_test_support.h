// File: coreml_test_support.h
// Shared helpers of the model runtime's tests: where the fixtures are, and small hand-built
// models to mutate into broken ones.
//
// Suites and instantiations of this folder start with "coreml" so that `ctest -R coreml`
// selects exactly them.
#pragma once

#include <map>
#include <string>

#include "coreml/Model.h"
#include "coreml/proto/coreml_model.pb.h"
#include "testutil/Fixtures.h"

namespace orvane::coreml::testing {

namespace schema = ::orvane::coreml::schema;
using TreeNode = schema::TreeEnsembleParameters::TreeNode;

inline std::string fixturesDir() { return ::orvane::testing::fixturePath("coreml"); }

inline void addFeature(google::protobuf::RepeatedPtrField<schema::FeatureDescription>* features,
                       const std::string& name, const std::string& kind) {
  auto* f = features->Add();
  f->set_name(name);
  auto* type = f->mutable_type();
  if (kind == "double") {
    type->mutable_doubletype();
  } else if (kind == "int64") {
    type->mutable_int64type();
  } else if (kind == "string") {
    type->mutable_stringtype();
  } else if (kind == "int64dict") {
    type->mutable_dictionarytype()->mutable_int64keytype();
  } else if (kind == "stringdict") {
    type->mutable_dictionarytype()->mutable_stringkeytype();
  } else if (kind == "array") {
    type->mutable_multiarraytype()->set_datatype(schema::ArrayFeatureType::DOUBLE);
  }
}

inline TreeNode* addBranch(
    schema::TreeEnsembleParameters* params, uint64_t tree, uint64_t id, uint64_t feature,
    double threshold, uint64_t trueChild, uint64_t falseChild,
    TreeNode::TreeNodeBehavior behavior = TreeNode::BranchOnValueLessThanEqual) {
  auto* n = params->add_nodes();
  n->set_treeid(tree);
  n->set_nodeid(id);
  n->set_nodebehavior(behavior);
  n->set_branchfeatureindex(feature);
  n->set_branchfeaturevalue(threshold);
  n->set_truechildnodeid(trueChild);
  n->set_falsechildnodeid(falseChild);
  return n;
}

inline TreeNode* addLeaf(schema::TreeEnsembleParameters* params, uint64_t tree, uint64_t id,
                         double value, uint64_t index = 0) {
  auto* n = params->add_nodes();
  n->set_treeid(tree);
  n->set_nodeid(id);
  n->set_nodebehavior(TreeNode::LeafNode);
  auto* info = n->add_evaluationinfo();
  info->set_evaluationindex(index);
  info->set_evaluationvalue(value);
  return n;
}

// A binary tree classifier over doubles "a" and "b": tree 0 splits on a <= 0.5 into the
// leaves 2 (true) and -2 (false); the logistic of the sum is P(label 1).
inline schema::Model smallTreeClassifier() {
  schema::Model m;
  m.set_specificationversion(1);
  auto* d = m.mutable_description();
  addFeature(d->mutable_input(), "a", "double");
  addFeature(d->mutable_input(), "b", "double");
  addFeature(d->mutable_output(), "classLabel", "int64");
  addFeature(d->mutable_output(), "classProbability", "int64dict");
  d->set_predictedfeaturename("classLabel");
  d->set_predictedprobabilitiesname("classProbability");
  auto* tec = m.mutable_treeensembleclassifier();
  tec->set_postevaluationtransform(schema::Regression_Logistic);
  tec->mutable_int64classlabels()->add_vector(0);
  tec->mutable_int64classlabels()->add_vector(1);
  auto* params = tec->mutable_treeensemble();
  params->set_numpredictiondimensions(1);
  addBranch(params, 0, 0, 0, 0.5, 1, 2);
  addLeaf(params, 0, 1, 2.0);
  addLeaf(params, 0, 2, -2.0);
  return m;
}

inline Result<Model> build(const schema::Model& m) {
  const std::string bytes = m.SerializeAsString();
  return Model::fromBytes(bytes.data(), bytes.size());
}

inline Result<std::map<std::string, FeatureValue>> predictWith(
    const Model& model, std::map<std::string, FeatureValue> inputs) {
  return model.predict(DictionaryFeatureProvider(std::move(inputs)));
}

}  // namespace orvane::coreml::testing
