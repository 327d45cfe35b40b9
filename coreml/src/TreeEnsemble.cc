// File: TreeEnsemble.cc
// Tree ensembles: validation of the node graph at build time, then an iterative walk per tree.
//
// Validation guarantees what the walk relies on: every child exists in the same tree, every
// node but the root has exactly one parent, each tree has exactly one root and every node is
// reachable from it (so there is no cycle), feature and evaluation indices are in range. The
// walk still carries a step bound per tree as a second line of defence.
#include <algorithm>
#include <cmath>
#include <map>
#include <unordered_map>

#include "Internal.h"

namespace orvane::coreml::detail {

namespace {

using ProtoNode = schema::TreeEnsembleParameters::TreeNode;

enum class Behavior : uint8_t {
  kLessThanEqual = 0,
  kLessThan = 1,
  kGreaterThanEqual = 2,
  kGreaterThan = 3,
  kEqual = 4,
  kNotEqual = 5,
  kLeaf = 6,
};

struct Node {
  double threshold = 0;
  uint32_t feature = 0;
  uint32_t trueChild = 0;
  uint32_t falseChild = 0;
  uint32_t leafBegin = 0;
  uint32_t leafEnd = 0;
  Behavior behavior = Behavior::kLeaf;
  bool missingGoesTrue = false;
};

struct Tree {
  uint32_t root;
  uint32_t maxSteps;  // the depth of the tree: no walk can take more steps
};

enum class Transform { kNone, kSoftMax, kLogistic, kSoftMaxWithZeroClassReference };

struct Ensemble {
  std::vector<Node> nodes;
  std::vector<uint32_t> leafIndex;
  std::vector<double> leafValue;
  std::vector<Tree> trees;
  std::vector<double> base;
  size_t requiredWidth = 0;  // one more than the largest feature index read
  Transform transform = Transform::kNone;

