"""Converts fitted scikit-learn estimators to the model file format the SDK's runtime reads
(coreml/proto/coreml_model.proto). Shared by the fixture generator and orvane-train.

Needs Debian's python3-numpy, python3-sklearn and python3-protobuf, and protoc: the schema's
Python module is generated into a temporary folder on import.

Notes on matching scikit-learn exactly:
- scikit-learn's decision trees compare float32 copies of the inputs with float64
  thresholds; feed float32 values and comparing doubles takes the same path.
- Histogram boosting compares the float64 input itself with each split's raw threshold and
  sends a missing value to the side it learned; missingValueTracksTrueChild carries that.
"""

import os
import subprocess
import sys
import tempfile

import numpy as np

PROTO_DIR = os.path.abspath(os.path.join(os.path.dirname(__file__), "..", "..", "coreml",
                                         "proto"))

_gen = tempfile.mkdtemp(prefix="coreml_pb2_")
subprocess.check_call(["protoc", "--python_out=" + _gen, "-I", PROTO_DIR,
                       os.path.join(PROTO_DIR, "coreml_model.proto")])
sys.path.insert(0, _gen)
import coreml_model_pb2 as pb  # noqa: E402

MODEL_FILE_VERSION = 1
Node = pb.TreeEnsembleParameters.TreeNode


def set_type(ftype, kind, shape=None, key=None):
    if kind == "double":
        ftype.doubleType.SetInParent()
    elif kind == "int64":
        ftype.int64Type.SetInParent()
    elif kind == "string":
        ftype.stringType.SetInParent()
    elif kind == "array":
        ftype.multiArrayType.dataType = pb.ArrayFeatureType.DOUBLE
        ftype.multiArrayType.shape.extend(shape)
    elif kind == "dict":
        if key == "string":
            ftype.dictionaryType.stringKeyType.SetInParent()
        else:
            ftype.dictionaryType.int64KeyType.SetInParent()
    else:
        raise ValueError(kind)


def add_feature(features, name, kind, shape=None, key=None):
    f = features.add()
    f.name = name
    set_type(f.type, kind, shape, key)
    return f


def describe(model, inputs, outputs, predicted=None, probabilities=None):
    for name, kind, *rest in inputs:
        add_feature(model.description.input, name, kind, *rest)
    for name, kind, *rest in outputs:
        add_feature(model.description.output, name, kind, *rest)
    if predicted:
        model.description.predictedFeatureName = predicted
    if probabilities:
        model.description.predictedProbabilitiesName = probabilities


def classifier_outputs(labels):
    label_kind = "string" if isinstance(labels[0], str) else "int64"
    return [("classLabel", label_kind), ("classProbability", "dict", None, label_kind)]


def set_labels(message, labels):
    if isinstance(labels[0], str):
        message.stringClassLabels.vector.extend(labels)
    else:
        message.int64ClassLabels.vector.extend(int(v) for v in labels)


# Every inequality written four ways; the converter rotates through them so that all four
# behaviours are exercised with scikit-learn as the judge. "x <= t" is the sklearn split.
def branch_forms(t):
    le = Node.BranchOnValueLessThanEqual
    gt = Node.BranchOnValueGreaterThan
    lt = Node.BranchOnValueLessThan
    ge = Node.BranchOnValueGreaterThanEqual
    # (behaviour, threshold, left_is_true). "x < t" and "x >= t" agree with "x <= t" except at
    # x == t exactly, which the case generator rules out.
    return [(le, t, True), (gt, t, False), (lt, t, True), (ge, t, False)]


def add_sklearn_tree(params, tree, tree_id, leaf_fn, rotate=False, feature_map=None):
    t = tree.tree_
    for i in range(t.node_count):
        n = params.nodes.add()
        n.treeId = tree_id
        n.nodeId = i
        if t.children_left[i] == -1:
            n.nodeBehavior = Node.LeafNode
            for index, value in leaf_fn(t.value[i]):
                e = n.evaluationInfo.add()
                e.evaluationIndex = index
                e.evaluationValue = value
        else:
            forms = branch_forms(float(t.threshold[i]))
            behaviour, threshold, left_true = forms[(i + tree_id) % 4] if rotate else forms[0]
            n.nodeBehavior = behaviour
            f = int(t.feature[i])
            n.branchFeatureIndex = feature_map[f] if feature_map else f
            n.branchFeatureValue = threshold
            left, right = int(t.children_left[i]), int(t.children_right[i])
            n.trueChildNodeId, n.falseChildNodeId = (left, right) if left_true else (right, left)


