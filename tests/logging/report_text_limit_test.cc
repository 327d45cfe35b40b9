#include <gtest/gtest.h>

#include "logging/AnyEncodable.h"
#include "logging/ReportTextLimit.h"

namespace orvane {
namespace {

TEST(ReportTextLimitTest, LongTextsAreCutWithTheirLengthAndNeverExceedTheLimit) {
  EXPECT_EQ(boundedReportText("short"), "short");
  const std::string exact(kMaximumReportTextBytes, 'a');
  EXPECT_EQ(boundedReportText(exact), exact);

  const std::string longer(kMaximumReportTextBytes + 1, 'b');
  const std::string cut = boundedReportText(longer);
  EXPECT_LE(cut.size(), kMaximumReportTextBytes);
  EXPECT_GT(cut.size(), kMaximumReportTextBytes - 64) << "keeps nearly all it may";
  EXPECT_EQ(cut.rfind(std::string(100, 'b'), 0), 0u);
  EXPECT_NE(cut.find("[cut from 4097 bytes]"), std::string::npos) << cut.substr(4000);
}

TEST(ReportTextLimitTest, ACutNeverSplitsACharacter) {
  // Two- and three-byte characters in turn: some cut point falls inside each kind.
  std::string text;
  while (text.size() < 3 * kMaximumReportTextBytes) text += "\u00e9\u20ac";
  for (size_t limit = 100; limit < 106; ++limit) {
    const std::string cut = boundedReportText(text, limit);
    EXPECT_LE(cut.size(), limit);
    EXPECT_EQ(repairedUtf8(cut), cut) << "limit " << limit;
  }
}

TEST(ReportTextLimitTest, EveryTextInsideAValueIsBounded) {
  const std::string huge(100000, 'x');
  const PlistValue value =
      PlistDictionary{{"list", PlistArray{huge, int64_t{7}, PlistDictionary{{huge, huge}}}},
                      {"number", 1.5},
                      {"short", "kept"}};
  const PlistValue bounded = boundedReportValue(value);
  const PlistDictionary& top = *bounded.asDictionary();
  EXPECT_EQ(top.at("number"), PlistValue(1.5));
  EXPECT_EQ(top.at("short"), PlistValue("kept"));
  const PlistArray& list = *top.at("list").asArray();
  EXPECT_EQ(*list[0].asString(), boundedReportText(huge));
  EXPECT_EQ(list[1], PlistValue(int64_t{7}));
  const auto& [key, inner] = *list[2].asDictionary()->begin();
  EXPECT_EQ(key, boundedReportText(huge));
  EXPECT_EQ(*inner.asString(), boundedReportText(huge));
}

}  // namespace
}  // namespace orvane
