// Feeds arbitrary bytes to the property-list decoder. Besides not crashing, anything the
// decoder accepts must re-encode to exactly the input: the format has one spelling per
// value, and a second one slipping through would mean two rows that look different on disk
// but decode the same.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "FuzzSupport.h"
#include "platform/linux/PlistCodec.h"

namespace {

orvane::fuzz::Seeds seeds() {
  using orvane::PlistValue;
  auto text = [](const PlistValue& value) {
    const orvane::Bytes bytes = orvane::encodePlistValue(value).value();
    return std::string(bytes.begin(), bytes.end());
  };
  const PlistValue record(orvane::PlistDictionary{
      {"count", PlistValue(int64_t{42})},
      {"ratio", PlistValue(0.25)},
      {"on", PlistValue(true)},
      {"name", PlistValue("home")},
      {"when", PlistValue(orvane::Date{1.7e9})},
      {"bytes", PlistValue(orvane::Bytes{0, 1, 255})},
      {"list", PlistValue(orvane::PlistArray{PlistValue(int64_t{-1}), PlistValue("x")})}});
  return {{"dictionary.bin", text(record)},
          {"string.bin", text(PlistValue("text"))},
          {"array.bin", text(PlistValue(orvane::PlistArray{}))}};
}

}  // namespace

ORVANE_FUZZ_SEEDS(seeds)

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const auto value = orvane::decodePlistValue(std::span<const uint8_t>(data, size));
  if (!value) return 0;
  const auto again = orvane::encodePlistValue(*value);
  if (!again || again->size() != size || std::memcmp(again->data(), data, size) != 0) {
    std::abort();
  }
  return 0;
}
