// Feeds arbitrary bytes to every stage of the encoded-log reader: the piece joiner, the
// base64 and binary decoders, and the decrypt-inflate-parse path under a fixed key.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "FuzzSupport.h"
#include "logging/BinaryEncoding.h"
#include "logging/Compression.h"
#include "logging/LogDecoder.h"
#include "logging/LogEncoder.h"
#include "orvane/platform/Crypto.h"
#include "orvane/platform/linux/LinuxPlatform.h"
#include "util/Base64.h"

namespace {

// One log in each form the stages read: encrypted, its base64 text, and the compressed
// envelope (which the target encrypts itself).
orvane::fuzz::Seeds seeds() {
  using namespace orvane;
  const LogEncoder encoder(makeOpenSslCrypto(), std::make_shared<fuzz::SeededRandomSource>(),
                           nullptr, [] { return std::optional<std::string>("0123456789abcdef"); });
  const SignalList signals{SignalInt(SignalEnum::id(25), 3), SignalFloat(SignalEnum::id(113), 0.5f),
                           SignalBool(SignalEnum::id(192), true),
                           SignalString(SignalEnum::id(600), "DE")};
  const CustomSignalList custom{CustomSignalInt("level", 4), CustomSignalBool("pro", false)};
  const Bytes encoded = encoder.encodeLog(signals, custom, {}).value();
  const std::string envelope = encoder.envelopeJson(signals, custom, {}).value();
  const Bytes deflated =
      deflateRaw(std::span(reinterpret_cast<const uint8_t*>(envelope.data()), envelope.size()))
          .value();
  return {{"encoded.bin", std::string(encoded.begin(), encoded.end())},
          {"encoded.b64", base64Encode(encoded)},
          {"envelope.deflate", std::string(deflated.begin(), deflated.end())}};
}

}  // namespace

ORVANE_FUZZ_SEEDS(seeds)

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
