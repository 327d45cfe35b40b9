// The crypto seam's contract, checked against every implementation, and the portable one's
// agreement with OpenSSL on random input when OpenSSL is built in.
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "orvane/platform/Crypto.h"

namespace orvane {
#ifdef ORVANE_HAVE_OPENSSL
// The Linux platform's implementation (orvane/platform/linux/LinuxPlatform.h), declared here
// so that this suite also builds without the Linux services.
std::shared_ptr<Crypto> makeOpenSslCrypto();
#endif
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

std::vector<uint8_t> bytes(const std::string& text) { return {text.begin(), text.end()}; }

struct Implementation {
  const char* name;
  std::shared_ptr<Crypto> (*make)();
};

void PrintTo(const Implementation& implementation, std::ostream* out) {
  *out << implementation.name;
}

class CryptoContract : public testing::TestWithParam<Implementation> {
 protected:
  std::shared_ptr<Crypto> crypto_ = GetParam().make();
};

TEST_P(CryptoContract, DigestsMatchPublishedVectors) {
  struct Vector {
    std::string message;
    const char* sha1;
    const char* sha256;
  };
  // 56 bytes leave no room for the length in the first block; 112 take two blocks and a
  // padding block; a million bytes run through many blocks.
  const Vector vectors[] = {
      {"", "da39a3ee5e6b4b0d3255bfef95601890afd80709",
       "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
      {"abc", "a9993e364706816aba3e25717850c26c9cd0d89d",
       "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
      {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
       "84983e441c3bd26ebaae4aa1f95129e5e54670f1",
       "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
      {"abcdefghbcdefghicdefghijdefghijkefghijklfghijklmghijklmnhijklmnoijklmnopjklmnopqklmnopqrlmn"
       "opqrsmnopqrstnopqrstu",
       "a49b2446a02c645bf419f995b67091253a04a259",
       "cf5b16a778af8380036ce59e7b0492370b249b11e8f07a51afac45037afee9d1"},
      {std::string(1000000, 'a'), "34aa973cd4c4daa4f61eeb2bdbad27316534016f",
       "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"},
  };
  for (const auto& v : vectors) {
    SCOPED_TRACE(v.message.size());
    EXPECT_EQ(toHex(crypto_->sha1(bytes(v.message))), v.sha1);
    EXPECT_EQ(toHex(crypto_->sha256(bytes(v.message))), v.sha256);
  }
}

TEST_P(CryptoContract, DigestsAcrossTheBlockBoundary) {
  // Runs of 'a': 55 bytes is the longest message padded within one block, 56 to 63 spill the
  // length into a second, 64 and 65 start a second block of data. Digests from Python's hashlib.
  const std::tuple<size_t, const char*, const char*> vectors[] = {
      {55, "c1c8bbdc22796e28c0e15163d20899b65621d65a",
       "9f4390f8d30c2dd92ec9f095b65e2b9ae9b0a925a5258e241c9f1e910f734318"},
      {56, "c2db330f6083854c99d4b5bfb6e8f29f201be699",
       "b35439a4ac6f0948b6d6f9e3c6af0f5f590ce20f1bde7090ef7970686ec6738a"},
      {63, "03f09f5b158a7a8cdad920bddc29b81c18a551f5",
       "7d3e74a05d7db15bce4ad9ec0658ea98e3f06eeecf16b4c6fff2da457ddc2f34"},
      {64, "0098ba824b5c16427bd7a1122a5a442a25ec644d",
       "ffe054fe7ae0cb6dc65c3af9b61d5209f439851db43d0ba5997337df154668eb"},
      {65, "11655326c708d70319be2610e8a57d9a5b959d3b",
       "635361c48bb9eab14198e76ea8ab7f1a41685d6ad62aa9146d301d4f17eb0ae0"},
  };
  for (const auto& [size, sha1, sha256] : vectors) {
    SCOPED_TRACE(size);
    const std::vector<uint8_t> message(size, 'a');
    EXPECT_EQ(toHex(crypto_->sha1(message)), sha1);
    EXPECT_EQ(toHex(crypto_->sha256(message)), sha256);
  }
}

TEST_P(CryptoContract, AesCbcMatchesNistVectorsAndRoundTripsWithPadding) {
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
    const auto encrypted = crypto_->aesCbcEncrypt(key, iv, plain);
    ASSERT_TRUE(encrypted);
    ASSERT_EQ(encrypted->size(), plain.size() + 16);
    EXPECT_EQ(toHex(std::vector<uint8_t>(encrypted->begin(), encrypted->begin() + 64)), cipherHex);
    EXPECT_EQ(crypto_->aesCbcDecrypt(key, iv, *encrypted), plain);
    // The unpadded vector ends in a block that is not valid padding.
    EXPECT_FALSE(crypto_->aesCbcDecrypt(key, iv, hex(cipherHex)));
  }
}

TEST_P(CryptoContract, CipherRejectsOtherSizes) {
  const std::vector<uint8_t> key16(16, 7), iv(16, 1), data(40, 3);
  const auto empty = crypto_->aesCbcEncrypt(key16, iv, {});
  ASSERT_TRUE(empty);
  EXPECT_EQ(empty->size(), 16u);
  EXPECT_EQ(crypto_->aesCbcDecrypt(key16, iv, *empty), std::vector<uint8_t>{});

  for (size_t keySize : {0, 15, 17, 24, 31, 33}) {  // AES-192 is not offered either
    SCOPED_TRACE(keySize);
    const std::vector<uint8_t> key(keySize, 7);
    EXPECT_FALSE(crypto_->aesCbcEncrypt(key, iv, data));
    EXPECT_FALSE(crypto_->aesCbcDecrypt(key, iv, *empty));
  }
  for (size_t ivSize : {0, 15, 17, 32}) {
    SCOPED_TRACE(ivSize);
    const std::vector<uint8_t> shortOrLong(ivSize, 1);
    EXPECT_FALSE(crypto_->aesCbcEncrypt(key16, shortOrLong, data));
    EXPECT_FALSE(crypto_->aesCbcDecrypt(key16, shortOrLong, *empty));
  }
  // Ciphertext is whole blocks, at least the padding block.
  const auto two = *crypto_->aesCbcEncrypt(key16, iv, std::vector<uint8_t>(20, 3));
  for (size_t size : {0, 1, 15, 17, 31}) {
    SCOPED_TRACE(size);
    EXPECT_FALSE(crypto_->aesCbcDecrypt(key16, iv, std::span(two).first(size)));
  }
}

TEST_P(CryptoContract, DecryptAcceptsOnlyWellFormedPadding) {
  // Encrypting two whole blocks and dropping the padding block leaves a ciphertext whose last
  // plaintext block is whatever the test chose.
  const std::vector<uint8_t> key(32, 9), iv(16, 4);
  const std::pair<std::string, std::optional<size_t>> cases[] = {
      {"78787878787878787878787878787801", 31},
      {"10101010101010101010101010101010", 16},
      {"78787878787878787878787878030303", 29},
      {"78787878787878787878787803030303", 29},  // a data byte may equal the padding
      {"78787878787878787878787878020303", std::nullopt},
      {"0f101010101010101010101010101010", std::nullopt},  // the first of 16 padding bytes
      {"78787878787878787878787878787800", std::nullopt},
      {"11111111111111111111111111111111", std::nullopt},  // longer than a block
      {"787878787878787878787878787878ff", std::nullopt},
  };
  for (const auto& [lastBlock, kept] : cases) {
    SCOPED_TRACE(lastBlock);
    std::vector<uint8_t> plain(16, 'p');
    const auto tail = hex(lastBlock);
    ASSERT_EQ(tail.size(), 16u);
    plain.insert(plain.end(), tail.begin(), tail.end());
    auto encrypted = *crypto_->aesCbcEncrypt(key, iv, plain);
    encrypted.resize(32);
    const auto decrypted = crypto_->aesCbcDecrypt(key, iv, encrypted);
    ASSERT_EQ(decrypted.has_value(), kept.has_value());
    if (kept) {
      EXPECT_EQ(*decrypted, std::vector<uint8_t>(plain.begin(), plain.begin() + *kept));
    }
  }
}

const Implementation kImplementations[] = {
#ifdef ORVANE_HAVE_OPENSSL
    {"OpenSsl", makeOpenSslCrypto},
#endif
    {"Portable", makePortableCrypto},
};
INSTANTIATE_TEST_SUITE_P(Implementations, CryptoContract, testing::ValuesIn(kImplementations),
                         [](const auto& info) { return std::string(info.param.name); });

#ifdef ORVANE_HAVE_OPENSSL
class PortableAgainstOpenSsl : public testing::Test {
 protected:
  std::vector<uint8_t> random(size_t size) {
    std::vector<uint8_t> out(size);
    for (auto& b : out) b = static_cast<uint8_t>(rng_());
    return out;
  }

  std::mt19937 rng_{20240611};
  std::shared_ptr<Crypto> portable_ = makePortableCrypto();
  std::shared_ptr<Crypto> openssl_ = makeOpenSslCrypto();
};

TEST_F(PortableAgainstOpenSsl, DigestsAgreeAtEveryLengthUpToFiveBlocks) {
  for (size_t size = 0; size <= 320; ++size) {
    SCOPED_TRACE(size);
    const auto message = random(size);
    EXPECT_EQ(portable_->sha1(message), openssl_->sha1(message));
    EXPECT_EQ(portable_->sha256(message), openssl_->sha256(message));
  }
}

TEST_F(PortableAgainstOpenSsl, CipherAgreesOnRandomAndDamagedInput) {
  int damagedAccepted = 0, damagedRejected = 0;
  for (int round = 0; round < 400; ++round) {
    const auto key = random(round % 2 == 0 ? 16 : 32);
    auto iv = random(16);
    const auto plain = random(rng_() % 301);
    SCOPED_TRACE(testing::Message() << "key " << key.size() << " bytes, plain " << plain.size());
    const auto encrypted = portable_->aesCbcEncrypt(key, iv, plain);
    ASSERT_TRUE(encrypted);
    ASSERT_EQ(encrypted, openssl_->aesCbcEncrypt(key, iv, plain));
    EXPECT_EQ(portable_->aesCbcDecrypt(key, iv, *encrypted), plain);

    // Damage inside the last block turns its plaintext to noise.
    auto noisy = *encrypted;
    noisy[noisy.size() - 1 - rng_() % 16] ^= static_cast<uint8_t>(1 + rng_() % 255);
    EXPECT_EQ(portable_->aesCbcDecrypt(key, iv, noisy), openssl_->aesCbcDecrypt(key, iv, noisy));

    // Damage to the byte before the last block (the IV's last byte for a single block) sets the
    // last plaintext byte to a chosen value, so that some damaged padding still passes.
    auto steered = *encrypted;
    const uint8_t padding = static_cast<uint8_t>(16 - plain.size() % 16);
    const uint8_t wanted = static_cast<uint8_t>(rng_() % 18);
    uint8_t& before = steered.size() > 16 ? steered[steered.size() - 17] : iv[15];
    before ^= static_cast<uint8_t>(padding ^ wanted);
    const auto result = portable_->aesCbcDecrypt(key, iv, steered);
    EXPECT_EQ(result, openssl_->aesCbcDecrypt(key, iv, steered)) << "last byte " << int{wanted};
    if (result && wanted != padding) {
      ++damagedAccepted;
    } else if (!result) {
      ++damagedRejected;
    }
  }
  // Both outcomes occurred, so the comparison covered acceptance as well as rejection.
  EXPECT_GT(damagedAccepted, 0);
  EXPECT_GT(damagedRejected, 0);
}
#endif

}  // namespace
}  // namespace orvane
