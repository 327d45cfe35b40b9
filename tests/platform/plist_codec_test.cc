#include "platform/linux/PlistCodec.h"

#include <gtest/gtest.h>

#include <bit>

#include "platform/PlistSamples.h"

namespace orvane {
namespace {

using testing::nestedArrays;
using testing::samplePlistValues;

Bytes encoded(const PlistValue& value) {
  auto bytes = encodePlistValue(value);
  EXPECT_TRUE(bytes.has_value()) << describe(value);
  return bytes.value_or(Bytes{});
}

// A decimal record with the given raw fields, for building invalid ones.
Bytes decimalRecord(uint8_t sign, Decimal::Mantissa mantissa, int16_t exponent) {
  Bytes out = {kPlistCodecVersion, 0x06, sign};
  for (int i = 0; i < 16; ++i) out.push_back(static_cast<uint8_t>(mantissa >> (8 * i)));
  const auto e = static_cast<uint16_t>(exponent);
  out.push_back(static_cast<uint8_t>(e));
  out.push_back(static_cast<uint8_t>(e >> 8));
  return out;
}

// The store's round trips compare with ==, which cannot see these.
TEST(PlistCodecTest, KeepsFloatingPointBitsExactly) {
  const auto bitsAfterRoundTrip = [](const PlistValue& value) -> uint64_t {
    const auto decoded = decodePlistValue(encoded(value));
    if (!decoded) return 0xBAD;
    if (auto f = decoded->asFloat()) return std::bit_cast<uint32_t>(*f);
    if (auto d = decoded->asDate()) return std::bit_cast<uint64_t>(d->secondsSince1970);
    return std::bit_cast<uint64_t>(decoded->asDouble().value_or(0xBAD));
  };
  for (uint64_t bits : {0x8000'0000'0000'0000u, 0x7FF8'0000'0000'0000u, 0x7FF0'0000'0000'0123u}) {
    EXPECT_EQ(bitsAfterRoundTrip(std::bit_cast<double>(bits)), bits);
    EXPECT_EQ(bitsAfterRoundTrip(Date{std::bit_cast<double>(bits)}), bits);
  }
  for (uint32_t bits : {0x8000'0000u, 0x7FC0'0042u}) {
    EXPECT_EQ(bitsAfterRoundTrip(std::bit_cast<float>(bits)), bits);
  }
}

// Rows already on disk must keep reading back: this pins the byte layout.
TEST(PlistCodecTest, EncodingIsStable) {
  const PlistValue value = PlistDictionary{
      {"a", PlistArray{true, int64_t{1}}},
      {"b", 1.0f},
      {"c", *Decimal::parse("-1.5")},
  };
  const Bytes expected = {
      0x01,                                                  // format version
      0x0B, 0x03,                                            // dictionary of 3
      0x01, 'a',  0x0A, 0x02,                                // "a": array of 2
      0x02,                                                  //   true
      0x03, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,  // 1
      0x01, 'b',  0x05, 0x00, 0x00, 0x80, 0x3F,              // "b": 1.0f
      0x01, 'c',  0x06, 0x01,                                // "c": negative decimal
      0x0F, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,        //   mantissa 15
      0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,        //
      0xFF, 0xFF,                                            //   exponent -1
  };
  EXPECT_EQ(encoded(value), expected);
}

TEST(PlistCodecTest, RejectsEveryTruncation) {
  const Bytes full = encoded(samplePlistValues().back().value);
  ASSERT_TRUE(decodePlistValue(full).has_value());
  for (size_t length = 0; length < full.size(); ++length) {
    EXPECT_FALSE(decodePlistValue(std::span(full.data(), length)).has_value())
        << "prefix of " << length << " of " << full.size() << " bytes";
  }
}

TEST(PlistCodecTest, RejectsMalformedInput) {
  const Decimal::Mantissa tenTo38 = static_cast<Decimal::Mantissa>(10'000'000'000'000'000'000u) *
                                    static_cast<Decimal::Mantissa>(10'000'000'000'000'000'000u);
  const struct {
    const char* name;
    Bytes bytes;
  } cases[] = {
      {"empty", {}},
      {"unknown version", {0x02, 0x01}},
      {"tag past the last type", {0x01, 0x0C}},
      {"trailing byte", {0x01, 0x01, 0x00}},
      {"short integer", {0x01, 0x03, 0x00, 0x00, 0x00}},
      {"length beyond input", {0x01, 0x08, 0x05, 0x01, 0x02}},
      {"huge length", {0x01, 0x08, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x7F}},
      {"length past 64 bits",
       {0x01, 0x07, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x02}},
      {"length not in shortest form", {0x01, 0x07, 0x81, 0x00, 'a'}},
      {"array shorter than its count", {0x01, 0x0A, 0x03, 0x01, 0x02}},
      {"dictionary duplicate key", {0x01, 0x0B, 0x02, 0x01, 'a', 0x01, 0x01, 'a', 0x02}},
      {"dictionary keys descending", {0x01, 0x0B, 0x02, 0x01, 'b', 0x01, 0x01, 'a', 0x02}},
      {"decimal sign not 0 or 1", decimalRecord(2, 5, 0)},
      {"decimal negative zero", decimalRecord(1, 0, 0)},
      {"decimal trailing zero", decimalRecord(0, 10, 0)},
      {"decimal 39 digits", decimalRecord(0, tenTo38 + 1, 0)},
      {"decimal exponent too large", decimalRecord(0, 1, Decimal::kMaxExponent + 1)},
  };
  for (const auto& c : cases) {
    EXPECT_FALSE(decodePlistValue(c.bytes).has_value()) << c.name;
  }
  // The builder itself is sound: the same fields made canonical do decode.
  EXPECT_TRUE(decodePlistValue(decimalRecord(1, 5, -1)).has_value());
}

TEST(PlistCodecTest, LimitsNestingBothWays) {
  const PlistValue deepest = nestedArrays(kPlistCodecMaxNesting);
  const auto decoded = decodePlistValue(encoded(deepest));
  ASSERT_TRUE(decoded.has_value());
  EXPECT_EQ(*decoded, deepest);

  EXPECT_FALSE(encodePlistValue(nestedArrays(kPlistCodecMaxNesting + 1)).has_value());
  EXPECT_FALSE(
      encodePlistValue(PlistDictionary{{"k", nestedArrays(kPlistCodecMaxNesting)}}).has_value());

  // Far deeper than any stack would survive if the decoder followed it.
  Bytes hostile = {kPlistCodecVersion};
  for (int i = 0; i < 200'000; ++i) {
    hostile.push_back(0x0A);
    hostile.push_back(0x01);
  }
  hostile.push_back(0x01);
  EXPECT_FALSE(decodePlistValue(hostile).has_value());
}

}  // namespace
}  // namespace orvane
