// File: Model.cc
// Parsing, validation, pipelines, the compiled folder, and the prediction entry point.
#include "coreml/Model.h"

#include <google/protobuf/arena.h>
#include <google/protobuf/stubs/logging.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <limits>
#include <new>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "Internal.h"

namespace orvane::coreml {

namespace detail {

namespace {

class PipelineEvaluator final : public Evaluator {
 public:
  explicit PipelineEvaluator(std::vector<EvaluatorPtr> stages) : stages_(std::move(stages)) {}
  Status evaluate(Slots& slots) const override {
    for (const auto& stage : stages_) {
      if (auto s = stage->evaluate(slots); !s) return s;
    }
    return {};
  }

 private:
  std::vector<EvaluatorPtr> stages_;
};

const schema::Pipeline* pipelineOf(const schema::Model& model) {
  switch (model.Type_case()) {
    case schema::Model::kPipeline:
      return &model.pipeline();
    case schema::Model::kPipelineClassifier:
      return &model.pipelineclassifier().pipeline();
    case schema::Model::kPipelineRegressor:
      return &model.pipelineregressor().pipeline();
    default:
      return nullptr;
  }
}

Result<EvaluatorPtr> buildPipeline(const schema::Pipeline& pipeline,
                                   const ModelDescription& description, BuildContext& context) {
  if (pipeline.models_size() == 0) return Error("the pipeline has no stages");
  // Names every stage may read: the pipeline's inputs, then each stage's outputs in turn.
  std::set<std::string> available;
  for (const auto& input : description.inputs) available.insert(input.name);
  std::vector<EvaluatorPtr> stages;
  for (int i = 0; i < pipeline.models_size(); ++i) {
    const schema::Model& stage = pipeline.models(i);
    std::string label = "pipeline stage " + std::to_string(i);
    if (i < pipeline.names_size() && !pipeline.names(i).empty()) {
      label += " ('" + pipeline.names(i) + "')";
    }
    auto stageDescription = convertDescription(stage.description());
    if (!stageDescription) return Error(label + ": " + stageDescription.message());
    for (const auto& input : stageDescription->inputs) {
      if (!input.isOptional && !available.count(input.name)) {
        return Error(label + " needs input '" + input.name +
                     "', which neither the pipeline's inputs nor an earlier stage provide");
      }
    }
    auto evaluator = buildEvaluator(stage, context);
    if (!evaluator) return evaluator.error().prefixed(label + ": ");
    for (const auto& output : stageDescription->outputs) available.insert(output.name);
    if (stageDescription->outputs.empty()) return Error(label + " declares no outputs");
    stages.push_back(std::move(evaluator).value());
  }
  for (const auto& output : description.outputs) {
    if (!available.count(output.name)) {
      return Error("pipeline output '" + output.name + "' is produced by no stage");
    }
    context.slots.slotFor(output.name);
  }
  return EvaluatorPtr(std::make_unique<PipelineEvaluator>(std::move(stages)));
}

}  // namespace

std::string kindName(const schema::Model& model) {
  using M = schema::Model;
  switch (model.Type_case()) {
    case M::kPipelineClassifier:
      return "pipelineClassifier";
    case M::kPipelineRegressor:
      return "pipelineRegressor";
    case M::kPipeline:
      return "pipeline";
    case M::kGlmRegressor:
      return "glmRegressor";
    case M::kSupportVectorRegressor:
      return "supportVectorRegressor";
    case M::kTreeEnsembleRegressor:
      return "treeEnsembleRegressor";
    case M::kNeuralNetworkRegressor:
      return "neuralNetworkRegressor";
    case M::kBayesianProbitRegressor:
      return "bayesianProbitRegressor";
    case M::kGlmClassifier:
      return "glmClassifier";
    case M::kSupportVectorClassifier:
      return "supportVectorClassifier";
    case M::kTreeEnsembleClassifier:
      return "treeEnsembleClassifier";
    case M::kNeuralNetworkClassifier:
      return "neuralNetworkClassifier";
    case M::kKNearestNeighborsClassifier:
      return "kNearestNeighborsClassifier";
    case M::kNeuralNetwork:
      return "neuralNetwork";
    case M::kItemSimilarityRecommender:
      return "itemSimilarityRecommender";
    case M::kMlProgram:
      return "mlProgram";
    case M::kCustomModel:
      return "customModel";
    case M::kLinkedModel:
      return "linkedModel";
    case M::kClassConfidenceThresholding:
      return "classConfidenceThresholding";
    case M::kOneHotEncoder:
      return "oneHotEncoder";
    case M::kImputer:
      return "imputer";
    case M::kFeatureVectorizer:
      return "featureVectorizer";
    case M::kDictVectorizer:
      return "dictVectorizer";
    case M::kScaler:
      return "scaler";
    case M::kCategoricalMapping:
      return "categoricalMapping";
    case M::kNormalizer:
      return "normalizer";
    case M::kArrayFeatureExtractor:
      return "arrayFeatureExtractor";
    case M::kNonMaximumSuppression:
      return "nonMaximumSuppression";
    case M::kIdentity:
      return "identity";
    case M::kTextClassifier:
      return "textClassifier";
    case M::kWordTagger:
      return "wordTagger";
    case M::kVisionFeaturePrint:
      return "visionFeaturePrint";
    case M::kSoundAnalysisPreprocessing:
      return "soundAnalysisPreprocessing";
    case M::kGazetteer:
      return "gazetteer";
    case M::kWordEmbedding:
      return "wordEmbedding";
    case M::kAudioFeaturePrint:
      return "audioFeaturePrint";
    case M::kSerializedModel:
      return "serializedModel";
    case M::TYPE_NOT_SET:
      return "unknown";
  }
  return "unknown";
}

Result<EvaluatorPtr> buildEvaluator(const schema::Model& model, BuildContext& context) {
  if (context.depth >= kMaxPipelineDepth) return Error("pipelines are nested too deeply");
  if (model.specificationversion() < 0 ||
      model.specificationversion() > kNewestSpecificationVersion) {
    return Error::unsupported("unsupported format version " +
                              std::to_string(model.specificationversion()));
  }
  auto description = convertDescription(model.description());
  if (!description) return description.error();

  using M = schema::Model;
  switch (model.Type_case()) {
    case M::kPipeline:
    case M::kPipelineClassifier:
    case M::kPipelineRegressor: {
      ++context.depth;
      auto built = buildPipeline(*pipelineOf(model), description.value(), context);
      --context.depth;
      return built;
    }
    case M::kTreeEnsembleClassifier:
      return buildTreeEnsembleClassifier(model, description.value(), context);
    case M::kTreeEnsembleRegressor:
      return buildTreeEnsembleRegressor(model, description.value(), context);
    case M::kGlmClassifier:
      return buildGlmClassifier(model, description.value(), context);
    case M::kGlmRegressor:
      return buildGlmRegressor(model, description.value(), context);
    case M::kOneHotEncoder:
    case M::kImputer:
    case M::kFeatureVectorizer:
    case M::kDictVectorizer:
    case M::kScaler:
    case M::kNormalizer:
    case M::kArrayFeatureExtractor:
      return buildTransform(model, description.value(), context);
    case M::TYPE_NOT_SET:
      return Error::unsupported("the model is of no kind this runtime knows");
    default:
      return Error::unsupported("models of kind '" + kindName(model) + "' are not supported");
  }
}

}  // namespace detail

// ---- The loaded model ----------------------------------------------------------------------

class ModelImpl {
 public:
  struct Input {
    FeatureDescription description;
    uint32_t slot;
  };
  struct Output {
    std::string name;
    uint32_t slot;
  };

