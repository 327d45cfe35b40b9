// File: LogDecoder.h
// Reads the encoded log form back: the tool integrators use to check what their own
// analytics channel received. Every step rejects malformed input with a clear message.
#pragma once

#include <map>
#include <string>
#include <string_view>

#include "orvane/PlistValue.h"
#include "orvane/platform/Crypto.h"
#include "util/Result.h"

namespace orvane {

inline constexpr const char* kLogDecodingErrorDomain = "LogDecoding";

struct DecodedLog {
  std::string envelopeJson;  // the JSON envelope as it was encrypted
  // Built-in signals by column with their group ("f", "i8", "b", "s", ...) and value.
  struct Entry {
    std::string group;
    PlistValue value;
  };
  std::map<uint16_t, Entry> signals;
  std::string customSignalsJson;  // "cs"
  std::string globalSignalsJson;  // "gs"

  // {"signals": {"<column>": value, ...}, "customSignals": {...}, "globalSignals": {...}}
  std::string toReadableJson() const;
};

// `key` is the app key or the log encryption key; only its first 16 UTF-16 code units count.
Result<DecodedLog> decodeEncodedLog(std::span<const uint8_t> encoded, std::string_view key,
                                    const Crypto& crypto);
Result<DecodedLog> decodeEncodedLogBase64(std::string_view base64, std::string_view key,
                                          const Crypto& crypto);
// Joins the pieces of dictionary() ("ctx_400" count, "ctx_401"...) or forFirebase()
// ("c_sdk_param_<i>") given as a JSON object, back into the base64 text.
Result<std::string> joinEncodedPieces(std::string_view dictionaryJson);

}  // namespace orvane
