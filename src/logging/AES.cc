#include "logging/AES.h"

#include <string>

namespace orvane {
namespace {

void debugPrint(SystemLog* log, const std::string& text) {
  // Written as the platform's debug printer would: the text in quotation marks.
  if (log) log->write(LogLevel::kDebug, "\"" + text + "\"");
}

}  // namespace

Result<AES> AES::make(std::string_view key, Bytes iv, const Crypto& crypto, SystemLog* debugLog) {
  if (key.size() != 16 && key.size() != 32) {
    debugPrint(debugLog, "Error: Failed to set a key.");
    return PlatformError{kAESErrorDomain, 1, "Failed to set a key."};
  }
  if (iv.size() != 16) {
    debugPrint(debugLog, "Error: Failed to set an initial vector.");
    return PlatformError{kAESErrorDomain, 2, "Failed to set an initial vector."};
  }
  return AES(Bytes(key.begin(), key.end()), std::move(iv), crypto, debugLog);
}

Result<Bytes> AES::crypt(std::span<const uint8_t> data, Option option) const {
  auto out = option == kEncrypt ? crypto_->aesCbcEncrypt(key_, iv_, data)
                                : crypto_->aesCbcDecrypt(key_, iv_, data);
  if (!out) {
    // Cipher statuses as mobile platforms number them: -4304 a decode (padding or length)
    // error, -4300 a parameter error.
    const int status = option == kDecrypt ? -4304 : -4300;
    debugPrint(log_, "Error: Failed to crypt data. Status " + std::to_string(status));
    return PlatformError{kAESErrorDomain, 3,
                         "Failed to crypt data. Status " + std::to_string(status)};
  }
  return std::move(*out);
}

std::optional<std::string> deriveLogEncryptionKey(std::string_view appKey) {
  size_t units = 0;
  size_t i = 0;
  while (i < appKey.size() && units < 16) {
    const auto c = static_cast<uint8_t>(appKey[i]);
    size_t length = c < 0x80             ? 1
                    : (c & 0xE0) == 0xC0 ? 2
                    : (c & 0xF0) == 0xE0 ? 3
                    : (c & 0xF8) == 0xF0 ? 4
                                         : 0;
    if (length == 0 || i + length > appKey.size()) return std::nullopt;
    for (size_t k = 1; k < length; ++k) {
      if ((static_cast<uint8_t>(appKey[i + k]) & 0xC0) != 0x80) return std::nullopt;
    }
    const size_t codeUnits = length == 4 ? 2 : 1;
    if (units + codeUnits > 16) return std::nullopt;  // the cut would split a surrogate pair
    units += codeUnits;
    i += length;
  }
  if (units < 16) return std::nullopt;
  return std::string(appKey.substr(0, i));
}

}  // namespace orvane