  ModelDescription description;
  int specificationVersion = 0;
  std::string kind;
  std::vector<Input> inputs;
  std::vector<Output> outputs;
  size_t slotCount = 0;
  detail::EvaluatorPtr evaluator;
};

namespace {

using detail::Slots;

bool isIntegral(double d) {
  return std::isfinite(d) && std::trunc(d) == d && std::fabs(d) < 9.2e18;
}

// Brings a provided value to the declared type of an input, or says why it cannot.
Result<FeatureValue> coerce(FeatureValue value, const FeatureDescription& input) {
  const std::string& name = input.name;
  auto mismatch = [&]() {
    return Error("input '" + name + "' is declared as " + featureTypeName(input.type) +
                 " but was given a " + featureTypeName(value.type()));
  };
  if (value.isUndefined()) return FeatureValue::undefined(input.type);
  switch (input.type) {
    case FeatureType::kInt64:
      if (value.int64Value()) return value;
      if (auto d = value.doubleValue()) {
        if (isIntegral(*d)) return FeatureValue::fromInt64(static_cast<int64_t>(*d));
        if (std::isnan(*d)) return FeatureValue::undefined(FeatureType::kInt64);
        return Error("input '" + name + "' is an int64 but was given a fractional double");
      }
      return mismatch();
    case FeatureType::kDouble:
      if (value.doubleValue()) return value;
      if (auto i = value.int64Value()) return FeatureValue::fromDouble(static_cast<double>(*i));
      return mismatch();
    case FeatureType::kString:
      if (value.stringValue()) return value;
      return mismatch();
    case FeatureType::kMultiArray: {
      MultiArray array;
      if (const MultiArray* given = value.multiArrayValue()) {
        array = *given;
      } else if (auto d = value.doubleValue()) {
        array = {{1}, {*d}};
      } else if (auto i = value.int64Value()) {
        array = {{1}, {static_cast<double>(*i)}};
      } else {
        return mismatch();
      }
      if (array.shape.empty()) array.shape = {static_cast<int64_t>(array.values.size())};
      auto count = detail::elementCount(array.shape);
      if (!count || *count != array.values.size()) {
        return Error("input '" + name + "' has a shape that does not match its " +
                     std::to_string(array.values.size()) + " values");
      }
      if (!input.hasFlexibleShape) {
        if (auto declared = detail::elementCount(input.shape); declared && *declared != *count) {
          return Error("input '" + name + "' has " + std::to_string(*count) + " values where " +
                       std::to_string(*declared) + " are declared");
        }
      }
      return FeatureValue::fromMultiArray(std::move(array));
    }
    case FeatureType::kDictionary:
      if (input.dictionaryKeyType == DictionaryKeyType::kString && value.stringDictionaryValue())
        return value;
      if (input.dictionaryKeyType == DictionaryKeyType::kInt64 && value.int64DictionaryValue())
        return value;
      return Error("input '" + name + "' was given a dictionary of the wrong key type or none");
    default:
      return Error("input '" + name + "' is a " + featureTypeName(input.type) +
                   ", which this runtime does not read");
  }
}

Result<std::vector<uint8_t>> readFile(const std::string& path, size_t maxBytes) {
  std::error_code ec;
  const auto size = std::filesystem::file_size(path, ec);
  if (ec) return Error("cannot read '" + path + "': " + ec.message());
  if (size > maxBytes) {
    return Error("'" + path + "' is " + std::to_string(size) + " bytes; the limit is " +
                 std::to_string(maxBytes));
  }
  std::ifstream in(path, std::ios::binary);
  if (!in) return Error("cannot open '" + path + "'");
  std::vector<uint8_t> bytes(static_cast<size_t>(size));
  if (size > 0 &&
      !in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(size))) {
    return Error("cannot read '" + path + "'");
  }
  return bytes;
}

Status writeFile(const std::filesystem::path& path, const void* data, size_t size) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  if (!out) return Error("cannot create '" + path.string() + "'");
  out.write(static_cast<const char*>(data), static_cast<std::streamsize>(size));
  out.close();
  if (!out) return Error("cannot write '" + path.string() + "'");
  return {};
}

