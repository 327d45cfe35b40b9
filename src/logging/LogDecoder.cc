#include "logging/LogDecoder.h"

#include <bit>
#include <nlohmann/json.hpp>

#include "logging/AES.h"
#include "logging/AnyEncodable.h"
#include "logging/BinaryEncoding.h"
#include "logging/Compression.h"
#include "util/Base64.h"

namespace orvane {
namespace {

PlatformError failure(int code, std::string message) {
  return PlatformError{kLogDecodingErrorDomain, code, std::move(message)};
}

template <typename T>
bool decodeGroup(const Bytes& binary, const std::string& group, DecodedLog& out) {
  auto entries = BinaryMapEncodingDecoding::dictionaryFromData<T>(binary);
  if (!entries) return false;
  for (const auto& [column, raw] : *entries) {
    PlistValue value;
    if (group == "f") {
      value = std::bit_cast<float>(static_cast<uint32_t>(raw));
    } else if (group == "d") {
      value = std::bit_cast<double>(static_cast<uint64_t>(raw));
    } else {
      value = static_cast<int64_t>(raw);
    }
    out.signals[column] = {group, value};
  }
  return true;
}

}  // namespace

Result<DecodedLog> decodeEncodedLog(std::span<const uint8_t> encoded, std::string_view key,
                                    const Crypto& crypto) {
  if (encoded.size() < 17 + 16) return failure(1, "Encoded log is truncated: fewer than 33 bytes");
  if (encoded[0] != 0x00) return failure(2, "Encoded log does not start with the 0x00 marker");
  if ((encoded.size() - 17) % 16 != 0) {
    return failure(3, "Encoded log is truncated: the ciphertext is not a whole number of blocks");
  }
  auto logKey = deriveLogEncryptionKey(key);
  if (!logKey) return failure(4, "The key is shorter than 16 characters or not valid UTF-8");
  auto aes = AES::make(*logKey, Bytes(encoded.begin() + 1, encoded.begin() + 17), crypto);
  if (!aes)
    return failure(4, "The key is rejected: its first 16 characters must be 16 or 32 bytes");
  auto plain = aes->crypt(encoded.subspan(17), AES::kDecrypt);
  if (!plain) return failure(5, "Decryption failed (bad padding): wrong key or damaged data");
  auto json = inflateRaw(*plain);
  if (!json) return failure(6, "Decrypted data does not inflate: wrong key or damaged data");

  DecodedLog out;
  out.envelopeJson.assign(json->begin(), json->end());
  const nlohmann::json envelope = nlohmann::json::parse(out.envelopeJson, nullptr, false);
  if (envelope.is_discarded() || !envelope.is_object()) {
    return failure(7, "The envelope is not a JSON object");
  }
  for (const char* group : {"d", "f", "i8", "i16", "i32", "i64", "b"}) {
    auto it = envelope.find(group);
    if (it == envelope.end()) continue;
    if (!it->is_string()) return failure(8, std::string("Group \"") + group + "\" is not text");
    auto compressed = base64Decode(it->get<std::string>());
    if (!compressed) return failure(8, std::string("Group \"") + group + "\" is not base64");
    auto binary = inflateRaw(*compressed);
    if (!binary) return failure(8, std::string("Group \"") + group + "\" does not inflate");
    const std::string name = group;
    bool ok = false;
    if (name == "d" || name == "i64") {
      ok = decodeGroup<int64_t>(*binary, name, out);
    } else if (name == "f" || name == "i32") {
      ok = decodeGroup<int32_t>(*binary, name, out);
    } else if (name == "i16") {
      ok = decodeGroup<int16_t>(*binary, name, out);
    } else if (name == "i8") {
      ok = decodeGroup<int8_t>(*binary, name, out);
    } else {
      auto values = BinaryArrayEncodingDecoding::arrayFromData(*binary);
      ok = values.has_value();
      if (ok) {
        for (int32_t v : *values) {
          if (v == 0 || v < -65535 || v > 65535) {
            ok = false;
            break;
          }
          out.signals[static_cast<uint16_t>(v < 0 ? -v : v)] = {"b", PlistValue(v > 0)};
        }
      }
    }
    if (!ok) return failure(9, std::string("Group \"") + group + "\" has a malformed length");
  }
  if (auto it = envelope.find("s"); it != envelope.end()) {
    if (!it->is_object()) return failure(10, "Group \"s\" is not an object");
    for (const auto& [column, text] : it->items()) {
      int number = 0;
      try {
        number = std::stoi(column);
      } catch (...) {
        return failure(10, "Group \"s\" has a key that is not a column: " + column);
      }
      if (number < 0 || number > 65535 || !text.is_string()) {
        return failure(10, "Group \"s\" has a malformed entry under " + column);
      }
      out.signals[static_cast<uint16_t>(number)] = {"s", PlistValue(text.get<std::string>())};
    }
  }
  for (const char* group : {"cs", "gs"}) {
    auto it = envelope.find(group);
    if (it == envelope.end() || !it->is_object()) {
      return failure(11, std::string("Envelope lacks the \"") + group + "\" object");
    }
    (std::string(group) == "cs" ? out.customSignalsJson : out.globalSignalsJson) =
        it->dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  }
  return out;
}

Result<DecodedLog> decodeEncodedLogBase64(std::string_view base64, std::string_view key,
                                          const Crypto& crypto) {
  auto bytes = base64Decode(base64);
  if (!bytes) return failure(12, "The text is not valid base64 (truncated or damaged)");
  return decodeEncodedLog(*bytes, key, crypto);
}

Result<std::string> joinEncodedPieces(std::string_view dictionaryJson) {
  const nlohmann::json dict = nlohmann::json::parse(dictionaryJson, nullptr, false);
  if (dict.is_discarded() || !dict.is_object())
    return failure(13, "The pieces are not a JSON object");
  std::map<size_t, std::string> pieces;
  for (const auto& [key, value] : dict.items()) {
    size_t index = 0;
    if (key.rfind("c_sdk_param_", 0) == 0) {
      index = std::strtoul(key.c_str() + 12, nullptr, 10);
    } else if (key.rfind("ctx_", 0) == 0 && key != "ctx_1" && key != "ctx_400") {
      const long column = std::strtol(key.c_str() + 4, nullptr, 10);
      if (column < 401) continue;
      index = static_cast<size_t>(column - 401);
    } else {
      continue;
    }
    if (!value.is_string()) return failure(13, "Piece " + key + " is not text");
    const std::string text = value.get<std::string>();
    const std::string prefix = std::to_string(index) + "_";
    if (text.rfind(prefix, 0) != 0) {
      std::string message = "Piece " + key;
      message += " does not start with ";
      message += prefix;
      return failure(13, std::move(message));
    }
    pieces[index] = text.substr(prefix.size());
  }
  if (pieces.empty()) return failure(13, "No encoded pieces found");
  std::string joined;
  size_t expected = 0;
  for (const auto& [index, text] : pieces) {
    if (index != expected++)
      return failure(13, "Piece " + std::to_string(expected - 1) + " is missing");
    joined += text;
  }
  if (auto count = dict.find("ctx_400"); count != dict.end()) {
    if (!count->is_number_integer() ||
        count->get<int64_t>() != static_cast<int64_t>(pieces.size())) {
      return failure(13, "ctx_400 does not match the number of pieces");
    }
  }
  return joined;
}

std::string DecodedLog::toReadableJson() const {
  std::string out = "{\"signals\":{";
  bool first = true;
  for (const auto& [column, entry] : signals) {
    if (!first) out.push_back(',');
    first = false;
    appendJsonString(out, std::to_string(column));
    out.push_back(':');
    auto json = AnyEncodable(entry.value).toJson();
    out += json ? *json : "null";
  }
  out +=
      "},\"customSignals\":" + customSignalsJson + ",\"globalSignals\":" + globalSignalsJson + "}";
  return out;
}

}  // namespace orvane
