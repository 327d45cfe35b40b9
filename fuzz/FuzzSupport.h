// File: FuzzSupport.h
// What the fuzz targets share: checks that abort with a message, a store and a reporter to
// run components on, deterministic randomness, and the seed-writing mode.
//
// Seeds: with ORVANE_FUZZ_WRITE_SEEDS=<folder> in the environment a target writes the valid
// inputs it lists with ORVANE_FUZZ_SEEDS (made by the real encoders) into that folder and
// exits; fuzz/corpus/<target>/ holds what that wrote.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <random>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "coreml/Model.h"
#include "logging/ErrorReporter.h"
#include "orvane/platform/KeyValueStore.h"
#include "orvane/platform/RandomSource.h"
#include "util/UserDefaultsProvider.h"

// A broken promise of the decoder under test: report it and let libFuzzer keep the input.
#define FUZZ_CHECK(condition)                                                            \
  do {                                                                                   \
    if (!(condition)) {                                                                  \
      std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition); \
      std::abort();                                                                      \
    }                                                                                    \
  } while (false)

namespace orvane::fuzz {

inline std::string_view asText(const uint8_t* data, size_t size) {
  return std::string_view(reinterpret_cast<const char*>(data), size);
}

inline Bytes asBytes(std::string_view text) { return Bytes(text.begin(), text.end()); }

// A fresh in-memory defaults suite, so nothing carries over from one input to the next. A
// provider keeps every suite it opened, so each suite gets a provider of its own.
inline std::shared_ptr<UserDefaultsProvider> makeDefaults() {
  return std::make_shared<UserDefaultsProvider>(
      makeInMemoryKeyValueStoreProvider()->openSuite("com.orvane.ads"));
}

class CountingErrorReporter : public ErrorReporter {
 public:
  using ErrorReporter::reportError;
  void reportError(std::string_view message, const std::optional<PlatformError>&, bool,
                   const std::optional<PlistDictionary>&) override {
    FUZZ_CHECK(!message.empty());
    ++count;
  }
  size_t count = 0;
};

// Uniform draws from a fixed seed, so a crashing input replays the same way.
class SeededRandomSource : public RandomSource {
 public:
  float uniformFloat() override { return std::uniform_real_distribution<float>(0, 1)(engine_); }
  double uniformDouble() override { return std::uniform_real_distribution<double>(0, 1)(engine_); }
  int64_t uniformInt(int64_t lower, int64_t upper) override {
    if (upper < lower) return lower;
    return std::uniform_int_distribution<int64_t>(lower, upper)(engine_);
  }
  bool secureBytes(std::span<uint8_t> out) override {
    for (uint8_t& b : out) b = static_cast<uint8_t>(engine_());
    return true;
  }

 private:
  std::mt19937_64 engine_{20240601};
};

// A value of each declared input that a model must accept: zeros, or "missing" when
// `missing` is set (which takes the other paths of every evaluator).
inline coreml::FeatureValue inputFor(const coreml::FeatureDescription& input, bool missing) {
  using coreml::FeatureType;
  using coreml::FeatureValue;
  if (missing) return FeatureValue::undefined(input.type);
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
      coreml::MultiArray array{input.shape.empty() ? std::vector<int64_t>{1} : input.shape,
                               std::vector<double>(static_cast<size_t>(count), 0.0)};
      return FeatureValue::fromMultiArray(std::move(array));
    }
    case FeatureType::kDictionary:
      if (input.dictionaryKeyType == coreml::DictionaryKeyType::kString) {
        return FeatureValue::fromDictionary(FeatureValue::StringDictionary{{"", 0.0}});
      }
      return FeatureValue::fromDictionary(FeatureValue::Int64Dictionary{{0, 0.0}});
    default:
      return FeatureValue::fromDouble(0.0);
  }
}

// Runs `predict` on zeros and on missing values of every declared input: either may refuse,
// but an answer holds every declared output.
template <typename Model>
void predictFromZerosAndMissing(const Model& model) {
  for (bool missing : {false, true}) {
    coreml::DictionaryFeatureProvider inputs;
    for (const auto& input : model.description().inputs) {
      inputs.set(input.name, inputFor(input, missing));
    }
    auto out = model.predict(inputs);
    if (out.ok()) {
      for (const auto& output : model.description().outputs) {
        FUZZ_CHECK(out->count(output.name) == 1);
      }
    }
  }
}

// ---- Seeds ------------------------------------------------------------------------------

using Seeds = std::vector<std::pair<std::string, std::string>>;  // file name, contents

inline void writeSeedsIfAsked(const std::function<Seeds()>& make) {
  const char* folder = std::getenv("ORVANE_FUZZ_WRITE_SEEDS");
  if (!folder || !*folder) return;
  std::filesystem::create_directories(folder);
  int written = 0;
  for (const auto& [name, contents] : make()) {
    std::ofstream out(std::filesystem::path(folder) / name, std::ios::binary | std::ios::trunc);
    out.write(contents.data(), static_cast<std::streamsize>(contents.size()));
    if (!out) {
      std::fprintf(stderr, "cannot write seed %s\n", name.c_str());
      std::exit(1);
    }
    ++written;
  }
  std::fprintf(stderr, "wrote %d seeds to %s\n", written, folder);
  std::exit(0);
}

}  // namespace orvane::fuzz

// Names the function that lists a target's seeds (a Seeds() callable).
#define ORVANE_FUZZ_SEEDS(make)                        \
  extern "C" int LLVMFuzzerInitialize(int*, char***) { \
    orvane::fuzz::writeSeedsIfAsked(make);             \
    return 0;                                          \
  }