std::string fnv1a64(const uint8_t* data, size_t size) {
  uint64_t hash = 0xcbf29ce484222325ull;
  for (size_t i = 0; i < size; ++i) {
    hash ^= data[i];
    hash *= 0x100000001b3ull;
  }
  char text[17];
  std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(hash));
  return text;
}

// The parser's arena takes its blocks from this budget, set for one parse on this thread; the
// exception unwinds the parser, and the arena frees what it had.
struct ParseBudgetExceeded : std::bad_alloc {};
thread_local size_t parseBudgetLeft = std::numeric_limits<size_t>::max();

void* budgetedBlock(size_t size) {
  if (size > parseBudgetLeft) throw ParseBudgetExceeded();
  parseBudgetLeft -= size;
  return ::operator new(size);
}
// Unsized: clang before 16 declares the sized form only with -fsized-deallocation.
void releaseBlock(void* block, size_t /*size*/) { ::operator delete(block); }

class ParseBudget {
 public:
  explicit ParseBudget(size_t bytes) { parseBudgetLeft = bytes; }
  ~ParseBudget() { parseBudgetLeft = std::numeric_limits<size_t>::max(); }
  ParseBudget(const ParseBudget&) = delete;
  ParseBudget& operator=(const ParseBudget&) = delete;
};

google::protobuf::ArenaOptions budgetedArenaOptions() {
  google::protobuf::ArenaOptions options;
  options.start_block_size = 4096;
  options.max_block_size = 1u << 20;
  options.block_alloc = budgetedBlock;
  options.block_dealloc = releaseBlock;
  return options;
}

