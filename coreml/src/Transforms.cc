// File: Transforms.cc
// The preprocessing steps that converted pipelines put in front of a tree or linear model.
//
// A missing (undefined) input is treated as the step's natural "missing": an unknown category
// for the one-hot encoder, the value to replace for the imputer, zeros for the dictionary
// vectorizer, NaN elsewhere. The feature vectorizer takes integer-keyed dictionaries besides
// numbers and arrays: each entry lands at its key within the width declared for the input.
#include <cmath>
#include <limits>
#include <unordered_map>

#include "Internal.h"

namespace orvane::coreml::detail {

namespace {

constexpr double kMissing = std::numeric_limits<double>::quiet_NaN();

// Copies, not pointers: the description a step is built from does not outlive the build.
struct Port {
  uint32_t slot;
  std::string name;
  FeatureDescription description;
};

struct OneInOneOut {
  Port in;
  Port out;
};

Result<OneInOneOut> singleInputOutput(const ModelDescription& d, SlotTable& slots,
                                      const char* kind) {
  if (d.inputs.size() != 1 || d.outputs.size() != 1) {
    return Error(std::string(kind) + " needs exactly one input and one output; it has " +
                 std::to_string(d.inputs.size()) + " and " + std::to_string(d.outputs.size()));
  }
  return OneInOneOut{Port{slots.slotFor(d.inputs[0].name), d.inputs[0].name, d.inputs[0]},
                     Port{slots.slotFor(d.outputs[0].name), d.outputs[0].name, d.outputs[0]}};
}

// A numeric value as an array of doubles (a scalar gives one element).
Result<std::vector<double>> numbersOf(const FeatureValue& value, const std::string& name) {
  if (auto d = value.doubleValue()) return std::vector<double>{*d};
  if (auto i = value.int64Value()) return std::vector<double>{static_cast<double>(*i)};
  if (const MultiArray* a = value.multiArrayValue()) return a->values;
  return Error("input '" + name + "' holds a " +
               std::string(value.isUndefined() ? "missing value" : featureTypeName(value.type())) +
               " where numbers are needed");
}

// ---- One-hot encoder ---------------------------------------------------------------------

class OneHotEncoder final : public Evaluator {
 public:
  OneHotEncoder(OneInOneOut io, const schema::OneHotEncoder& message) : io_(std::move(io)) {
    isString_ = message.has_stringcategories();
    if (isString_) {
      const auto& v = message.stringcategories().vector();
      for (int i = 0; i < v.size(); ++i) stringIndex_.emplace(v[i], static_cast<size_t>(i));
      size_ = static_cast<size_t>(v.size());
    } else {
      const auto& v = message.int64categories().vector();
      for (int i = 0; i < v.size(); ++i) int64Index_.emplace(v[i], static_cast<size_t>(i));
      size_ = static_cast<size_t>(v.size());
    }
    sparse_ = message.outputsparse();
    ignoreUnknown_ = message.handleunknown() == schema::OneHotEncoder::IgnoreUnknown;
  }

  Status evaluate(Slots& slots) const override {
    const FeatureValue& value = slots[io_.in.slot];
    std::optional<size_t> index;
    std::string shown;
    if (isString_) {
      if (const std::string* s = value.stringValue()) {
        if (auto it = stringIndex_.find(*s); it != stringIndex_.end()) index = it->second;
        shown = "'" + *s + "'";
      } else if (!value.isUndefined()) {
        return Error("one-hot input '" + io_.in.name + "' must be a string");
      }
    } else {
      std::optional<int64_t> key = value.int64Value();
      if (auto d = value.doubleValue();
          d && std::isfinite(*d) && std::trunc(*d) == *d && std::fabs(*d) < 9.2e18) {
        key = static_cast<int64_t>(*d);
      } else if (!key && !value.isUndefined() && !value.doubleValue()) {
        return Error("one-hot input '" + io_.in.name + "' must be an integer");
      }
      if (key) {
        if (auto it = int64Index_.find(*key); it != int64Index_.end()) index = it->second;
        shown = std::to_string(*key);
      }
    }
    if (!index && !ignoreUnknown_) {
      return Error("one-hot input '" + io_.in.name + "' has the unknown category " +
                   (shown.empty() ? std::string("(missing)") : shown));
    }
    if (sparse_) {
      FeatureValue::Int64Dictionary dict;
      if (index) dict[static_cast<int64_t>(*index)] = 1.0;
      slots[io_.out.slot] = FeatureValue::fromDictionary(std::move(dict));
    } else {
      std::vector<double> out(size_, 0.0);
      if (index) out[*index] = 1.0;
      slots[io_.out.slot] = FeatureValue::fromDoubles(std::move(out));
    }
    return {};
  }

