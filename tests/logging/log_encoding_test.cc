#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <nlohmann/json.hpp>

#include "logging/AES.h"
#include "logging/AnyEncodable.h"
#include "logging/BinaryEncoding.h"
#include "logging/Compression.h"
#include "logging/LogDecoder.h"
#include "logging/LogEncoder.h"
#include "orvane/platform/linux/LinuxPlatform.h"
#include "testutil/FakePlatform.h"
#include "util/Base64.h"

namespace orvane {
namespace {

constexpr const char* kAppKey = "0123456789abcdefTAIL-IGNORED";

Bytes hex(const std::string& text) {
  Bytes out;
  for (size_t i = 0; i + 1 < text.size(); i += 2) {
    out.push_back(static_cast<uint8_t>(std::stoi(text.substr(i, 2), nullptr, 16)));
  }
  return out;
}

class LogEncodingTest : public ::testing::Test {
 protected:
  std::shared_ptr<Crypto> crypto = makeOpenSslCrypto();
  std::shared_ptr<testing::FakeRandomSource> random = std::make_shared<testing::FakeRandomSource>();
  std::shared_ptr<testing::CapturingLog> log = std::make_shared<testing::CapturingLog>();
  std::optional<std::string> key = deriveLogEncryptionKey(kAppKey);
  LogEncoder encoder{crypto, random, log, [this] { return key; }};