Result<std::shared_ptr<ModelImpl>> buildModel(const void* data, size_t size) {
  if (size > kMaxModelFileBytes) {
    return Error("the model is " + std::to_string(size) + " bytes; the limit is " +
                 std::to_string(kMaxModelFileBytes));
  }
  if (size == 0) return Error("the model file is empty");
  google::protobuf::Arena arena(budgetedArenaOptions());
  auto& model = *google::protobuf::Arena::CreateMessage<schema::Model>(&arena);
  try {
    const ParseBudget budget(kMaxParsedModelBytes);
    // The parser logs what it rejects to stderr; the error we return says enough.
    const google::protobuf::LogSilencer quiet;
    if (!model.ParseFromArray(data, static_cast<int>(size))) {
      return Error("the model file is not a valid model (protobuf parsing failed)");
    }
  } catch (const ParseBudgetExceeded&) {
    return Error("parsing the model would take more than " + std::to_string(kMaxParsedModelBytes) +
                 " bytes, the limit");
  }
  const int version = model.specificationversion();
  if (version < kOldestSpecificationVersion || version > kNewestSpecificationVersion) {
    return Error::unsupported(
        "format version " + std::to_string(version) + " is outside the range " +
        std::to_string(kOldestSpecificationVersion) + " to " +
        std::to_string(kNewestSpecificationVersion) + " that this runtime reads");
  }
  if (!model.has_description()) return Error("the model has no description");
  auto impl = std::make_shared<ModelImpl>();
  auto description = detail::convertDescription(model.description());
  if (!description) return description.error();
  impl->description = std::move(description).value();
  impl->specificationVersion = version;
  impl->kind = detail::kindName(model);
  if (impl->description.inputs.empty()) return Error("the model declares no inputs");
  if (impl->description.outputs.empty()) return Error("the model declares no outputs");

  detail::BuildContext context;
  // Inputs take the first slots, in description order.
  for (const auto& input : impl->description.inputs) {
    impl->inputs.push_back({input, context.slots.slotFor(input.name)});
  }
  auto evaluator = detail::buildEvaluator(model, context);
  if (!evaluator) return evaluator.error();
  impl->evaluator = std::move(evaluator).value();
  for (const std::string* name :
       {&impl->description.predictedProbabilitiesName, &impl->description.predictedFeatureName}) {
    const auto slot = name->empty() ? std::nullopt : context.slots.find(*name);
    if (!slot) continue;
    if (auto labels = context.classLabelsBySlot.find(*slot);
        labels != context.classLabelsBySlot.end()) {
      impl->description.stringClassLabels = labels->second.strings;
      impl->description.int64ClassLabels = labels->second.ints;
      break;
    }
  }
  for (const auto& output : impl->description.outputs) {
    auto slot = context.slots.find(output.name);
    if (!slot) return Error("output '" + output.name + "' is never produced");
    impl->outputs.push_back({output.name, *slot});
  }
  impl->slotCount = context.slots.size();
  return impl;
}

}  // namespace

Result<Model> Model::fromBytes(const void* data, size_t size) {
  try {
    auto impl = buildModel(data, size);
    if (!impl) return impl.error();
    return Model(std::move(impl).value());
  } catch (const std::bad_alloc&) {
    return Error("out of memory while loading the model");
  } catch (const std::exception& e) {
    return Error(std::string("loading the model failed: ") + e.what());
  }
}

Result<Model> Model::loadModelFile(const std::string& modelFilePath) {
  try {
    auto bytes = readFile(modelFilePath, kMaxModelFileBytes);
    if (!bytes) return bytes.error();
    auto model = fromBytes(bytes->data(), bytes->size());
    if (!model) return model.error().prefixed("'" + modelFilePath + "': ");
    return model;
  } catch (const std::exception& e) {
    return Error(std::string("loading the model failed: ") + e.what());
  }
}

Result<Model> Model::load(const std::string& compiledFolderPath) {
  try {
    namespace fs = std::filesystem;
    const fs::path folder(compiledFolderPath);
    auto manifestBytes = readFile((folder / kCompiledManifestFileName).string(), kMaxManifestBytes);
    if (!manifestBytes) return Error("not a compiled model: " + manifestBytes.message());
    const auto manifest =
        nlohmann::json::parse(manifestBytes->begin(), manifestBytes->end(), nullptr, false);
    if (!manifest.is_object()) return Error("the compiled model's manifest is not JSON");
    const auto version = manifest.find("formatVersion");
    if (version == manifest.end() || !version->is_number_integer()) {
      return Error("the compiled model's manifest has no format version");
    }
    if (version->get<int64_t>() != kCompiledFormatVersion) {
      return Error("compiled format version " + std::to_string(version->get<int64_t>()) +
                   " is not " + std::to_string(kCompiledFormatVersion) +
                   "; compile the model again");
    }
    auto bytes = readFile((folder / kCompiledModelFileName).string(), kMaxModelFileBytes);
    if (!bytes) return bytes.error();
    const auto size = manifest.find("modelBytes");
    const auto hash = manifest.find("modelFnv1a64");
    if (size == manifest.end() || !size->is_number_unsigned() ||
        size->get<uint64_t>() != bytes->size() || hash == manifest.end() || !hash->is_string() ||
        hash->get<std::string>() != fnv1a64(bytes->data(), bytes->size())) {
      return Error("the compiled model's bytes do not match its manifest");
    }
    return fromBytes(bytes->data(), bytes->size());
  } catch (const std::exception& e) {
    return Error(std::string("loading the compiled model failed: ") + e.what());
  }
}