 private:
  OneInOneOut io_;
  bool isString_ = false;
  bool sparse_ = false;
  bool ignoreUnknown_ = false;
  size_t size_ = 0;
  std::unordered_map<std::string, size_t> stringIndex_;
  std::unordered_map<int64_t, size_t> int64Index_;
};

Result<EvaluatorPtr> buildOneHot(const schema::OneHotEncoder& message, const ModelDescription& d,
                                 SlotTable& slots) {
  auto io = singleInputOutput(d, slots, "the one-hot encoder");
  if (!io) return io.error();
  size_t count = 0;
  if (message.has_stringcategories()) {
    count = static_cast<size_t>(message.stringcategories().vector_size());
    if (io->in.description.type != FeatureType::kString) {
      return Error("one-hot input '" + io->in.name + "' must be a string for string categories");
    }
  } else if (message.has_int64categories()) {
    count = static_cast<size_t>(message.int64categories().vector_size());
    if (io->in.description.type != FeatureType::kInt64 &&
        io->in.description.type != FeatureType::kDouble) {
      return Error("one-hot input '" + io->in.name + "' must be a number for integer categories");
    }
  } else {
    return Error("the one-hot encoder has no categories");
  }
  if (count == 0) return Error("the one-hot encoder has no categories");
  if (count > kMaxDimensions) return Error("the one-hot encoder has too many categories");
  return EvaluatorPtr(std::make_unique<OneHotEncoder>(std::move(io).value(), message));
}

// ---- Feature vectorizer ------------------------------------------------------------------

class FeatureVectorizer final : public Evaluator {
 public:
  struct Column {
    uint32_t slot;
    std::string name;
    size_t width;
  };
  FeatureVectorizer(std::vector<Column> columns, uint32_t out, size_t width)
      : columns_(std::move(columns)), out_(out), width_(width) {}

  Status evaluate(Slots& slots) const override {
    std::vector<double> out;
    out.reserve(width_);
    for (const auto& column : columns_) {
      const FeatureValue& value = slots[column.slot];
      if (value.isUndefined()) {
        out.insert(out.end(), column.width, kMissing);
        continue;
      }
      if (const auto* dict = value.int64DictionaryValue()) {
        // A sparse input (a one-hot encoder's sparse output, say): each entry sits at its key
        // within the column's width, every other position is zero.
        const size_t start = out.size();
        out.insert(out.end(), column.width, 0.0);
        for (const auto& [key, v] : *dict) {
          if (key < 0 || static_cast<uint64_t>(key) >= column.width) {
            return Error("vectorizer input '" + column.name + "' has the key " +
                         std::to_string(key) + ", outside its " + std::to_string(column.width) +
                         " declared dimensions");
          }
          out[start + static_cast<size_t>(key)] = v;
        }
        continue;
      }
      auto numbers = numbersOf(value, column.name);
      if (!numbers) return numbers.error();
      if (numbers->size() != column.width) {
        return Error("vectorizer input '" + column.name + "' has " +
                     std::to_string(numbers->size()) + " values where " +
                     std::to_string(column.width) + " are declared");
      }
      out.insert(out.end(), numbers->begin(), numbers->end());
    }
    slots[out_] = FeatureValue::fromDoubles(std::move(out));
    return {};
  }

