// File: coreml_reader_fuzzer.cc
// Outside bytes as a model file: loading must answer with a model or an error, and a loaded
// model must predict (or refuse) from all-zero and from missing inputs without crashing.
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>

#include "FuzzSupport.h"
#include "coreml/Model.h"

namespace {

// Small fixture models, one of each family the runtime evaluates.
orvane::fuzz::Seeds seeds() {
  namespace fs = std::filesystem;
  const fs::path fixtures =
      fs::path(__FILE__).parent_path().parent_path() / "tests/fixtures/coreml";
  orvane::fuzz::Seeds result;
  for (const char* name :
       {"logistic_binary", "logistic_one_vs_rest", "pipeline_impute_scale_logistic",
        "decision_tree_mixed_behaviours", "demo_moment"}) {
    std::ifstream in(fixtures / (std::string(name) + ".mlmodel"), std::ios::binary);
    std::string bytes(std::istreambuf_iterator<char>(in), {});
    if (bytes.empty()) std::abort();
    result.push_back({std::string(name) + ".mlmodel", std::move(bytes)});
  }
  return result;
}

}  // namespace

ORVANE_FUZZ_SEEDS(seeds)

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  auto model = orvane::coreml::Model::fromBytes(data, size);
  if (!model.ok()) return 0;
  orvane::fuzz::predictFromZerosAndMissing(*model);
  return 0;
}
