// File: coreml_bench.cc
// The model runtime on the shape of model the service delivers at its largest: 100 boosted
// trees of depth 6 over 400 double inputs. Targets: a prediction under 20 µs (median), compile
// plus load under 20 ms.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <unordered_map>

#include "coreml/Model.h"

namespace {

using orvane::coreml::FeatureProvider;
using orvane::coreml::FeatureValue;
using orvane::coreml::Model;

std::string benchModelPath() {
  if (const char* env = std::getenv("ORVANE_FIXTURES"); env && *env) {
    return std::string(env) + "/coreml/bench_gbc_400.mlmodel";
  }
  return (std::filesystem::path(__FILE__).parent_path() / ".." / "tests" / "fixtures" / "coreml" /
          "bench_gbc_400.mlmodel")
      .lexically_normal()
      .string();
}

// What a host would write: a hash map from feature name to value.
class MapProvider : public FeatureProvider {
 public:
  std::vector<std::string> featureNames() const override {
    std::vector<std::string> names;
    for (const auto& [name, value] : values_) names.push_back(name);
    return names;
  }
  std::optional<FeatureValue> featureValue(const std::string& name) const override {
    auto it = values_.find(name);
    if (it == values_.end()) return std::nullopt;
    return it->second;
  }
  std::unordered_map<std::string, FeatureValue> values_;
};

void BM_Predict100TreesDepth6Over400Inputs(benchmark::State& state) {
  auto model = Model::loadModelFile(benchModelPath());
  if (!model) {
    state.SkipWithError(model.message().c_str());
    return;
  }
  MapProvider provider;
  std::mt19937_64 random(42);
  std::normal_distribution<double> normal;
  for (const auto& input : model->description().inputs) {
    provider.values_[input.name] = FeatureValue::fromDouble(normal(random));
  }
  for (auto _ : state) {
    auto out = model->predict(provider);
    if (!out) state.SkipWithError(out.message().c_str());
    benchmark::DoNotOptimize(out);
  }
}
BENCHMARK(BM_Predict100TreesDepth6Over400Inputs)
    ->Unit(benchmark::kMicrosecond)
    ->Repetitions(10)
    ->ReportAggregatesOnly(true);

// The host's share of a prediction: the 400 lookups a provider answers, without the model.
void BM_ProviderLookupsAlone(benchmark::State& state) {
  auto model = Model::loadModelFile(benchModelPath());
  if (!model) {
    state.SkipWithError(model.message().c_str());
    return;
  }
  MapProvider provider;
  for (const auto& input : model->description().inputs) {
    provider.values_[input.name] = FeatureValue::fromDouble(0.5);
  }
  for (auto _ : state) {
    for (const auto& input : model->description().inputs) {
      benchmark::DoNotOptimize(provider.featureValue(input.name));
    }
  }
}
BENCHMARK(BM_ProviderLookupsAlone)->Unit(benchmark::kMicrosecond);

void BM_CompileAndLoad(benchmark::State& state) {
  const auto dir =
      std::filesystem::temp_directory_path() / ("coreml_bench_" + std::to_string(::getpid()));
  const std::string source = benchModelPath();
  for (auto _ : state) {
    auto compiled = orvane::coreml::compileModel(source, dir.string());
    if (!compiled) {
      state.SkipWithError(compiled.message().c_str());
      break;
    }
    auto model = Model::load(compiled.value());
    if (!model) state.SkipWithError(model.message().c_str());
    benchmark::DoNotOptimize(model);
  }
  std::filesystem::remove_all(dir);
}
BENCHMARK(BM_CompileAndLoad)
    ->Unit(benchmark::kMillisecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

}  // namespace
