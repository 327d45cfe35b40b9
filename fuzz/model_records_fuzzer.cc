// Feeds arbitrary bytes to the two decoders of model records that come from outside: the
// per-flow record read back from the defaults (a disk someone else can write) and the
// description metadata a downloaded model carries. Neither may crash; a record that decodes
// must survive a round trip through its encoder unchanged.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "FuzzSupport.h"
#include "models/ModelExecutionInformation.h"
#include "models/SaveableCustomModelInfo.h"

namespace {

orvane::fuzz::Seeds seeds() {
  orvane::SaveableCustomModelInfo full;
  full.modelVersion = "3.1";
  full.upsellThreshold = 0.62;
  full.hourlyUpsellThresholds = std::vector<std::vector<double>>(7, std::vector<double>(24, 0.5));
  full.contextPushThresholds = std::vector<double>{0.2, 0.8};
  full.randomUpsellChance = 0.01;
  full.supportedDuration = 5;
  full.useInstantContext = true;
  orvane::SaveableCustomModelInfo control;
  control.isControl = true;
  auto text = [](const orvane::SaveableCustomModelInfo& info) {
    const orvane::Bytes bytes = orvane::encodeSaveableCustomModelInfo(info).value();
    return std::string(bytes.begin(), bytes.end());
  };
  return {{"record_full.json", text(full)}, {"record_control.json", text(control)}};
}

}  // namespace

ORVANE_FUZZ_SEEDS(seeds)

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const orvane::Bytes bytes(data, data + size);
  auto record = orvane::decodeSaveableCustomModelInfo(bytes);
  if (record) {
    auto encoded = orvane::encodeSaveableCustomModelInfo(*record);
    if (!encoded) std::abort();  // decoded numbers are always finite
    auto again = orvane::decodeSaveableCustomModelInfo(*encoded);
    if (!again || !(*again == *record)) std::abort();
  } else if (record.error().description.empty()) {
    std::abort();  // every refusal says why
  }
  auto metadata = orvane::decodeCoreMLModelMetadata(
      std::string_view(reinterpret_cast<const char*>(data), size));
  if (!metadata && metadata.error().description.empty()) std::abort();
  return 0;
}
