#include <gtest/gtest.h>

#include "util/RetryAfter.h"

namespace orvane {
namespace {

using Headers = std::vector<std::pair<std::string, std::string>>;

// 2015-10-21 07:28:00 UTC
constexpr double kNow = 1445412480;

TEST(RetryAfterTest, ReadsSecondsAndDatesUnderAnyCaseOfTheName) {
  EXPECT_EQ(retryAfterSeconds({{"Retry-After", "120"}}, kNow), 120);
  EXPECT_EQ(retryAfterSeconds({{"content-type", "x"}, {"retry-after", " 7 "}}, kNow), 7);
  EXPECT_EQ(retryAfterSeconds({{"Retry-After", "0"}}, kNow), 0);
  EXPECT_GE(retryAfterSeconds({{"Retry-After", "99999999999999999999999"}}, kNow), 1e9);
  EXPECT_EQ(retryAfterSeconds({{"Retry-After", "Wed, 21 Oct 2015 07:30:00 GMT"}}, kNow), 120);
  EXPECT_EQ(retryAfterSeconds({{"Retry-After", "Thu, 01 Jan 1970 00:00:10 GMT"}}, 0), 10);
  EXPECT_EQ(retryAfterSeconds({{"Retry-After", "Mon, 29 Feb 2016 00:00:00 GMT"}}, kNow),
            1456704000 - kNow);
  // A date already past allows the next request at once.
  EXPECT_EQ(retryAfterSeconds({{"Retry-After", "Wed, 21 Oct 2015 07:00:00 GMT"}}, kNow), 0);
}

TEST(RetryAfterTest, AnythingElseIsNoFloor) {
  for (const char* text : {"", "-5", "1.5", "12abc", "soon", "Wed, 21 Oct 2015 07:30:00 UTC",
                           "Wed, 31 Feb 2015 07:30:00 GMT", "Wed, 21 Foo 2015 07:30:00 GMT",
                           "Wed, 21 Oct 2015 25:30:00 GMT", "Wednesday, 21-Oct-15 07:30:00 GMT",
                           "Wed Oct 21 07:30:00 2015"}) {
    EXPECT_EQ(retryAfterSeconds({{"Retry-After", text}}, kNow), std::nullopt) << text;
  }
  EXPECT_EQ(retryAfterSeconds({{"Retry-After-Not", "5"}}, kNow), std::nullopt);
  EXPECT_EQ(retryAfterSeconds(Headers{}, kNow), std::nullopt);
}

}  // namespace
}  // namespace orvane
