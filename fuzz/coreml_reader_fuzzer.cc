// File: coreml_reader_fuzzer.cc
// Outside bytes as a model file: loading must answer with a model or an error, and a loaded
// model must predict (or refuse) from all-zero inputs without crashing.
#include <cstddef>
#include <cstdint>

#include "coreml/Model.h"

namespace {

using orvane::coreml::DictionaryFeatureProvider;
using orvane::coreml::DictionaryKeyType;
using orvane::coreml::FeatureType;
using orvane::coreml::FeatureValue;
using orvane::coreml::MultiArray;

FeatureValue zeroFor(const orvane::coreml::FeatureDescription& input) {
  switch (input.type) {
    case FeatureType::kInt64:
      return FeatureValue::fromInt64(0);
    case FeatureType::kString:
      return FeatureValue::fromString("");
    case FeatureType::kMultiArray: {
      int64_t count = 1;
      for (int64_t d : input.shape) {
        if (d <= 0 || d > 4096 || count * d > 4096) return FeatureValue::fromDoubles({0.0});
        count *= d;
      }
      MultiArray array{input.shape.empty() ? std::vector<int64_t>{1} : input.shape,
                       std::vector<double>(static_cast<size_t>(count), 0.0)};
      return FeatureValue::fromMultiArray(std::move(array));
    }
    case FeatureType::kDictionary:
      if (input.dictionaryKeyType == DictionaryKeyType::kString) {
        return FeatureValue::fromDictionary(FeatureValue::StringDictionary{{"", 0.0}});
      }
      return FeatureValue::fromDictionary(FeatureValue::Int64Dictionary{{0, 0.0}});
    default:
      return FeatureValue::fromDouble(0.0);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  auto model = orvane::coreml::Model::fromBytes(data, size);
  if (!model.ok()) return 0;
  DictionaryFeatureProvider zeros;
  for (const auto& input : model->description().inputs) zeros.set(input.name, zeroFor(input));
  auto out = model->predict(zeros);
  (void)out.ok();
  // Missing values take the other paths of every evaluator.
  DictionaryFeatureProvider missing;
  for (const auto& input : model->description().inputs) {
    missing.set(input.name, FeatureValue::undefined(input.type));
  }
  auto none = model->predict(missing);
  (void)none.ok();
  return 0;
}
