// The machine's zone: how it is named, and that a change reaches the name and the wall clock
// together, at a refresh.
#include <gtest/gtest.h>
#include <time.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "platform/TimeZoneSource.h"
#include "testutil/TemporaryDirectory.h"

namespace orvane {
namespace {

namespace fs = std::filesystem;

// /etc/localtime, /etc/timezone and a zoneinfo folder of our own.
class ZoneFiles {
 public:
  ZoneFiles() {
    fs::create_directories(root_ / "etc");
    write("zoneinfo/Europe/Berlin", "TZif berlin");
    write("zoneinfo/Asia/Tokyo", "TZif tokyo");
  }
  void write(const std::string& relative, const std::string& text) {
    fs::create_directories((root_ / relative).parent_path());
    std::ofstream(root_ / relative, std::ios::trunc) << text;
  }
  void link(const std::string& zone) {
    fs::remove(root_ / "etc/localtime");
    fs::create_symlink(root_ / "zoneinfo" / zone, root_ / "etc/localtime");
  }
  TimeZoneFiles files() const {
    return {(root_ / "etc/localtime").string(), (root_ / "etc/timezone").string(),
            (root_ / "zoneinfo").string()};
  }

 private:
  testing::TemporaryDirectory directory_{"orvane-zone"};
  const fs::path root_ = directory_.path();
};

TimeZoneSource sourceWith(const ZoneFiles& files, std::optional<std::string> tz) {
  return TimeZoneSource(files.files(), [tz] { return tz; });
}

TEST(TimeZoneSourceTest, TheZoneIsNamedAsTheCLibraryPicksIt) {
  ZoneFiles files;
  files.link("Europe/Berlin");
  files.write("etc/timezone", "Asia/Tokyo\n");  // loses to the link
  struct Case {
    std::optional<std::string> tz;
    std::optional<std::string> expected;
  };
  const Case byVariable[] = {
      {std::nullopt, "Europe/Berlin"},
      {"Asia/Tokyo", "Asia/Tokyo"},
      {":America/Lima", "America/Lima"},
      {":/usr/share/zoneinfo/America/Lima", "America/Lima"},
      {"", "UTC"},
      {":", "UTC"},
      {"CET-1CEST,M3.5.0,M10.5.0/3", "CET-1CEST,M3.5.0,M10.5.0/3"},
  };
  for (const Case& c : byVariable) {
    SCOPED_TRACE(c.tz.value_or("(unset)"));
    EXPECT_EQ(sourceWith(files, c.tz).identifier(), c.expected);
  }

  // A plain copy of a zone file is named by /etc/timezone only when the data agrees.
  struct CopyCase {
    const char* name;
    const char* copied;  // null: no /etc/localtime
    const char* timezone;
    std::optional<std::string> expected;
  };
  const CopyCase copies[] = {
      {"named and matching", "TZif tokyo", "Asia/Tokyo \n", "Asia/Tokyo"},
      {"named but stale", "TZif berlin", "Asia/Tokyo\n", std::nullopt},
      {"named zone not installed", "TZif lima", "America/Lima\n", "America/Lima"},
      {"no name", "TZif tokyo", nullptr, std::nullopt},
      {"a name outside the zone folder", "TZif tokyo", "../etc/passwd\n", std::nullopt},
      {"no zone file at all: UTC", nullptr, "Asia/Tokyo\n", std::nullopt},
  };
  for (const CopyCase& c : copies) {
    SCOPED_TRACE(c.name);
    ZoneFiles copy;
    if (c.copied) copy.write("etc/localtime", c.copied);
    if (c.timezone) copy.write("etc/timezone", c.timezone);
    EXPECT_EQ(sourceWith(copy, std::nullopt).identifier(), c.expected);
  }
}

// TZ stands in for any change: the C library's conversions follow it only after tzset().
class SystemCalendarZoneTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (const char* tz = std::getenv("TZ")) saved_ = tz;
  }
  void TearDown() override {
    saved_ ? setenv("TZ", saved_->c_str(), 1) : unsetenv("TZ");
    tzset();
  }
  std::optional<std::string> saved_;
};

TEST_F(SystemCalendarZoneTest, NameAndWallClockChangeTogetherAtARefresh) {
  setenv("TZ", "Asia/Tokyo", 1);
  ZoneFiles files;
  const auto calendar = makeSystemCalendar(TimeZoneSource(files.files()));
  const double noonUtc = 1704456000;  // 2024-01-05 12:00 UTC, a Friday
  EXPECT_EQ(calendar->timeZoneIdentifier(), "Asia/Tokyo");
  EXPECT_EQ(calendar->components(noonUtc)->hour, 21);

  setenv("TZ", "America/New_York", 1);
  // Until the refresh, every reading stays on the zone taken up last.
  EXPECT_EQ(calendar->timeZoneIdentifier(), "Asia/Tokyo");
  EXPECT_EQ(calendar->components(noonUtc)->hour, 21);
  EXPECT_EQ(calendar->timeZoneAbbreviation(noonUtc), "JST");

  calendar->refreshZone();
  EXPECT_EQ(calendar->timeZoneIdentifier(), "America/New_York");
  const auto fields = calendar->components(noonUtc);
  EXPECT_EQ(fields->hour, 7);
  EXPECT_EQ(fields->weekday, 6);
  EXPECT_EQ(calendar->timeZoneAbbreviation(noonUtc), "EST");
  EXPECT_EQ(calendar->secondsFromGMT(noonUtc), -5 * 3600);

  // A copy named by /etc/timezone; a change of either file alone is taken up at a refresh.
  unsetenv("TZ");
  files.write("etc/localtime", "TZif tokyo");
  files.write("etc/timezone", "Asia/Tokyo\n");
  calendar->refreshZone();
  EXPECT_EQ(calendar->timeZoneIdentifier(), "Asia/Tokyo");
  files.write("etc/timezone", "Europe/Berlin\n");  // not what was copied: no name
  calendar->refreshZone();
  EXPECT_EQ(calendar->timeZoneIdentifier().substr(0, 3), "GMT");
}

}  // namespace
}  // namespace orvane
