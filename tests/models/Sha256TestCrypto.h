// File: Sha256TestCrypto.h
// Real digests without the platform's cipher, counting the SHA-256 calls, for tests and
// benchmarks of code that hashes.
#pragma once

#include <memory>

#include "orvane/platform/Crypto.h"

namespace orvane::testing {

class Sha256TestCrypto : public Crypto {
 public:
  std::array<uint8_t, 20> sha1(std::span<const uint8_t> data) const override {
    return digests_->sha1(data);
  }
  std::array<uint8_t, 32> sha256(std::span<const uint8_t> data) const override {
    ++sha256Calls;
    return digests_->sha256(data);
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

 private:
  std::shared_ptr<Crypto> digests_ = makePortableCrypto();
};

}  // namespace orvane::testing
