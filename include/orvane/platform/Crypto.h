// File: Crypto.h
// The cipher and digests the SDK uses.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "orvane/Export.h"

namespace orvane {

class ORVANE_API Crypto {
 public:
  virtual ~Crypto() = default;
  virtual std::array<uint8_t, 20> sha1(std::span<const uint8_t> data) const = 0;
  virtual std::array<uint8_t, 32> sha256(std::span<const uint8_t> data) const = 0;
  // AES-CBC with PKCS#7 padding. The key is 16 or 32 bytes (AES-128 or AES-256), the IV 16.
  // None for any other key or IV size, or when the cipher fails (bad padding on decrypt).
  virtual std::optional<std::vector<uint8_t>> aesCbcEncrypt(
      std::span<const uint8_t> key, std::span<const uint8_t> iv,
      std::span<const uint8_t> data) const = 0;
  virtual std::optional<std::vector<uint8_t>> aesCbcDecrypt(
      std::span<const uint8_t> key, std::span<const uint8_t> iv,
      std::span<const uint8_t> data) const = 0;
};

// Written from the published algorithms, on the standard library alone.
ORVANE_API std::shared_ptr<Crypto> makePortableCrypto();

}  // namespace orvane