 private:
  std::vector<Column> columns_;
  uint32_t out_;
  size_t width_;
};

Result<EvaluatorPtr> buildVectorizer(const schema::FeatureVectorizer& message,
                                     const ModelDescription& d, SlotTable& slots) {
  if (d.outputs.size() != 1) return Error("the feature vectorizer needs exactly one output");
  if (message.inputlist_size() == 0) return Error("the feature vectorizer has no input columns");
  std::vector<FeatureVectorizer::Column> columns;
  uint64_t width = 0;
  for (const auto& column : message.inputlist()) {
    const FeatureDescription* input = d.input(column.inputcolumn());
    if (!input) {
      return Error("vectorizer column '" + column.inputcolumn() + "' is not a declared input");
    }
    if (input->type == FeatureType::kDictionary &&
        input->dictionaryKeyType != DictionaryKeyType::kInt64) {
      return Error("vectorizer column '" + column.inputcolumn() +
                   "' is a dictionary without integer keys, which have no positions");
    }
    if (column.inputdimensions() == 0 || column.inputdimensions() > kMaxArrayElements) {
      return Error("vectorizer column '" + column.inputcolumn() + "' has an invalid width");
    }
    width += column.inputdimensions();
    if (width > kMaxArrayElements) return Error("the feature vectorizer output is too wide");
    columns.push_back({slots.slotFor(column.inputcolumn()), column.inputcolumn(),
                       static_cast<size_t>(column.inputdimensions())});
  }
  return EvaluatorPtr(std::make_unique<FeatureVectorizer>(
      std::move(columns), slots.slotFor(d.outputs[0].name), static_cast<size_t>(width)));
}

// ---- Imputer -----------------------------------------------------------------------------

class Imputer final : public Evaluator {
 public:
  Imputer(OneInOneOut io, schema::Imputer message)
      : io_(std::move(io)), message_(std::move(message)) {}

  Status evaluate(Slots& slots) const override {
    const FeatureValue& value = slots[io_.in.slot];
    using I = schema::Imputer;
    switch (message_.ImputedValue_case()) {
      case I::kImputedDoubleValue: {
        double x = kMissing;
        if (auto d = value.doubleValue()) {
          x = *d;
        } else if (auto i = value.int64Value()) {
          x = static_cast<double>(*i);
        } else if (!value.isUndefined()) {
          return typeError(value);
        }
        if (replaces(x)) x = message_.imputeddoublevalue();
        slots[io_.out.slot] = FeatureValue::fromDouble(x);
        return {};
      }
      case I::kImputedInt64Value: {
        auto i = value.int64Value();
        if (!i && !value.isUndefined()) return typeError(value);
        const bool replace = !i || (message_.ReplaceValue_case() == I::kReplaceInt64Value &&
                                    *i == message_.replaceint64value());
        slots[io_.out.slot] = FeatureValue::fromInt64(replace ? message_.imputedint64value() : *i);
        return {};
      }
      case I::kImputedStringValue: {
        const std::string* s = value.stringValue();
        if (!s && !value.isUndefined()) return typeError(value);
        const bool replace = !s || (message_.ReplaceValue_case() == I::kReplaceStringValue &&
                                    *s == message_.replacestringvalue());
        slots[io_.out.slot] =
            FeatureValue::fromString(replace ? message_.imputedstringvalue() : *s);
        return {};
      }
      case I::kImputedDoubleArray: {
        const auto& fill = message_.imputeddoublearray().vector();
        MultiArray out;
        if (const MultiArray* a = value.multiArrayValue()) {
          out = *a;
        } else if (value.isUndefined()) {
          out.shape = {fill.size()};
          out.values.assign(static_cast<size_t>(fill.size()), kMissing);
        } else {
          return typeError(value);
        }
        if (out.values.size() != static_cast<size_t>(fill.size())) {
          return Error("imputer input '" + io_.in.name + "' has " +
                       std::to_string(out.values.size()) + " values, the imputer " +
                       std::to_string(fill.size()));
        }
        for (size_t k = 0; k < out.values.size(); ++k) {
          if (replaces(out.values[k])) out.values[k] = fill[static_cast<int>(k)];
        }
        slots[io_.out.slot] = FeatureValue::fromMultiArray(std::move(out));
        return {};
      }
      case I::kImputedStringDictionary:
        if (value.isUndefined()) {
          const auto& m = message_.imputedstringdictionary().map();
          slots[io_.out.slot] =
              FeatureValue::fromDictionary(FeatureValue::StringDictionary(m.begin(), m.end()));
        } else {
          slots[io_.out.slot] = value;
        }
        return {};
      case I::kImputedInt64Dictionary:
        if (value.isUndefined()) {
          const auto& m = message_.imputedint64dictionary().map();
          slots[io_.out.slot] =
              FeatureValue::fromDictionary(FeatureValue::Int64Dictionary(m.begin(), m.end()));
        } else {
          slots[io_.out.slot] = value;
        }
        return {};
      default:
        return Error("the imputer has no imputed value");
    }
  }

