// File: AES.h
// AES-CBC with PKCS#7 padding under a text key (its UTF-8 bytes, 16 or 32 of them).
#pragma once

#include <string_view>

#include "orvane/PlistValue.h"
#include "orvane/platform/Crypto.h"
#include "orvane/platform/SystemLog.h"
#include "util/Result.h"

namespace orvane {

inline constexpr const char* kAESErrorDomain = "AES";

class AES {
 public:
  enum Option { kEncrypt = 0, kDecrypt = 1 };

  // Fails with code 1 for a key that is not 16 or 32 UTF-8 bytes, code 2 for an IV that is
  // not 16 bytes. The rejection is also written as a debug line.
  static Result<AES> make(std::string_view key, Bytes iv, const Crypto& crypto,
                          SystemLog* debugLog = nullptr);

  // Fails with code 3 when the cipher fails (for example bad padding on decryption).
  Result<Bytes> crypt(std::span<const uint8_t> data, Option option) const;

  const Bytes& key() const { return key_; }
  const Bytes& iv() const { return iv_; }

 private:
  AES(Bytes key, Bytes iv, const Crypto& crypto, SystemLog* log)
      : key_(std::move(key)), iv_(std::move(iv)), crypto_(&crypto), log_(log) {}

  Bytes key_;
  Bytes iv_;
  const Crypto* crypto_;
  SystemLog* log_;
};

// The log encryption key: the first 16 UTF-16 code units of the app key, as UTF-8. None when
// the app key is shorter, is not valid UTF-8, or the cut splits a surrogate pair.
std::optional<std::string> deriveLogEncryptionKey(std::string_view appKey);

}  // namespace orvane
