#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "orvane/platform/Crypto.h"
#include "orvane/platform/linux/LinuxPlatform.h"

namespace orvane {
namespace {

std::vector<uint8_t> hex(const std::string& text) {
  std::vector<uint8_t> out;
  for (size_t i = 0; i + 1 < text.size(); i += 2) {
    out.push_back(static_cast<uint8_t>(std::stoi(text.substr(i, 2), nullptr, 16)));
  }
  return out;
}

template <typename Bytes>
std::string toHex(const Bytes& bytes) {
  std::string out;
  for (uint8_t b : bytes) out += {"0123456789abcdef"[b >> 4], "0123456789abcdef"[b & 15]};
  return out;
}

TEST(OpenSslCrypto, DigestsMatchPublishedVectors) {
  auto crypto = makeOpenSslCrypto();
  const std::vector<uint8_t> abc{'a', 'b', 'c'};
  EXPECT_EQ(toHex(crypto->sha1(abc)), "a9993e364706816aba3e25717850c26c9cd0d89d");
  EXPECT_EQ(toHex(crypto->sha1({})), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
  EXPECT_EQ(toHex(crypto->sha256(abc)),
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(toHex(crypto->sha256({})),
            "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
}

TEST(OpenSslCrypto, AesCbcMatchesNistVectorsAndRoundTripsWithPadding) {
  auto crypto = makeOpenSslCrypto();
  // NIST SP 800-38A F.2.1 (AES-128) and F.2.5 (AES-256): four blocks without padding. With
  // PKCS#7 the same four blocks come first, then one block of padding.
  const auto iv = hex("000102030405060708090a0b0c0d0e0f");
  const auto plain =
      hex("6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51"
          "30c81c46a35ce411e5fbc1191a0a52eff69f2445df4f9b17ad2b417be66c3710");
  const std::pair<std::string, std::string> vectors[] = {
      {"2b7e151628aed2a6abf7158809cf4f3c",
       "7649abac8119b246cee98e9b12e9197d5086cb9b507219ee95db113a917678b2"
       "73bed6b8e3c1743b7116e69e222295163ff1caa1681fac09120eca307586e1a7"},
      {"603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4",
       "f58c4c04d6e5f1ba779eabfb5f7bfbd69cfc4e967edb808d679f777bc6702c7d"
       "39f23369a9d9bacfa530e26304231461b2eb05e2c39be9fcda6c19078c6a9d1b"},
  };
  for (const auto& [keyHex, cipherHex] : vectors) {
    SCOPED_TRACE(keyHex);
    const auto key = hex(keyHex);
    const auto encrypted = crypto->aesCbcEncrypt(key, iv, plain);
    ASSERT_TRUE(encrypted);
    ASSERT_EQ(encrypted->size(), plain.size() + 16);
    EXPECT_EQ(toHex(std::vector<uint8_t>(encrypted->begin(), encrypted->begin() + 64)), cipherHex);
    EXPECT_EQ(crypto->aesCbcDecrypt(key, iv, *encrypted), plain);
    // The unpadded vector ends in a block that is not valid padding.
    EXPECT_FALSE(crypto->aesCbcDecrypt(key, iv, hex(cipherHex)));
  }
}

TEST(OpenSslCrypto, CipherRejectsOtherSizesAndDamagedInput) {
  auto crypto = makeOpenSslCrypto();
  const std::vector<uint8_t> key16(16, 7), key24(24, 7), iv(16, 1), shortIv(15, 1), data(40, 3);
  const auto empty = crypto->aesCbcEncrypt(key16, iv, {});
  ASSERT_TRUE(empty);
  EXPECT_EQ(empty->size(), 16u);
  EXPECT_EQ(crypto->aesCbcDecrypt(key16, iv, *empty), std::vector<uint8_t>{});
  EXPECT_FALSE(crypto->aesCbcEncrypt(key24, iv, data));  // AES-192 is not offered
  EXPECT_FALSE(crypto->aesCbcEncrypt(key16, shortIv, data));
  EXPECT_FALSE(crypto->aesCbcDecrypt(key16, shortIv, *empty));
  EXPECT_FALSE(crypto->aesCbcDecrypt(key16, iv, std::vector<uint8_t>(17, 0)));
  EXPECT_FALSE(crypto->aesCbcDecrypt(key16, iv, {}));
}

}  // namespace
}  // namespace orvane