  // The transformed prediction vector.
  Status run(const std::vector<double>& x, std::vector<double>& out) const;
};

std::string treeName(uint64_t treeId) { return "tree " + std::to_string(treeId); }
std::string nodeName(uint64_t treeId, uint64_t nodeId) {
  return "node " + std::to_string(nodeId) + " of tree " + std::to_string(treeId);
}

struct NodeKey {
  uint64_t tree;
  uint64_t node;
  bool operator==(const NodeKey&) const = default;
};
struct NodeKeyHash {
  size_t operator()(const NodeKey& k) const {
    return std::hash<uint64_t>()(k.tree * 0x9E3779B97F4A7C15ull ^ k.node);
  }
};

Result<Ensemble> buildEnsemble(const schema::TreeEnsembleParameters& params,
                               schema::TreeEnsemblePostEvaluationTransform transform,
                               std::optional<size_t> inputWidth, BuildContext& context) {
  Ensemble e;
  const auto& nodes = params.nodes();
  const size_t n = static_cast<size_t>(nodes.size());
  context.totalTreeNodes += n;
  if (context.totalTreeNodes > kMaxTreeNodes) {
    return Error("the model has more than " + std::to_string(kMaxTreeNodes) + " tree nodes");
  }
  if (n == 0) return Error("the tree ensemble has no nodes");

  const uint64_t dims = params.numpredictiondimensions();
  if (dims == 0) return Error("the tree ensemble predicts zero dimensions");
  if (dims > kMaxDimensions) return Error("the tree ensemble predicts too many dimensions");
  if (params.basepredictionvalue_size() != 0 &&
      static_cast<uint64_t>(params.basepredictionvalue_size()) != dims) {
    return Error("the tree ensemble has " + std::to_string(params.basepredictionvalue_size()) +
                 " base values for " + std::to_string(dims) + " dimensions");
  }
  e.base.assign(static_cast<size_t>(dims), 0.0);
  for (int i = 0; i < params.basepredictionvalue_size(); ++i) {
    e.base[static_cast<size_t>(i)] = params.basepredictionvalue(i);
  }

  switch (transform) {
    case schema::NoTransform:
      e.transform = Transform::kNone;
      break;
    case schema::Classification_SoftMax:
      e.transform = Transform::kSoftMax;
      break;
    case schema::Regression_Logistic:
      e.transform = Transform::kLogistic;
      break;
    case schema::Classification_SoftMaxWithZeroClassReference:
      e.transform = Transform::kSoftMaxWithZeroClassReference;
      break;
    default:
      return Error("unknown post-evaluation transform " + std::to_string(transform));
  }

  std::unordered_map<NodeKey, uint32_t, NodeKeyHash> indexOf;
  indexOf.reserve(n);
  for (size_t i = 0; i < n; ++i) {
    const auto& node = nodes[static_cast<int>(i)];
    if (!indexOf.emplace(NodeKey{node.treeid(), node.nodeid()}, static_cast<uint32_t>(i)).second) {
      return Error(treeName(node.treeid()) + " has two nodes with id " +
                   std::to_string(node.nodeid()));
    }
  }

  e.nodes.resize(n);
  std::vector<uint8_t> hasParent(n, 0);
  // Trees in order of first appearance, so sums run in the file's order.
  std::vector<uint64_t> treeOrder;
  std::unordered_map<uint64_t, size_t> treeSlot;
  std::vector<size_t> treeSize;

  for (size_t i = 0; i < n; ++i) {
    const ProtoNode& in = nodes[static_cast<int>(i)];
    Node& out = e.nodes[i];
    auto [slot, isNew] = treeSlot.try_emplace(in.treeid(), treeOrder.size());
    if (isNew) {
      treeOrder.push_back(in.treeid());
      treeSize.push_back(0);
    }
    ++treeSize[slot->second];

    const int behavior = in.nodebehavior();
    if (behavior < 0 || behavior > static_cast<int>(Behavior::kLeaf)) {
      return Error(nodeName(in.treeid(), in.nodeid()) + " has unknown behaviour " +
                   std::to_string(behavior));
    }
    out.behavior = static_cast<Behavior>(behavior);

    if (out.behavior == Behavior::kLeaf) {
      out.leafBegin = static_cast<uint32_t>(e.leafIndex.size());
      for (const auto& info : in.evaluationinfo()) {
        if (info.evaluationindex() >= dims) {
          return Error(nodeName(in.treeid(), in.nodeid()) + " adds to dimension " +
                       std::to_string(info.evaluationindex()) + " of only " + std::to_string(dims));
        }
        e.leafIndex.push_back(static_cast<uint32_t>(info.evaluationindex()));
        e.leafValue.push_back(info.evaluationvalue());
      }
      out.leafEnd = static_cast<uint32_t>(e.leafIndex.size());
      continue;
    }

    const uint64_t feature = in.branchfeatureindex();
    if (inputWidth && feature >= *inputWidth) {
      return Error(nodeName(in.treeid(), in.nodeid()) + " reads input index " +
                   std::to_string(feature) + " but the input has only " +
                   std::to_string(*inputWidth) + " values");
    }
    if (feature >= kMaxArrayElements) {
      return Error(nodeName(in.treeid(), in.nodeid()) + " reads an absurd input index");
    }
    out.feature = static_cast<uint32_t>(feature);
    e.requiredWidth = std::max(e.requiredWidth, static_cast<size_t>(feature) + 1);
    out.threshold = in.branchfeaturevalue();
    out.missingGoesTrue = in.missingvaluetrackstruechild();

    uint32_t children[2];
    const uint64_t childIds[2] = {in.truechildnodeid(), in.falsechildnodeid()};
    for (int c = 0; c < 2; ++c) {
      auto it = indexOf.find(NodeKey{in.treeid(), childIds[c]});
      if (it == indexOf.end()) {
        return Error(nodeName(in.treeid(), in.nodeid()) + " names child " +
                     std::to_string(childIds[c]) + ", which does not exist in its tree");
      }
      children[c] = it->second;
    }
    out.trueChild = children[0];
    out.falseChild = children[1];
    for (int c = 0; c < 2; ++c) {
      if (c == 1 && children[1] == children[0]) break;
      if (children[c] == i) {
        return Error(nodeName(in.treeid(), in.nodeid()) + " is its own child (a cycle)");
      }
      if (hasParent[children[c]]) {
        return Error(nodeName(in.treeid(), childIds[c]) + " has more than one parent");
      }
      hasParent[children[c]] = 1;
    }
  }

  // Exactly one root per tree.
  std::vector<std::optional<uint32_t>> roots(treeOrder.size());
  for (size_t i = 0; i < n; ++i) {
    if (hasParent[i]) continue;
    const auto& in = nodes[static_cast<int>(i)];
    auto& root = roots[treeSlot[in.treeid()]];
    if (root) {
      return Error(treeName(in.treeid()) + " has several roots (nodes " +
                   std::to_string(nodes[static_cast<int>(*root)].nodeid()) + " and " +
                   std::to_string(in.nodeid()) + ")");
    }
    root = static_cast<uint32_t>(i);
  }

  // Walk each tree from its root. With one parent per node the walk visits each reachable node
  // once; nodes it never reaches can only sit on a cycle.
  std::vector<std::pair<uint32_t, uint32_t>> stack;
  for (size_t t = 0; t < treeOrder.size(); ++t) {
    if (!roots[t]) {
      return Error(treeName(treeOrder[t]) + " has no root: its nodes form a cycle");
    }
    size_t visited = 0;
    uint32_t depth = 0;
    stack.assign(1, {*roots[t], 0});
    while (!stack.empty()) {
      auto [index, level] = stack.back();
      stack.pop_back();
      ++visited;
      depth = std::max(depth, level);
      const Node& node = e.nodes[index];
      if (node.behavior == Behavior::kLeaf) continue;
      stack.emplace_back(node.trueChild, level + 1);
      if (node.falseChild != node.trueChild) stack.emplace_back(node.falseChild, level + 1);
    }
    if (visited != treeSize[t]) {
      return Error(treeName(treeOrder[t]) +
                   " contains a cycle: " + std::to_string(treeSize[t] - visited) +
                   " of its nodes cannot be reached from its root");
    }
    e.trees.push_back(Tree{*roots[t], depth + 1});
  }
  return e;
}

inline bool branchTaken(Behavior behavior, double x, double threshold) {
  switch (behavior) {
    case Behavior::kLessThanEqual:
      return x <= threshold;
    case Behavior::kLessThan:
      return x < threshold;
    case Behavior::kGreaterThanEqual:
      return x >= threshold;
    case Behavior::kGreaterThan:
      return x > threshold;
    case Behavior::kEqual:
      return x == threshold;
    case Behavior::kNotEqual:
      return x != threshold;
    case Behavior::kLeaf:
      break;
  }
  return false;
}

void softMax(std::vector<double>& v) {
  const double top = *std::max_element(v.begin(), v.end());
  double sum = 0;
  for (double& x : v) {
    x = std::exp(x - top);
    sum += x;
  }
  for (double& x : v) x /= sum;
}

Status Ensemble::run(const std::vector<double>& x, std::vector<double>& out) const {
  if (x.size() < requiredWidth) {
    return Error("the trees read input index " + std::to_string(requiredWidth - 1) +
                 " but the input has only " + std::to_string(x.size()) + " values");
  }
  out = base;
  for (const Tree& tree : trees) {
    uint32_t index = tree.root;
    uint32_t steps = 0;
    while (true) {
      const Node& node = nodes[index];
      if (node.behavior == Behavior::kLeaf) {
        for (uint32_t k = node.leafBegin; k < node.leafEnd; ++k) {
          out[leafIndex[k]] += leafValue[k];
        }
        break;
      }
      if (++steps > tree.maxSteps) return Error("a tree walk did not end");
      const double value = x[node.feature];
      const bool taken = std::isnan(value) ? node.missingGoesTrue
                                           : branchTaken(node.behavior, value, node.threshold);
      index = taken ? node.trueChild : node.falseChild;
    }
  }
  switch (transform) {
    case Transform::kNone:
      break;
    case Transform::kLogistic:
      for (double& v : out) v = 1.0 / (1.0 + std::exp(-v));
      break;
    case Transform::kSoftMax:
      softMax(out);
      break;
    case Transform::kSoftMaxWithZeroClassReference:
      out.insert(out.begin(), 0.0);
      softMax(out);
      break;
  }
  return {};
}

size_t transformedWidth(const Ensemble& e) {
  return e.base.size() + (e.transform == Transform::kSoftMaxWithZeroClassReference ? 1 : 0);
}

class TreeClassifier final : public Evaluator {
 public:
  TreeClassifier(InputVector inputs, Ensemble ensemble, ClassifierOutput output)
      : inputs_(std::move(inputs)), ensemble_(std::move(ensemble)), output_(std::move(output)) {}