def gbc_model(gbc, X, inputs, transform=pb.Regression_Logistic, labels=None):
    m = pb.Model()
    m.specificationVersion = MODEL_FILE_VERSION
    labels = list(gbc.classes_) if labels is None else labels
    describe(m, inputs, classifier_outputs(labels), "classLabel", "classProbability")
    tec = m.treeEnsembleClassifier
    k = gbc.estimators_.shape[1]
    params = tec.treeEnsemble
    params.numPredictionDimensions = k
    params.basePredictionValue.extend(float(v) for v in gbc._raw_predict_init(X[:1])[0])
    lr = gbc.learning_rate
    tree_id = 0
    for stage in gbc.estimators_:
        for cls, tree in enumerate(stage):
            add_sklearn_tree(params, tree, tree_id,
                             lambda v, cls=cls: [(cls, float(lr * v[0][0]))])
            tree_id += 1
    tec.postEvaluationTransform = transform
    set_labels(tec, labels)
    return m


def forest_leaf(n_trees):
    def leaf(v):
        counts = v[0]
        total = counts.sum()
        return [(k, float(c / total / n_trees)) for k, c in enumerate(counts) if c != 0]
    return leaf



def glm_classifier(lr, inputs, encoding):
    labels = [int(c) for c in lr.classes_]
    m = pb.Model()
    m.specificationVersion = MODEL_FILE_VERSION
    describe(m, inputs, classifier_outputs(labels), "classLabel", "classProbability")
    g = m.glmClassifier
    for row in lr.coef_:
        g.weights.add().value.extend(float(v) for v in row)
    g.offset.extend(float(v) for v in lr.intercept_)
    g.postEvaluationTransform = pb.GLMClassifier.Logit
    g.classEncoding = encoding
    set_labels(g, labels)
    return m, labels


def add_hist_trees(params, hgb):
    """The trees of a binary HistGradientBoostingClassifier (numeric splits only); returns the
    set of sides missing values take, so a caller can check both occur."""
    missing_sides = set()
    for tree_id, (predictor,) in enumerate(hgb._predictors):
        for i, node in enumerate(predictor.nodes):
            n = params.nodes.add()
            n.treeId = tree_id
            n.nodeId = i
            if node["is_leaf"]:
                n.nodeBehavior = Node.LeafNode
                e = n.evaluationInfo.add()
                e.evaluationIndex = 0
                e.evaluationValue = float(node["value"])
            else:
                assert not node["is_categorical"]
                n.nodeBehavior = Node.BranchOnValueLessThanEqual
                n.branchFeatureIndex = int(node["feature_idx"])
                n.branchFeatureValue = float(node["num_threshold"])
                n.trueChildNodeId = int(node["left"])
                n.falseChildNodeId = int(node["right"])
                n.missingValueTracksTrueChild = bool(node["missing_go_to_left"])
                missing_sides.add(bool(node["missing_go_to_left"]))
    return missing_sides


def hist_gbc_model(hgb, inputs, labels):
    """A binary HistGradientBoostingClassifier over scalar inputs as a tree-ensemble
    classifier. Returns (model, sides missing values take)."""
    m = pb.Model()
    m.specificationVersion = MODEL_FILE_VERSION
    describe(m, inputs, classifier_outputs(labels), "classLabel", "classProbability")
    tec = m.treeEnsembleClassifier
    params = tec.treeEnsemble
    params.numPredictionDimensions = 1
    params.basePredictionValue.append(float(np.ravel(hgb._baseline_prediction)[0]))
    missing_sides = add_hist_trees(params, hgb)
    tec.postEvaluationTransform = pb.Regression_Logistic
    set_labels(tec, labels)
    return m, missing_sides
