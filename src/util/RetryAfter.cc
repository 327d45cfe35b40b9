#include "util/RetryAfter.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <string_view>

namespace orvane {
namespace {

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return (x | 0x20) == (y | 0x20);
         });
}

std::string_view trimmed(std::string_view text) {
  const size_t begin = text.find_first_not_of(" \t");
  if (begin == std::string_view::npos) return {};
  const size_t end = text.find_last_not_of(" \t\r\n");
  return text.substr(begin, end - begin + 1);
}

// `count` decimal digits at `at`; none when any is not a digit.
std::optional<int> digitsAt(std::string_view text, size_t at, size_t count) {
  if (at + count > text.size()) return std::nullopt;
  int value = 0;
  for (size_t i = at; i < at + count; ++i) {
    if (text[i] < '0' || text[i] > '9') return std::nullopt;
    value = value * 10 + (text[i] - '0');
  }
  return value;
}

std::optional<double> delaySeconds(std::string_view text) {
  if (text.empty()) return std::nullopt;
  constexpr double kLongest = 1e9;  // far beyond any useful delay; the caller caps it anyway
  double seconds = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return std::nullopt;
    seconds = std::min(seconds * 10 + (c - '0'), kLongest);
  }
  return seconds;
}

// "Sun, 06 Nov 1994 08:49:37 GMT" as seconds since 1970.
std::optional<double> imfFixdate(std::string_view text) {
  static constexpr std::array<std::string_view, 12> kMonths = {
      "Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  if (text.size() != 29 || text.substr(3, 2) != ", " || text[7] != ' ' || text[11] != ' ' ||
      text[16] != ' ' || text[19] != ':' || text[22] != ':' || text.substr(25) != " GMT") {
    return std::nullopt;
  }
  const auto month = std::find(kMonths.begin(), kMonths.end(), text.substr(8, 3));
  const auto day = digitsAt(text, 5, 2);
  const auto year = digitsAt(text, 12, 4);
  const auto hour = digitsAt(text, 17, 2);
  const auto minute = digitsAt(text, 20, 2);
  const auto second = digitsAt(text, 23, 2);
  if (month == kMonths.end() || !day || !year || !hour || !minute || !second || *hour > 23 ||
      *minute > 59 || *second > 60) {
    return std::nullopt;
  }
  using namespace std::chrono;
  const year_month_day date{std::chrono::year{*year},
                            std::chrono::month{static_cast<unsigned>(month - kMonths.begin() + 1)},
                            std::chrono::day{static_cast<unsigned>(*day)}};
  if (!date.ok()) return std::nullopt;
  const int64_t days = sys_days(date).time_since_epoch().count();
  return static_cast<double>(days) * 86400 + *hour * 3600 + *minute * 60 + *second;
}

}  // namespace

std::optional<double> retryAfterSeconds(
    const std::vector<std::pair<std::string, std::string>>& headers, double nowSeconds) {
  for (const auto& [name, value] : headers) {
    if (!equalsIgnoringCase(name, "Retry-After")) continue;
    const std::string_view text = trimmed(value);
    if (auto seconds = delaySeconds(text)) return seconds;
    if (auto date = imfFixdate(text)) return std::max(0.0, *date - nowSeconds);
    return std::nullopt;
  }
  return std::nullopt;
}

}  // namespace orvane
