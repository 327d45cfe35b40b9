#include "platform/linux/StoredElementCodec.h"

#include "logging/Compression.h"
#include "platform/linux/PlistCodec.h"

namespace orvane {

std::optional<Bytes> encodeStoredElement(const PlistValue& element) {
  std::optional<Bytes> plain = encodePlistArrayElement(element);
  if (!plain || plain->size() < kDeflateElementsFrom) return plain;
  // The fastest level: the writer compresses while synchronize() waits, and the slower ones
  // save only a few percent more on records.
  Result<Bytes> deflated = deflateRaw(*plain, CompressionHint::kFast);
  if (!deflated || deflated->size() + 1 >= plain->size()) return plain;
  Bytes out;
  out.reserve(deflated->size() + 1);
  out.push_back(kDeflatedElementMark);
  out.insert(out.end(), deflated->begin(), deflated->end());
  return out;
}

std::optional<PlistValue> decodeStoredElement(std::span<const uint8_t> bytes) {
  if (bytes.empty() || bytes.front() != kDeflatedElementMark) {
    return decodePlistArrayElement(bytes);
  }
  Result<Bytes> plain = inflateRaw(bytes.subspan(1));
  // Only what would have been deflated counts as well formed.
  if (!plain || plain->size() < kDeflateElementsFrom) return std::nullopt;
  return decodePlistArrayElement(*plain);
}

}  // namespace orvane