  Status evaluate(Slots& slots) const override {
    std::vector<double> x;
    if (auto s = inputs_.gather(slots, x); !s) return s;
    std::vector<double> scores;
    if (auto s = ensemble_.run(x, scores); !s) return s;
    if (scores.size() == 1) {
      // One score for two classes: it is the probability of the second.
      const double p = scores[0];
      scores = {1.0 - p, p};
    }
    output_.write(scores, slots);
    return {};
  }

 private:
  InputVector inputs_;
  Ensemble ensemble_;
  ClassifierOutput output_;
};

class TreeRegressor final : public Evaluator {
 public:
  TreeRegressor(InputVector inputs, Ensemble ensemble, RegressorOutput output)
      : inputs_(std::move(inputs)), ensemble_(std::move(ensemble)), output_(output) {}

  Status evaluate(Slots& slots) const override {
    std::vector<double> x;
    if (auto s = inputs_.gather(slots, x); !s) return s;
    std::vector<double> values;
    if (auto s = ensemble_.run(x, values); !s) return s;
    output_.write(std::move(values), slots);
    return {};
  }

 private:
  InputVector inputs_;
  Ensemble ensemble_;
  RegressorOutput output_;
};

}  // namespace

Result<EvaluatorPtr> buildTreeEnsembleClassifier(const schema::Model& model,
                                                 const ModelDescription& description,
                                                 BuildContext& context) {
  const auto& classifier = model.treeensembleclassifier();
  auto inputs = InputVector::make(description, context.slots, "the tree ensemble");
  if (!inputs) return inputs.error();
  auto ensemble = buildEnsemble(classifier.treeensemble(), classifier.postevaluationtransform(),
                                inputs->staticWidth(), context);
  if (!ensemble) return ensemble.error();
  auto output = ClassifierOutput::make(classifier, description, context);
  if (!output) return output.error();
  const size_t width = transformedWidth(ensemble.value());
  const size_t classes = output->classCount();
  if (width != classes && !(width == 1 && classes == 2)) {
    return Error("the trees predict " + std::to_string(width) + " values for " +
                 std::to_string(classes) + " class labels");
  }
  return EvaluatorPtr(std::make_unique<TreeClassifier>(
      std::move(inputs).value(), std::move(ensemble).value(), std::move(output).value()));
}

Result<EvaluatorPtr> buildTreeEnsembleRegressor(const schema::Model& model,
                                                const ModelDescription& description,
                                                BuildContext& context) {
  const auto& regressor = model.treeensembleregressor();
  auto inputs = InputVector::make(description, context.slots, "the tree ensemble");
  if (!inputs) return inputs.error();
  auto ensemble = buildEnsemble(regressor.treeensemble(), regressor.postevaluationtransform(),
                                inputs->staticWidth(), context);
  if (!ensemble) return ensemble.error();
  auto output =
      RegressorOutput::make(description, context.slots, transformedWidth(ensemble.value()));
  if (!output) return output.error();
  return EvaluatorPtr(std::make_unique<TreeRegressor>(std::move(inputs).value(),
                                                      std::move(ensemble).value(), output.value()));
}

}  // namespace orvane::coreml::detail