 private:
  // NaN is always missing; an explicit replacement value is missing too.
  bool replaces(double x) const {
    if (std::isnan(x)) return true;
    return message_.ReplaceValue_case() == schema::Imputer::kReplaceDoubleValue &&
           x == message_.replacedoublevalue();
  }
  Status typeError(const FeatureValue& value) const {
    return Error("imputer input '" + io_.in.name + "' holds a " + featureTypeName(value.type()) +
                 " that does not match the imputed value");
  }

  OneInOneOut io_;
  schema::Imputer message_;
};

// ---- Scaler and normalizer ---------------------------------------------------------------

class Scaler final : public Evaluator {
 public:
  Scaler(OneInOneOut io, std::vector<double> shift, std::vector<double> scale)
      : io_(std::move(io)), shift_(std::move(shift)), scale_(std::move(scale)) {}

  Status evaluate(Slots& slots) const override {
    const FeatureValue& value = slots[io_.in.slot];
    const bool scalar = !value.multiArrayValue();
    if (value.isUndefined() && io_.in.description.type != FeatureType::kMultiArray) {
      slots[io_.out.slot] = FeatureValue::fromDouble(kMissing);
      return {};
    }
    auto numbers = numbersOf(value, io_.in.name);
    if (!numbers) return numbers.error();
    std::vector<double>& x = numbers.value();
    if (!fits(shift_, x.size()) || !fits(scale_, x.size())) {
      return Error("scaler input '" + io_.in.name + "' has " + std::to_string(x.size()) +
                   " values, which its shift and scale do not fit");
    }
    for (size_t i = 0; i < x.size(); ++i) {
      const double shift = shift_.empty() ? 0.0 : shift_[shift_.size() == 1 ? 0 : i];
      const double scale = scale_.empty() ? 1.0 : scale_[scale_.size() == 1 ? 0 : i];
      x[i] = scale * (x[i] + shift);
    }
    if (scalar) {
      slots[io_.out.slot] = FeatureValue::fromDouble(x[0]);
    } else {
      MultiArray out{value.multiArrayValue()->shape, std::move(x)};
      slots[io_.out.slot] = FeatureValue::fromMultiArray(std::move(out));
    }
    return {};
  }

 private:
  static bool fits(const std::vector<double>& v, size_t n) {
    return v.size() <= 1 || v.size() == n;
  }
  OneInOneOut io_;
  std::vector<double> shift_;
  std::vector<double> scale_;
};

class Normalizer final : public Evaluator {
 public:
  Normalizer(OneInOneOut io, schema::Normalizer::NormType norm) : io_(std::move(io)), norm_(norm) {}

