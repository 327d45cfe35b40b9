// File: Sha256TestCrypto.h
// Digests straight from OpenSSL's one-shot functions, for tests and benchmarks that need a
// real SHA-256 but not the platform's cipher.
#pragma once

#include <openssl/sha.h>

#include "orvane/platform/Crypto.h"

namespace orvane::testing {

class Sha256TestCrypto : public Crypto {
 public:
  std::array<uint8_t, 20> sha1(std::span<const uint8_t> data) const override {
    std::array<uint8_t, 20> out{};
    SHA1(data.data(), data.size(), out.data());
    return out;
  }
  std::array<uint8_t, 32> sha256(std::span<const uint8_t> data) const override {
    ++sha256Calls;
    std::array<uint8_t, 32> out{};
    SHA256(data.data(), data.size(), out.data());
    return out;
  }
  std::optional<std::vector<uint8_t>> aesCbcEncrypt(std::span<const uint8_t>,
                                                    std::span<const uint8_t>,
                                                    std::span<const uint8_t>) const override {
    return std::nullopt;
  }
  std::optional<std::vector<uint8_t>> aesCbcDecrypt(std::span<const uint8_t>,
                                                    std::span<const uint8_t>,
                                                    std::span<const uint8_t>) const override {
    return std::nullopt;
  }

  mutable int sha256Calls = 0;
};

}  // namespace orvane::testing
