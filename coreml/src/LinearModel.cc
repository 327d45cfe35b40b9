// File: LinearModel.cc
// Generalised linear classifiers and regressors: one weight row per score, z = w·x + b, then a
// link function.
//
// Classifier encodings: two classes may be described by one row (the score of the second class,
// whatever the encoding says); one-vs-rest has a row per class and the per-class probabilities
// are normalised to sum to one, as scikit-learn's one-vs-rest logistic regression does. A
// reference-class encoding over more than two classes is rejected rather than guessed at, and so
// is probit over more than two classes.
#include <cmath>

#include "Internal.h"

namespace orvane::coreml::detail {

namespace {

double logistic(double z) { return 1.0 / (1.0 + std::exp(-z)); }
double normalCdf(double z) { return 0.5 * std::erfc(-z / std::sqrt(2.0)); }

struct Weights {
  std::vector<std::vector<double>> rows;
  std::vector<double> offsets;
  size_t width = 0;

  template <typename Message>
  static Result<Weights> make(const Message& message, std::optional<size_t> inputWidth) {
    Weights w;
    if (message.weights_size() == 0) return Error("the linear model has no weights");
    if (static_cast<uint64_t>(message.weights_size()) > kMaxDimensions) {
      return Error("the linear model has too many weight rows");
    }
    w.width = static_cast<size_t>(message.weights(0).value_size());
    for (const auto& row : message.weights()) {
      if (static_cast<size_t>(row.value_size()) != w.width) {
        return Error("the weight rows of the linear model differ in length");
      }
      w.rows.emplace_back(row.value().begin(), row.value().end());
    }
    if (message.offset_size() != 0 && message.offset_size() != message.weights_size()) {
      return Error("the linear model has " + std::to_string(message.offset_size()) +
                   " offsets for " + std::to_string(message.weights_size()) + " weight rows");
    }
    w.offsets.assign(w.rows.size(), 0.0);
    for (int i = 0; i < message.offset_size(); ++i) {
      w.offsets[static_cast<size_t>(i)] = message.offset(i);
    }
    if (inputWidth && *inputWidth != w.width) {
      return Error("the linear model has " + std::to_string(w.width) +
                   " weights per row but its inputs have " + std::to_string(*inputWidth) +
                   " values");
    }
    return w;
  }

  Status scores(const std::vector<double>& x, std::vector<double>& out) const {
    if (x.size() != width) {
      return Error("the linear model needs " + std::to_string(width) + " input values, got " +
                   std::to_string(x.size()));
    }
    out.resize(rows.size());
    for (size_t r = 0; r < rows.size(); ++r) {
      double z = offsets[r];
      for (size_t i = 0; i < width; ++i) z += rows[r][i] * x[i];
      out[r] = z;
    }
    return {};
  }
};

class GlmClassifier final : public Evaluator {
 public:
  GlmClassifier(InputVector inputs, Weights weights, bool probit, ClassifierOutput output)
      : inputs_(std::move(inputs)),
        weights_(std::move(weights)),
        probit_(probit),
        output_(std::move(output)) {}

  Status evaluate(Slots& slots) const override {
    std::vector<double> x;
    if (auto s = inputs_.gather(slots, x); !s) return s;
    std::vector<double> z;
    if (auto s = weights_.scores(x, z); !s) return s;
    for (double& v : z) v = probit_ ? normalCdf(v) : logistic(v);
    std::vector<double> probabilities;
    if (z.size() == 1) {
      probabilities = {1.0 - z[0], z[0]};
    } else {
      double sum = 0;
      for (double v : z) sum += v;
      probabilities = z;
      for (double& p : probabilities) p /= sum;
    }
    output_.write(probabilities, slots);
    return {};
  }

 private:
  InputVector inputs_;
  Weights weights_;
  bool probit_;
  ClassifierOutput output_;
};

class GlmRegressor final : public Evaluator {
 public:
  enum class Link { kNone, kLogit, kProbit };
  GlmRegressor(InputVector inputs, Weights weights, Link link, RegressorOutput output)
      : inputs_(std::move(inputs)), weights_(std::move(weights)), link_(link), output_(output) {}

  Status evaluate(Slots& slots) const override {
    std::vector<double> x;
    if (auto s = inputs_.gather(slots, x); !s) return s;
    std::vector<double> z;
    if (auto s = weights_.scores(x, z); !s) return s;
    if (link_ != Link::kNone) {
      for (double& v : z) v = link_ == Link::kProbit ? normalCdf(v) : logistic(v);
    }
    output_.write(std::move(z), slots);
    return {};
  }

 private:
  InputVector inputs_;
  Weights weights_;
  Link link_;
  RegressorOutput output_;
};

}  // namespace

Result<EvaluatorPtr> buildGlmClassifier(const schema::Model& model,
                                        const ModelDescription& description,
                                        BuildContext& context) {
  const auto& glm = model.glmclassifier();
  auto inputs = InputVector::make(description, context.slots, "the linear classifier");
  if (!inputs) return inputs.error();
  auto weights = Weights::make(glm, inputs->staticWidth());
  if (!weights) return weights.error();
  auto output = ClassifierOutput::make(glm, description, context);
  if (!output) return output.error();

  const size_t rows = weights->rows.size();
  const size_t classes = output->classCount();
  const bool probit = glm.postevaluationtransform() == schema::GLMClassifier::Probit;
  if (!probit && glm.postevaluationtransform() != schema::GLMClassifier::Logit) {
    return Error("unknown link of the linear classifier");
  }
  const bool oneVsRest = glm.classencoding() == schema::GLMClassifier::OneVsRest;
  if (!oneVsRest && glm.classencoding() != schema::GLMClassifier::ReferenceClass) {
    return Error("unknown class encoding of the linear classifier");
  }
  if (classes == 2 && rows == 1) {
    // Binary: the row scores the second class.
  } else if (!oneVsRest) {
    return Error(
        "a reference-class linear classifier needs two classes and one weight row; it has " +
        std::to_string(classes) + " classes and " + std::to_string(rows) + " rows");
  } else if (rows != classes) {
    return Error("the one-vs-rest linear classifier has " + std::to_string(rows) +
                 " weight rows for " + std::to_string(classes) + " classes");
  } else if (probit && classes > 2) {
    return Error("probit is supported for two classes only");
  }
  return EvaluatorPtr(std::make_unique<GlmClassifier>(
      std::move(inputs).value(), std::move(weights).value(), probit, std::move(output).value()));
}

Result<EvaluatorPtr> buildGlmRegressor(const schema::Model& model,
                                       const ModelDescription& description, BuildContext& context) {
  const auto& glm = model.glmregressor();
  auto inputs = InputVector::make(description, context.slots, "the linear regressor");
  if (!inputs) return inputs.error();
  auto weights = Weights::make(glm, inputs->staticWidth());
  if (!weights) return weights.error();
  GlmRegressor::Link link;
  switch (glm.postevaluationtransform()) {
    case schema::GLMRegressor::NoTransform:
      link = GlmRegressor::Link::kNone;
      break;
    case schema::GLMRegressor::Logit:
      link = GlmRegressor::Link::kLogit;
      break;
    case schema::GLMRegressor::Probit:
      link = GlmRegressor::Link::kProbit;
      break;
    default:
      return Error("unknown link of the linear regressor");
  }
  auto output = RegressorOutput::make(description, context.slots, weights->rows.size());
  if (!output) return output.error();
  return EvaluatorPtr(std::make_unique<GlmRegressor>(
      std::move(inputs).value(), std::move(weights).value(), link, output.value()));
}

}  // namespace orvane::coreml::detail
