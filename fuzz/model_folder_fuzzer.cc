// A compiled model folder (NAME.mlmodelc) as the model runtime loads it from disk. The input
// is split into the folder's two files:
//   byte 0      flags: 1 = before writing, set the manifest's size and checksum to those of
//               the model bytes (so inputs get past that check), 2 = no model file,
//               4 = no manifest
//   bytes 1-2   the manifest's length, little-endian
//   then        the manifest, then the model bytes (the rest)
// A folder that loads must predict (or refuse) without crashing and hold the model its bytes
// describe.
#include <stdlib.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>

#include <nlohmann/json.hpp>

#include "FuzzSupport.h"
#include "orvane/platform/ModelRuntime.h"

namespace {

namespace fs = std::filesystem;
using namespace orvane;

enum : uint8_t { kSeal = 1, kNoModel = 2, kNoManifest = 4 };

// In memory when the system has a tmpfs and TMPDIR does not say otherwise: every input
// rewrites the files, and on a busy disk that waiting dominates the run.
fs::path temporaryRoot() {
  std::error_code ec;
  if (!std::getenv("TMPDIR") && fs::is_directory("/dev/shm", ec)) return "/dev/shm";
  return fs::temp_directory_path();
}

// This process's temporary folder. Never destroyed, so the exit handler can still read it.
const fs::path* temporaryFolder = nullptr;

const fs::path& folder() {
  static const fs::path compiled = [] {
    std::string pattern = (temporaryRoot() / "orvane_model_folder_fuzzer.XXXXXX").string();
    if (!mkdtemp(pattern.data())) std::abort();
    temporaryFolder = new fs::path(pattern);
    std::atexit([] {
      std::error_code ec;
      fs::remove_all(*temporaryFolder, ec);
    });
    return *temporaryFolder / "Flow.mlmodelc";
  }();
  return compiled;
}

std::string fnv1a64(std::string_view bytes) {
  uint64_t hash = 0xcbf29ce484222325ull;
  for (unsigned char c : bytes) {
    hash ^= c;
    hash *= 0x100000001b3ull;
  }
  char text[17];
  std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(hash));
  return text;
}

// Writes the file, or removes it when it is to be absent.
void place(const fs::path& path, bool present, std::string_view contents) {
  std::error_code ec;
  if (!present) {
    fs::remove(path, ec);
    return;
  }
  fs::create_directories(path.parent_path(), ec);
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(contents.data(), static_cast<std::streamsize>(contents.size()));
  if (!out) std::abort();
}

std::string sealed(std::string_view manifest, std::string_view model) {
  auto json = nlohmann::json::parse(manifest, nullptr, false);
  if (!json.is_object()) return std::string(manifest);
  json["modelBytes"] = static_cast<uint64_t>(model.size());
  json["modelFnv1a64"] = fnv1a64(model);
  return json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string pack(uint8_t flags, std::string_view manifest, std::string_view model) {
  std::string input(1, static_cast<char>(flags));
  input.push_back(static_cast<char>(manifest.size() & 0xff));
  input.push_back(static_cast<char>(manifest.size() >> 8));
  return input.append(manifest).append(model);
}

std::string readAll(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// The fixture models compiled by the runtime itself, once as written and once with the
// checksum left for the fuzzer to set.
fuzz::Seeds seeds() {
  const fs::path fixtures =
      fs::path(__FILE__).parent_path().parent_path() / "tests/fixtures/coreml";
  auto runtime = makePortableModelRuntime();
  fuzz::Seeds result;
  for (const char* name :
       {"logistic_binary", "pipeline_impute_scale_logistic", "decision_tree_mixed_behaviours"}) {
    auto compiled = runtime->compileModel((fixtures / name).string() + ".mlmodel",
                                          folder().parent_path().string());
    if (!compiled) std::abort();
    const std::string manifest = readAll(fs::path(*compiled) / coreml::kCompiledManifestFileName);
    const std::string model = readAll(fs::path(*compiled) / coreml::kCompiledModelFileName);
    result.push_back({std::string(name) + ".bin", pack(0, manifest, model)});
    result.push_back({std::string(name) + ".sealed.bin", pack(kSeal, manifest, model)});
  }
  return result;
}

}  // namespace

ORVANE_FUZZ_SEEDS(seeds)

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view input = fuzz::asText(data, size);
  const uint8_t flags = size > 0 ? data[0] : 0;
  const size_t manifestSize = size >= 3 ? (data[1] | size_t{data[2]} << 8) : 0;
  const std::string_view rest = input.substr(std::min<size_t>(size, 3));
  const std::string_view model = rest.substr(std::min(manifestSize, rest.size()));
  std::string manifest(rest.substr(0, manifestSize));
  if (flags & kSeal) manifest = sealed(manifest, model);

  place(folder() / coreml::kCompiledManifestFileName, !(flags & kNoManifest), manifest);
  place(folder() / coreml::kCompiledModelFileName, !(flags & kNoModel), model);

  static const auto runtime = makePortableModelRuntime();
  auto loaded = runtime->loadCompiledModel(folder().string());
  if (!loaded) {
    FUZZ_CHECK(!loaded.message().empty());
    return 0;
  }
  FUZZ_CHECK(!(flags & (kNoManifest | kNoModel)));
  fuzz::predictFromZerosAndMissing(**loaded);
  // The folder holds exactly the model its bytes describe.
  auto direct = coreml::Model::fromBytes(model.data(), model.size());
  FUZZ_CHECK(direct.ok());
  FUZZ_CHECK(direct->description().inputs.size() == (*loaded)->description().inputs.size());
  FUZZ_CHECK(direct->description().outputs.size() == (*loaded)->description().outputs.size());
  return 0;
}
