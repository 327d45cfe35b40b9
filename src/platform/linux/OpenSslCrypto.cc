// Digests and the AES-CBC cipher through OpenSSL's EVP interface.
#include <openssl/evp.h>

#include <algorithm>
#include <memory>

#include "orvane/platform/Crypto.h"
#include "orvane/platform/linux/LinuxPlatform.h"
#include "platform/linux/OpenSslInit.h"

namespace orvane {
namespace {

struct CipherContextDeleter {
  void operator()(EVP_CIPHER_CTX* ctx) const { EVP_CIPHER_CTX_free(ctx); }
};
using CipherContext = std::unique_ptr<EVP_CIPHER_CTX, CipherContextDeleter>;

struct DigestContextDeleter {
  void operator()(EVP_MD_CTX* ctx) const { EVP_MD_CTX_free(ctx); }
};
using DigestContext = std::unique_ptr<EVP_MD_CTX, DigestContextDeleter>;

template <size_t N>
std::array<uint8_t, N> digest(const EVP_MD* md, std::span<const uint8_t> data) {
  std::array<uint8_t, N> out{};
  DigestContext ctx(EVP_MD_CTX_new());
  unsigned int length = 0;
  // Digesting memory fails only when OpenSSL cannot allocate; the interface has no way to
  // say so, and all zeros is the least harmful answer.
  if (!ctx || EVP_DigestInit_ex(ctx.get(), md, nullptr) != 1) return out;
  if (EVP_DigestUpdate(ctx.get(), data.data(), data.size()) != 1) return {};
  if (EVP_DigestFinal_ex(ctx.get(), out.data(), &length) != 1 || length != N) return {};
  return out;
}

const EVP_CIPHER* cipherForKey(size_t keySize) {
  switch (keySize) {
    case 16:
      return EVP_aes_128_cbc();
    case 32:
      return EVP_aes_256_cbc();
    default:
      return nullptr;
  }
}

std::optional<std::vector<uint8_t>> runCipher(bool encrypt, std::span<const uint8_t> key,
                                              std::span<const uint8_t> iv,
                                              std::span<const uint8_t> data) {
  constexpr size_t kBlock = 16;
  const EVP_CIPHER* cipher = cipherForKey(key.size());
  if (cipher == nullptr || iv.size() != kBlock) return std::nullopt;
  CipherContext ctx(EVP_CIPHER_CTX_new());
  if (!ctx) return std::nullopt;
  if (EVP_CipherInit_ex(ctx.get(), cipher, nullptr, key.data(), iv.data(), encrypt ? 1 : 0) != 1) {
    return std::nullopt;
  }
  // PKCS#7 is OpenSSL's default padding; it adds at most one block on encrypt.
  std::vector<uint8_t> out(data.size() + kBlock);
  size_t written = 0;
  // The update call takes an int length, so large inputs go in chunks.
  constexpr size_t kChunk = size_t{1} << 30;
  for (size_t offset = 0; offset < data.size(); offset += kChunk) {
    const size_t n = std::min(kChunk, data.size() - offset);
    int produced = 0;
    if (EVP_CipherUpdate(ctx.get(), out.data() + written, &produced, data.data() + offset,
                         static_cast<int>(n)) != 1) {
      return std::nullopt;
    }
    written += static_cast<size_t>(produced);
  }
  int produced = 0;
  if (EVP_CipherFinal_ex(ctx.get(), out.data() + written, &produced) != 1) return std::nullopt;
  written += static_cast<size_t>(produced);
  out.resize(written);
  return out;
}

class OpenSslCrypto : public Crypto {
 public:
  std::array<uint8_t, 20> sha1(std::span<const uint8_t> data) const override {
    return digest<20>(EVP_sha1(), data);
  }
  std::array<uint8_t, 32> sha256(std::span<const uint8_t> data) const override {
    return digest<32>(EVP_sha256(), data);
  }
  std::optional<std::vector<uint8_t>> aesCbcEncrypt(std::span<const uint8_t> key,
                                                    std::span<const uint8_t> iv,
                                                    std::span<const uint8_t> data) const override {
    return runCipher(true, key, iv, data);
  }
  std::optional<std::vector<uint8_t>> aesCbcDecrypt(std::span<const uint8_t> key,
                                                    std::span<const uint8_t> iv,
                                                    std::span<const uint8_t> data) const override {
    return runCipher(false, key, iv, data);
  }
};

}  // namespace

std::shared_ptr<Crypto> makeOpenSslCrypto() {
  initializeOpenSslWithoutExitHandler();
  return std::make_shared<OpenSslCrypto>();
}

}  // namespace orvane