  nlohmann::json envelope(const SignalList& s, const CustomSignalList& cs = {},
                          const CustomSignalList& gs = {}) {
    auto json = encoder.envelopeJson(s, cs, gs);
    EXPECT_TRUE(json.ok());
    return nlohmann::json::parse(*json);
  }
  // The binary form behind one envelope group.
  Bytes group(const nlohmann::json& env, const char* name) {
    auto compressed = base64Decode(env.at(name).get<std::string>());
    EXPECT_TRUE(compressed);
    auto binary = inflateRaw(*compressed);
    EXPECT_TRUE(binary.ok());
    return *binary;
  }
};

TEST_F(LogEncodingTest, BinaryGroupsAreBigEndianAndNarrowest) {
  auto env = envelope({SignalFloat(SignalEnum::id(3), 1.0f), SignalBool(SignalEnum::id(25), false),
                       SignalInt(SignalEnum::id(4), 127), SignalInt(SignalEnum::id(5), 128),
                       SignalInt(SignalEnum::id(6), -129), SignalInt(SignalEnum::id(7), 40000),
                       SignalInt(SignalEnum::id(8), int64_t{1} << 31),
                       SignalBool(SignalEnum::id(9), true)});
  EXPECT_EQ(group(env, "f"), hex("00033F800000"));
  EXPECT_EQ(group(env, "b"), hex("FFFFFFE700000009"));
  EXPECT_EQ(group(env, "i8"), hex("00047F"));
  EXPECT_EQ(group(env, "i16"), hex("00050080"
                                   "0006FF7F"));
  EXPECT_EQ(group(env, "i32"), hex("000700009C40"));
  EXPECT_EQ(group(env, "i64"), hex("00080000000080000000"));
  EXPECT_FALSE(env.contains("d"));
  EXPECT_FALSE(env.contains("s"));
}

TEST_F(LogEncodingTest, TextCustomAndGlobalMembers) {
  auto env = envelope({SignalString(SignalEnum::id(20), "paywall"),
                       SignalDecimal(SignalEnum::id(7), *Decimal::parse("2.50")),
                       SignalInt(SignalEnum::id(4), 1), SignalInt(SignalEnum::id(4), 300)},
                      {CustomSignalString("plan", "pro"), CustomSignalInt("plan", 2),
                       CustomSignalFloat("inf", INFINITY), CustomSignalFloat("nan", NAN),
                       CustomSignalDecimal("price", *Decimal::parse("9.99"))},
                      {});
  EXPECT_EQ(env["s"], (nlohmann::json{{"20", "paywall"}, {"7", "2.5"}}));
  EXPECT_EQ(env["cs"],
            (nlohmann::json{{"plan", 2}, {"inf", "Infinity"}, {"nan", "NaN"}, {"price", "9.99"}}));
  EXPECT_EQ(env["gs"], nlohmann::json::object());
  // Each width has its own map: a repeated column replaces a value only within one map.
  EXPECT_EQ(group(env, "i8"), hex("000401"));
  EXPECT_EQ(group(env, "i16"), hex("0004012C"));

  auto empty = envelope({});
  EXPECT_EQ(empty,
            (nlohmann::json{{"cs", nlohmann::json::object()}, {"gs", nlohmann::json::object()}}));
}

TEST_F(LogEncodingTest, EncodedLayoutUsesAFreshIvAndRoundTrips) {
  const SignalList signals{
      SignalInt(SignalEnum::id(3), -101), SignalFloat(SignalEnum::id(100), 0.25f),
      SignalString(SignalEnum::id(20), "home"), SignalBool(SignalEnum::id(12), true)};
  auto first = encoder.encodeLog(signals, {CustomSignalBool("vip", true)}, {});
  auto second = encoder.encodeLog(signals, {CustomSignalBool("vip", true)}, {});
  ASSERT_TRUE(first.ok());
  ASSERT_TRUE(second.ok());
  EXPECT_EQ((*first)[0], 0x00);
  EXPECT_EQ((first->size() - 17) % 16, 0u);
  EXPECT_NE(Bytes(first->begin() + 1, first->begin() + 17),
            Bytes(second->begin() + 1, second->begin() + 17));
  EXPECT_NE(Bytes(first->begin() + 17, first->end()), Bytes(second->begin() + 17, second->end()));

  auto decoded = decodeEncodedLog(*first, kAppKey, *crypto);
  ASSERT_TRUE(decoded.ok()) << decoded.error().description;
  EXPECT_EQ(decoded->signals.at(3).value, PlistValue(int64_t{-101}));
  EXPECT_EQ(decoded->signals.at(100).value, PlistValue(0.25f));
  EXPECT_EQ(decoded->signals.at(20).value, PlistValue("home"));
  EXPECT_EQ(decoded->signals.at(12).value, PlistValue(true));
  EXPECT_EQ(nlohmann::json::parse(decoded->customSignalsJson), (nlohmann::json{{"vip", true}}));
}

TEST_F(LogEncodingTest, KeyRulesAndFailures) {
  // 32 characters and their first 16 give the same key.
  EXPECT_EQ(deriveLogEncryptionKey("0123456789abcdef0123456789abcdef"), "0123456789abcdef");
  EXPECT_FALSE(deriveLogEncryptionKey("short"));
  EXPECT_FALSE(deriveLogEncryptionKey("0123456789abcde"));
  // Sixteen two-byte characters are 32 UTF-8 bytes: a valid AES-256 key.
  std::string umlauts;
  for (int i = 0; i < 17; ++i) umlauts += "\xC3\xA4";
  EXPECT_EQ(deriveLogEncryptionKey(umlauts)->size(), 32u);
  // Fifteen letters and an emoji: the cut would split the surrogate pair.
  EXPECT_FALSE(deriveLogEncryptionKey("abcdefghijklmno\xF0\x9F\x98\x80zz"));
  // Twelve three-byte characters and four letters: 40 bytes, rejected by the cipher.
  std::string wide;
  for (int i = 0; i < 12; ++i) wide += "\xE2\x82\xAC";
  wide += "abcd";
  ASSERT_TRUE(deriveLogEncryptionKey(wide));
  auto rejected = encoder.encodeLogWithKey({}, {}, {}, deriveLogEncryptionKey(wide));
  ASSERT_FALSE(rejected.ok());
  EXPECT_EQ(rejected.error().domain, "AES");
  EXPECT_EQ(rejected.error().code, 1);
  EXPECT_EQ(log->count("\"Error: Failed to set a key.\""), 1u);

  key.reset();  // before setup
  auto noKey = encoder.encodeLog({}, {}, {});
  ASSERT_FALSE(noKey.ok());
  EXPECT_EQ(noKey.error().code, 1);

  EXPECT_EQ(AES::make("0123456789abcdef", Bytes(15), *crypto).error().code, 2);

  key = "0123456789abcdef";
  random->setSecureMode(testing::FakeRandomSource::SecureMode::kFail);
  EXPECT_FALSE(encoder.encodeLog({}, {}, {}).ok());
}

TEST_F(LogEncodingTest, DecoderRejectsDamagedInputWithClearMessages) {
  auto encoded = encoder.encodeLog({SignalInt(SignalEnum::id(3), 2)}, {}, {});
  ASSERT_TRUE(encoded.ok());
  const std::string b64 = base64Encode(*encoded);

  EXPECT_EQ(decodeEncodedLogBase64(b64, "wrong-key-0123456789", *crypto).error().code >= 5, true);
  EXPECT_EQ(decodeEncodedLogBase64(b64.substr(0, 21), kAppKey, *crypto).error().code, 12);
  EXPECT_EQ(decodeEncodedLogBase64(b64.substr(0, 20), kAppKey, *crypto).error().code, 1);
  Bytes truncated(encoded->begin(), encoded->end() - 3);
  EXPECT_EQ(decodeEncodedLog(truncated, kAppKey, *crypto).error().code, 3);
  Bytes marked = *encoded;
  marked[0] = 1;
  EXPECT_EQ(decodeEncodedLog(marked, kAppKey, *crypto).error().code, 2);
  EXPECT_EQ(decodeEncodedLog(Bytes(5), kAppKey, *crypto).error().code, 1);
  EXPECT_EQ(decodeEncodedLog(*encoded, "short", *crypto).error().code, 4);
  EXPECT_FALSE(joinEncodedPieces("{\"ctx_401\": \"0_AAAA\", \"ctx_403\": \"2_AAAA\"}").ok());
  EXPECT_FALSE(joinEncodedPieces("[1,2]").ok());
  EXPECT_EQ(*joinEncodedPieces("{\"c_sdk_param_1\": \"1_CD\", \"c_sdk_param_0\": \"0_AB\"}"),
            "ABCD");
}

TEST(Base64Test, MatchesRfcVectorsAndRejectsNonCanonicalText) {
  const std::pair<const char*, const char*> vectors[] = {
      {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"foobar", "Zm9vYmFy"}};
  for (const auto& [plain, encoded] : vectors) {
    Bytes bytes(plain, plain + std::strlen(plain));
    EXPECT_EQ(base64Encode(bytes), encoded);
    EXPECT_EQ(base64Decode(encoded), bytes);
  }
  for (const char* bad :
       {"Zg=", "Z===", "Zg==Zg==", "Zm9v!", "=Zm9", "Zh==", "Zm9=", "PPPPPPPPPPP="}) {
    EXPECT_FALSE(base64Decode(bad)) << bad;
  }
}

// Decrypts with the openssl command and inflates with Python's zlib: tools nobody here wrote.
TEST_F(LogEncodingTest, IndependentToolsReadTheEncodedForm) {
  if (std::system("command -v openssl >/dev/null && command -v python3 >/dev/null") != 0) {
    GTEST_SKIP() << "openssl or python3 not installed";
  }
  auto encoded = encoder.encodeLog({SignalString(SignalEnum::id(20), "paywall")},
                                   {CustomSignalInt("n", 7)}, {});
  ASSERT_TRUE(encoded.ok());
  const std::string dir = ::testing::TempDir();
  std::ofstream(dir + "orvane_cipher.bin", std::ios::binary)
      .write(reinterpret_cast<const char*>(encoded->data() + 17),
             static_cast<std::streamsize>(encoded->size() - 17));
  auto toHex = [](const uint8_t* p, size_t n) {
    std::string s;
    for (size_t i = 0; i < n; ++i)
      s += {"0123456789abcdef"[p[i] >> 4], "0123456789abcdef"[p[i] & 15]};
    return s;
  };
  const std::string command =
      "openssl enc -d -aes-128-cbc -K " + toHex(reinterpret_cast<const uint8_t*>(key->data()), 16) +
      " -iv " + toHex(encoded->data() + 1, 16) + " -in " + dir + "orvane_cipher.bin | python3 -c " +
      "\"import sys,zlib;print(zlib.decompress(sys.stdin.buffer.read(),-15).decode())\" > " + dir +
      "orvane_plain.json";
  ASSERT_EQ(std::system(command.c_str()), 0) << command;
  std::ifstream plain(dir + "orvane_plain.json");
  EXPECT_EQ(nlohmann::json::parse(plain),
            (nlohmann::json{
                {"s", {{"20", "paywall"}}}, {"cs", {{"n", 7}}}, {"gs", nlohmann::json::object()}}));
}

// Every hint gives a stream any inflater reads back to the input, also across the 65535-byte
// limit of a stored block and for nothing at all.
TEST(CompressionTest, EveryHintRoundTripsThroughAnInflater) {
  for (const size_t size : {size_t{0}, size_t{1}, size_t{65535}, size_t{65536}, size_t{140000}}) {
    Bytes input(size);
    for (size_t i = 0; i < size; ++i) input[i] = static_cast<uint8_t>((i * 2654435761u) >> 13);
    for (const CompressionHint hint : {CompressionHint::kGeneral, CompressionHint::kEntropyOnly,
                                       CompressionHint::kFast, CompressionHint::kStoreOnly}) {
      SCOPED_TRACE(::testing::Message() << size << " bytes, hint " << static_cast<int>(hint));
      auto compressed = deflateRaw(input, hint);
      ASSERT_TRUE(compressed.ok());
      auto back = inflateRaw(*compressed);
      ASSERT_TRUE(back.ok()) << back.error().description;
      EXPECT_EQ(*back, input);
      if (hint == CompressionHint::kStoreOnly) {
        const size_t blocks = std::max<size_t>(1, (size + 65534) / 65535);
        EXPECT_EQ(compressed->size(), size + 5 * blocks);
      }
    }
  }
}

}  // namespace
}  // namespace orvane
