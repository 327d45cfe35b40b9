// Feeds arbitrary bytes to the property-list decoder. Besides not crashing, anything the
// decoder accepts must re-encode to exactly the input: the format has one spelling per
// value, and a second one slipping through would mean two rows that look different on disk
// but decode the same.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "platform/linux/PlistCodec.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const auto value = orvane::decodePlistValue(std::span<const uint8_t>(data, size));
  if (!value) return 0;
  const auto again = orvane::encodePlistValue(*value);
  if (!again || again->size() != size || std::memcmp(again->data(), data, size) != 0) {
    std::abort();
  }
  return 0;
}
