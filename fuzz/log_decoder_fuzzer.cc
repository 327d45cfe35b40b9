// Feeds arbitrary bytes to every stage of the encoded-log reader: the piece joiner, the
// base64 and binary decoders, and the decrypt-inflate-parse path under a fixed key.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "logging/BinaryEncoding.h"
#include "logging/Compression.h"
#include "logging/LogDecoder.h"
#include "orvane/platform/Crypto.h"
#include "orvane/platform/linux/LinuxPlatform.h"
#include "util/Base64.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const auto crypto = orvane::makeOpenSslCrypto();
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const std::span<const uint8_t> bytes(data, size);

  (void)orvane::joinEncodedPieces(text);
  (void)orvane::decodeEncodedLogBase64(text, "0123456789abcdef", *crypto);
  (void)orvane::decodeEncodedLog(bytes, "0123456789abcdef", *crypto);
  (void)orvane::inflateRaw(bytes, 1 << 20);
  (void)orvane::BinaryMapEncodingDecoding::dictionaryFromData<int16_t>(bytes);
  (void)orvane::BinaryArrayEncodingDecoding::arrayFromData(bytes);
  // Past the cipher: encrypt the input as if it were the compressed envelope, so the
  // inflate, JSON and group decoders see it too.
  const orvane::Bytes key{'0', '1', '2', '3', '4', '5', '6', '7',
                          '8', '9', 'a', 'b', 'c', 'd', 'e', 'f'};
  const orvane::Bytes iv(16, 7);
  if (auto cipher = crypto->aesCbcEncrypt(key, iv, bytes)) {
    orvane::Bytes encoded(1, 0);
    encoded.insert(encoded.end(), iv.begin(), iv.end());
    encoded.insert(encoded.end(), cipher->begin(), cipher->end());
    (void)orvane::decodeEncodedLog(encoded, "0123456789abcdef", *crypto);
  }
  if (auto decoded = orvane::base64Decode(text)) {
    if (orvane::base64Encode(*decoded) != text) __builtin_trap();  // canonical text only
  }
  return 0;
}