  Status evaluate(Slots& slots) const override {
    auto numbers = numbersOf(slots[io_.in.slot], io_.in.name);
    if (!numbers) return numbers.error();
    std::vector<double>& x = numbers.value();
    double norm = 0;
    for (double v : x) {
      switch (norm_) {
        case schema::Normalizer::LMax:
          norm = std::max(norm, std::fabs(v));
          break;
        case schema::Normalizer::L1:
          norm += std::fabs(v);
          break;
        default:
          norm += v * v;
          break;
      }
    }
    if (norm_ == schema::Normalizer::L2) norm = std::sqrt(norm);
    // A zero vector stays as it is instead of turning into NaN.
    if (norm > 0) {
      for (double& v : x) v /= norm;
    }
    slots[io_.out.slot] = FeatureValue::fromDoubles(std::move(x));
    return {};
  }

 private:
  OneInOneOut io_;
  schema::Normalizer::NormType norm_;
};

// ---- Array feature extractor and dictionary vectorizer ------------------------------------

class ArrayFeatureExtractor final : public Evaluator {
 public:
  ArrayFeatureExtractor(OneInOneOut io, std::vector<uint64_t> indices)
      : io_(std::move(io)), indices_(std::move(indices)) {}

  Status evaluate(Slots& slots) const override {
    const MultiArray* array = slots[io_.in.slot].multiArrayValue();
    if (!array) return Error("extractor input '" + io_.in.name + "' must be a multi-array");
    std::vector<double> out;
    out.reserve(indices_.size());
    for (uint64_t index : indices_) {
      if (index >= array->values.size()) {
        return Error("extractor reads index " + std::to_string(index) + " of input '" +
                     io_.in.name + "', which has " + std::to_string(array->values.size()) +
                     " values");
      }
      out.push_back(array->values[static_cast<size_t>(index)]);
    }
    const FeatureType outType = io_.out.description.type;
    if (out.size() == 1 && outType == FeatureType::kDouble) {
      slots[io_.out.slot] = FeatureValue::fromDouble(out[0]);
    } else if (out.size() == 1 && outType == FeatureType::kInt64) {
      const double v = out[0];
      if (!std::isfinite(v) || std::trunc(v) != v || std::fabs(v) >= 9.2e18) {
        return Error("extracted value of '" + io_.in.name + "' is not an integer");
      }
      slots[io_.out.slot] = FeatureValue::fromInt64(static_cast<int64_t>(v));
    } else {
      slots[io_.out.slot] = FeatureValue::fromDoubles(std::move(out));
    }
    return {};
  }

 private:
  OneInOneOut io_;
  std::vector<uint64_t> indices_;
};

class DictVectorizer final : public Evaluator {
 public:
  DictVectorizer(OneInOneOut io, const schema::DictVectorizer& message) : io_(std::move(io)) {
    if (message.has_stringtoindex()) {
      const auto& v = message.stringtoindex().vector();
      for (int i = 0; i < v.size(); ++i) stringIndex_.emplace(v[i], static_cast<size_t>(i));
      size_ = static_cast<size_t>(v.size());
    } else {
      const auto& v = message.int64toindex().vector();
      for (int i = 0; i < v.size(); ++i) int64Index_.emplace(v[i], static_cast<size_t>(i));
      size_ = static_cast<size_t>(v.size());
    }
  }

  Status evaluate(Slots& slots) const override {
    const FeatureValue& value = slots[io_.in.slot];
    std::vector<double> out(size_, 0.0);
    if (const auto* dict = value.stringDictionaryValue()) {
      for (const auto& [key, v] : *dict) {
        if (auto it = stringIndex_.find(key); it != stringIndex_.end()) out[it->second] = v;
      }
    } else if (const auto* dict = value.int64DictionaryValue()) {
      for (const auto& [key, v] : *dict) {
        if (auto it = int64Index_.find(key); it != int64Index_.end()) out[it->second] = v;
      }
    } else if (!value.isUndefined()) {
      return Error("dictionary vectorizer input '" + io_.in.name + "' must be a dictionary");
    }
    slots[io_.out.slot] = FeatureValue::fromDoubles(std::move(out));
    return {};
  }

