// File: model_executor_bench.cc
// A decision as a context makes it: the delivered-model shape at its largest (100 boosted
// trees of depth 6 over every catalogue signal plus custom signals, 400 inputs) fed from a
// context's signals through the feature provider. Targets: median under 20 µs for the
// decision, under 20 ms for compile plus load.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>

#include "models/ModelExecutor.h"

namespace {

using namespace orvane;

std::string fixturePath() {
  if (const char* env = std::getenv("ORVANE_FIXTURES"); env && *env) {
    return std::string(env) + "/coreml/bench_gbc_signals.mlmodel";
  }
  return (std::filesystem::path(__FILE__).parent_path() / ".." / "tests" / "fixtures" / "coreml" /
          "bench_gbc_signals.mlmodel")
      .lexically_normal()
      .string();
}

class NullLog : public SystemLog {
 public:
  void write(LogLevel, std::string_view) override {}
};

struct Setup {
  std::shared_ptr<ModelRuntime> runtime = makePortableModelRuntime();
  std::string folder = std::filesystem::temp_directory_path() /
                       ("orvane-executor-bench-" + std::to_string(::getpid()));
  std::shared_ptr<const LoadedModel> model;
  std::string error;

  Setup() {
    auto compiled = runtime->compileModel(fixturePath(), folder);
    if (!compiled) {
      error = compiled.message();
      return;
    }
    auto loaded = runtime->loadCompiledModel(*compiled);
    if (!loaded) {
      error = loaded.message();
      return;
    }
    model = *loaded;
  }
  ~Setup() { std::filesystem::remove_all(folder); }
};

void BM_DecisionThroughFeatureProvider(benchmark::State& state) {
  Setup setup;
  if (!setup.model) {
    state.SkipWithError(setup.error.c_str());
    return;
  }
  std::mt19937_64 random(42);
  std::normal_distribution<float> normal;
  SignalList list;
  for (SignalEnum id : SignalEnum::allCases()) list.push_back(SignalFloat(id, normal(random)));
  CustomSignalList custom;
  for (int i = 0; i < 27; ++i) {
    custom.push_back(CustomSignalFloat("c" + std::to_string(i), normal(random)));
  }
  auto log = std::make_shared<NullLog>();
  SignalsManager signals(list, log);
  ModelExecutor executor({makeSystemRandomSource(), makeFixedOffsetCalendar("GMT", 0),
                          std::make_shared<StubDateProvider>(Date{1.7e9}), log, nullptr});
  CoreMLModelExecutionInformation info(0.1, ModelThresholds{0.5, {}, {}}, setup.model,
                                       CoreMLModelMetadata{3, false, {}});
  for (auto _ : state) {
    auto result = executor.executeCoreMLModel("bench-signals-1", info, {}, signals, custom);
    benchmark::DoNotOptimize(result);
  }
  state.counters["inputs"] = static_cast<double>(setup.model->description().inputs.size());
}
BENCHMARK(BM_DecisionThroughFeatureProvider)->Repetitions(5)->ReportAggregatesOnly(true);

void BM_CompileAndLoad(benchmark::State& state) {
  auto runtime = makePortableModelRuntime();
  const std::string folder = std::filesystem::temp_directory_path() /
                             ("orvane-executor-compile-" + std::to_string(::getpid()));
  for (auto _ : state) {
    auto compiled = runtime->compileModel(fixturePath(), folder);
    if (!compiled) {
      state.SkipWithError(compiled.message().c_str());
      break;
    }
    auto loaded = runtime->loadCompiledModel(*compiled);
    benchmark::DoNotOptimize(loaded);
  }
  std::filesystem::remove_all(folder);
}
BENCHMARK(BM_CompileAndLoad)
    ->Unit(benchmark::kMillisecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

}  // namespace
