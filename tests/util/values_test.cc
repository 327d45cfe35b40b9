#include <gtest/gtest.h>

#include <cmath>
#include <regex>

#include "orvane/Decimal.h"
#include "orvane/PlistValue.h"
#include "testutil/FakePlatform.h"
#include "util/DataConvertible.h"
#include "util/JsonReader.h"
#include "util/PersistedCodableState.h"
#include "util/UUID.h"
#include "util/UserDefaultsProvider.h"

namespace orvane {
namespace {

TEST(DecimalTest, ParsesAndPrintsCanonicalText) {
  const std::pair<const char*, const char*> cases[] = {
      {"2.5", "2.5"},
      {"2.50", "2.5"},
      {"-1.25", "-1.25"},
      {"0", "0"},
      {"-0", "0"},
      {"000.000", "0"},
      {"1e3", "1000"},
      {"1000", "1000"},
      {".5", "0.5"},
      {"+3.5e-2", "0.035"},
      {"0.001", "0.001"},
      {"-12.000", "-12"},
      {"123456789.987654321", "123456789.987654321"},
      {"99999999999999999999999999999999999999", "99999999999999999999999999999999999999"},
  };
  for (const auto& [input, canonical] : cases) {
    auto parsed = Decimal::parse(input);
    ASSERT_TRUE(parsed) << input;
    EXPECT_EQ(parsed->toString(), canonical) << input;
  }
}

TEST(DecimalTest, RejectsMalformedText) {
  for (const char* bad :
       {"", "-", ".", "1.2.3", "abc", "1e", "1e+", " 1", "1 ", "0x10", "NaN", "1e99999"}) {
    EXPECT_FALSE(Decimal::parse(bad)) << bad;
  }
}

TEST(DecimalTest, RoundsPastThirtyEightDigitsHalfToEven) {
  // 39 significant digits: the last one is rounded away.
  auto d = Decimal::parse("1234567890123456789012345678901234567895");
  ASSERT_TRUE(d);
  EXPECT_EQ(d->toString(), "1234567890123456789012345678901234567900");
}

TEST(DecimalTest, ConvertsToAndFromDouble) {
  EXPECT_EQ(Decimal::parse("0.1")->toDouble(), 0.1);
  EXPECT_EQ(Decimal::parse("-2.5e-3")->toDouble(), -0.0025);
  EXPECT_EQ(Decimal::fromDouble(0.1)->toString(), "0.1");
  EXPECT_EQ(Decimal::fromDouble(-1234.5)->toString(), "-1234.5");
  EXPECT_FALSE(Decimal::fromDouble(INFINITY));
  EXPECT_FALSE(Decimal::fromDouble(NAN));
  EXPECT_EQ(Decimal(int64_t{-9223372036854775807LL - 1}).toString(), "-9223372036854775808");
}

TEST(DecimalTest, OrdersByValueNotByRepresentation) {
  auto d = [](const char* s) { return *Decimal::parse(s); };
  EXPECT_EQ(d("1.50"), d("1.5"));
  EXPECT_LT(d("1.5"), d("1.51"));
  EXPECT_LT(d("-2"), d("-1.99"));
  EXPECT_LT(d("0.09"), d("0.1"));
  EXPECT_GT(d("10"), d("9.999"));
  EXPECT_LT(d("-1"), d("0"));
  EXPECT_GT(d("0.001"), d("0"));
}

TEST(PlistValueTest, NumericReadsCrossTypesButTypedReadsDoNot) {
  EXPECT_EQ(PlistValue(true).numericInt(), 1);
  EXPECT_EQ(PlistValue(2.9).numericInt(), 2);
  EXPECT_EQ(PlistValue(*Decimal::parse("7.5")).numericDouble(), 7.5);
  EXPECT_FALSE(PlistValue("12").numericInt());
  EXPECT_FALSE(PlistValue(1e300).numericInt());
  EXPECT_FALSE(PlistValue(int64_t{3}).asDouble());
  EXPECT_FALSE(PlistValue(1.0f).asDouble());
  EXPECT_EQ(PlistValue(1.0f).asFloat(), 1.0f);
}

TEST(DataConvertibleTest, ReadsExactWidthOnly) {
  const uint8_t one[] = {0x01, 0x00, 0x00, 0x00, 0x00};
  EXPECT_EQ(fromBytes<uint32_t>(std::span(one, 4)), 1u);
  EXPECT_FALSE(fromBytes<uint32_t>(std::span(one, 3)));
  EXPECT_FALSE(fromBytes<uint32_t>(std::span(one, 5)));
  const uint8_t mixed[] = {0x78, 0x56, 0x34, 0x12};
  EXPECT_EQ(fromBytes<uint32_t>(mixed), 0x12345678u);
}

TEST(UUIDTest, IsUpperCaseVersion4AndFallsBackWhenSecureBytesFail) {
  const std::regex shape("^[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}$");
  testing::FakeRandomSource random;
  const std::string secure = makeUUIDString(random);
  EXPECT_TRUE(std::regex_match(secure, shape)) << secure;
  random.setSecureMode(testing::FakeRandomSource::SecureMode::kFail);
  random.scriptUniform({0.9, 0.1, 0.7});
  const std::string fallback = makeUUIDString(random);
  EXPECT_TRUE(std::regex_match(fallback, shape)) << fallback;
  EXPECT_NE(secure, fallback);
}

struct Sample {
  int64_t count = 0;
  std::string name;
  bool operator==(const Sample&) const = default;
};
void to_json(nlohmann::json& j, const Sample& s) { j = {{"count", s.count}, {"name", s.name}}; }
std::optional<Sample> decodeSample(const JsonReader& reader) {
  auto count = reader.requiredInt64("count");
  auto name = reader.requiredString("name");
  if (!count || !name) return std::nullopt;
  return Sample{*count, *name};
}

TEST(PersistedCodableStateTest, RoundTripsAndFallsBackToTheDefault) {
  auto store = makeInMemoryKeyValueStoreProvider()->openSuite("s");
  auto defaults = std::make_shared<UserDefaultsProvider>(store);
  auto log = std::make_shared<testing::CapturingLog>();
  PersistedCodableState<Sample> state("sample_key", defaults, Sample{-1, "default"}, decodeSample,
                                      log);

  EXPECT_EQ(state.get(), (Sample{-1, "default"}));
  EXPECT_TRUE(state.set(Sample{3, "three"}));
  PersistedCodableState<Sample> reopened("sample_key", defaults, Sample{}, decodeSample, log);
  EXPECT_EQ(reopened.get(), (Sample{3, "three"}));

  auto text = [](std::string_view json) { return PlistValue(Bytes(json.begin(), json.end())); };
  for (PlistValue corrupt :
       {text("{\"x"), PlistValue("not bytes"), text("{}"),
        // An integer beyond int64 reads as a double: refused, not
        // converted.
        text(R"({"count": -9733022236854775808, "name": "n"})"),
        text(R"({"count": 1e300, "name": "n"})"), text(R"({"count": 1.5, "name": "n"})")}) {
    store->set("sample_key", corrupt);
    EXPECT_EQ(state.get(), (Sample{-1, "default"}));
  }
  EXPECT_EQ(log->countContaining("sample_key"), 5u);  // the text value is simply absent
  EXPECT_EQ(log->countContaining("count: integer out of range"), 2u);

  PersistedCodableState<Sample> storeless("k", std::make_shared<UserDefaultsProvider>(nullptr),
                                          Sample{7, "d"}, decodeSample);
  EXPECT_FALSE(storeless.set(Sample{1, "x"}));
  EXPECT_EQ(storeless.get(), (Sample{7, "d"}));
}

TEST(UserDefaultsProviderTest, WithoutAStoreReadsNothingAndDropsWrites) {
  UserDefaultsProvider none(nullptr);
  EXPECT_FALSE(none.set("k", 1));
  EXPECT_FALSE(none.integer("k"));
  EXPECT_FALSE(none.synchronize());

  UserDefaultsProvider some(makeInMemoryKeyValueStoreProvider()->openSuite("s"));
  some.set("n", 2.0);
  some.set("s", "text");
  EXPECT_EQ(some.integer("n"), 2);
  EXPECT_FALSE(some.string("n"));
  EXPECT_FALSE(some.integer("s"));
  EXPECT_EQ(some.string("s"), "text");
}

}  // namespace
}  // namespace orvane