 private:
  OneInOneOut io_;
  size_t size_ = 0;
  std::unordered_map<std::string, size_t> stringIndex_;
  std::unordered_map<int64_t, size_t> int64Index_;
};

}  // namespace

Result<EvaluatorPtr> buildTransform(const schema::Model& model, const ModelDescription& d,
                                    BuildContext& context) {
  SlotTable& slots = context.slots;
  switch (model.Type_case()) {
    case schema::Model::kOneHotEncoder:
      return buildOneHot(model.onehotencoder(), d, slots);
    case schema::Model::kFeatureVectorizer:
      return buildVectorizer(model.featurevectorizer(), d, slots);
    case schema::Model::kImputer: {
      auto io = singleInputOutput(d, slots, "the imputer");
      if (!io) return io.error();
      if (model.imputer().ImputedValue_case() == schema::Imputer::IMPUTEDVALUE_NOT_SET) {
        return Error("the imputer has no imputed value");
      }
      if (model.imputer().has_imputeddoublearray() &&
          static_cast<uint64_t>(model.imputer().imputeddoublearray().vector_size()) >
              kMaxArrayElements) {
        return Error("the imputer's array is too large");
      }
      return EvaluatorPtr(std::make_unique<Imputer>(std::move(io).value(), model.imputer()));
    }
    case schema::Model::kScaler: {
      auto io = singleInputOutput(d, slots, "the scaler");
      if (!io) return io.error();
      const auto& s = model.scaler();
      return EvaluatorPtr(std::make_unique<Scaler>(
          std::move(io).value(), std::vector<double>(s.shiftvalue().begin(), s.shiftvalue().end()),
          std::vector<double>(s.scalevalue().begin(), s.scalevalue().end())));
    }
    case schema::Model::kNormalizer: {
      auto io = singleInputOutput(d, slots, "the normalizer");
      if (!io) return io.error();
      const auto norm = model.normalizer().normtype();
      if (norm != schema::Normalizer::LMax && norm != schema::Normalizer::L1 &&
          norm != schema::Normalizer::L2) {
        return Error("unknown norm of the normalizer");
      }
      return EvaluatorPtr(std::make_unique<Normalizer>(std::move(io).value(), norm));
    }
    case schema::Model::kArrayFeatureExtractor: {
      auto io = singleInputOutput(d, slots, "the array feature extractor");
      if (!io) return io.error();
      const auto& indices = model.arrayfeatureextractor().extractindex();
      if (indices.empty()) return Error("the array feature extractor extracts nothing");
      const FeatureDescription& in = io->in.description;
      if (in.type == FeatureType::kMultiArray && !in.hasFlexibleShape) {
        if (auto count = elementCount(in.shape)) {
          for (uint64_t index : indices) {
            if (index >= *count) {
              return Error("the array feature extractor reads index " + std::to_string(index) +
                           " of input '" + in.name + "', which has " + std::to_string(*count) +
                           " values");
            }
          }
        }
      }
      return EvaluatorPtr(std::make_unique<ArrayFeatureExtractor>(
          std::move(io).value(), std::vector<uint64_t>(indices.begin(), indices.end())));
    }
    case schema::Model::kDictVectorizer: {
      auto io = singleInputOutput(d, slots, "the dictionary vectorizer");
      if (!io) return io.error();
      const auto& dv = model.dictvectorizer();
      if (!dv.has_stringtoindex() && !dv.has_int64toindex()) {
        return Error("the dictionary vectorizer has no keys");
      }
      return EvaluatorPtr(std::make_unique<DictVectorizer>(std::move(io).value(), dv));
    }
    default:
      return Error("not a preprocessing model");
  }
}

}  // namespace orvane::coreml::detail