Result<std::map<std::string, FeatureValue>> Model::predict(const FeatureProvider& provider) const {
  try {
    Slots slots(impl_->slotCount);
    for (const auto& input : impl_->inputs) {
      std::optional<FeatureValue> given = provider.featureValue(input.description.name);
      if (!given) {
        if (!input.description.isOptional) {
          return Error("missing input '" + input.description.name + "'");
        }
        slots[input.slot] = FeatureValue::undefined(input.description.type);
        continue;
      }
      const FeatureType declared = input.description.type;
      if (given->type() == declared && !given->isUndefined() &&
          (declared == FeatureType::kDouble || declared == FeatureType::kInt64 ||
           declared == FeatureType::kString)) {
        // The common case needs no conversion: move it straight into its slot.
        slots[input.slot] = std::move(*given);
        continue;
      }
      auto value = coerce(std::move(*given), input.description);
      if (!value) return value.error();
      slots[input.slot] = std::move(value).value();
    }
    if (auto s = impl_->evaluator->evaluate(slots); !s) return s.error();
    std::map<std::string, FeatureValue> outputs;
    for (const auto& output : impl_->outputs) {
      outputs.emplace(output.name, std::move(slots[output.slot]));
    }
    return outputs;
  } catch (const std::bad_alloc&) {
    return Error("out of memory during prediction");
  } catch (const std::exception& e) {
    return Error(std::string("prediction failed: ") + e.what());
  } catch (...) {
    return Error("prediction failed: the feature provider threw");
  }
}

const ModelDescription& Model::description() const { return impl_->description; }
int Model::specificationVersion() const { return impl_->specificationVersion; }
const std::string& Model::kindName() const { return impl_->kind; }

Result<std::string> compileModel(const std::string& modelFilePath,
                                 const std::string& destinationFolder) {
  try {
    namespace fs = std::filesystem;
    const std::string name = fs::path(modelFilePath).stem().string();
    if (name.empty()) return Error("'" + modelFilePath + "' has no file name");
    auto bytes = readFile(modelFilePath, kMaxModelFileBytes);
    if (!bytes) return bytes.error();
    auto model = Model::fromBytes(bytes->data(), bytes->size());
    if (!model) return model.error().prefixed("'" + modelFilePath + "' is not a usable model: ");

    std::error_code ec;
    fs::create_directories(destinationFolder, ec);
    if (ec) return Error("cannot create '" + destinationFolder + "': " + ec.message());
    const fs::path target = fs::path(destinationFolder) / (name + ".mlmodelc");
    // Written beside the target and renamed into place, so a reader never sees half a folder.
    const fs::path staging = fs::path(destinationFolder) / ("." + name + ".mlmodelc.partial");
    fs::remove_all(staging, ec);
    if (!fs::create_directory(staging, ec) || ec) {
      return Error("cannot create '" + staging.string() + "'");
    }
    nlohmann::json manifest = {
        {"format", "orvane-mlmodelc"},
        {"formatVersion", kCompiledFormatVersion},
        {"modelFile", kCompiledModelFileName},
        {"modelBytes", static_cast<uint64_t>(bytes->size())},
        {"modelFnv1a64", fnv1a64(bytes->data(), bytes->size())},
        {"specificationVersion", model->specificationVersion()},
        {"kind", model->kindName()},
        {"sourceName", fs::path(modelFilePath).filename().string()},
    };
    const std::string manifestText = manifest.dump(2) + "\n";
    Status written = writeFile(staging / kCompiledModelFileName, bytes->data(), bytes->size());
    if (written) {
      written =
          writeFile(staging / kCompiledManifestFileName, manifestText.data(), manifestText.size());
    }
    if (!written) {
      fs::remove_all(staging, ec);
      return written.error();
    }
    fs::remove_all(target, ec);
    fs::rename(staging, target, ec);
    if (ec) {
      fs::remove_all(staging, ec);
      return Error("cannot move the compiled model to '" + target.string() + "'");
    }
    return target.string();
  } catch (const std::exception& e) {
    return Error(std::string("compiling the model failed: ") + e.what());
  }
}

}  // namespace orvane::coreml
