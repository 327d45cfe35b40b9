#include "orvane/Decimal.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>

namespace orvane {
namespace {

using Mantissa = Decimal::Mantissa;

int digitCount(Mantissa m) {
  int n = 1;
  while (m >= 10) {
    m /= 10;
    ++n;
  }
  return n;
}

std::string mantissaDigits(Mantissa m) {
  if (m == 0) return "0";
  std::string out;
  while (m > 0) {
    out.push_back(static_cast<char>('0' + static_cast<int>(m % 10)));
    m /= 10;
  }
  std::reverse(out.begin(), out.end());
  return out;
}

}  // namespace

Decimal::Decimal(int64_t value)
    : negative_(value < 0),
      mantissa_(value < 0 ? static_cast<Mantissa>(-(value + 1)) + 1
                          : static_cast<Mantissa>(value)) {
  normalise();
}

Decimal Decimal::fromParts(bool negative, Mantissa mantissa, int exponent) {
  // Round to 38 digits, half to even.
  while (digitCount(mantissa) > kMaxDigits) {
    const Mantissa rest = mantissa % 10;
    mantissa /= 10;
    ++exponent;
    if (rest > 5 || (rest == 5 && (mantissa & 1) != 0)) ++mantissa;
  }
  Decimal d;
  d.negative_ = negative;
  d.mantissa_ = mantissa;
  d.exponent_ = exponent;
  d.normalise();
  return d;
}

void Decimal::normalise() {
  if (mantissa_ == 0) {
    negative_ = false;
    exponent_ = 0;
    return;
  }
  while (mantissa_ % 10 == 0) {
    mantissa_ /= 10;
    ++exponent_;
  }
  while (exponent_ > kMaxExponent && digitCount(mantissa_) < kMaxDigits) {
    mantissa_ *= 10;
    --exponent_;
  }
  exponent_ = std::clamp(exponent_, kMinExponent, kMaxExponent);
}

std::optional<Decimal> Decimal::parse(std::string_view text) {
  size_t i = 0;
  bool negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) {
    negative = text[i] == '-';
    ++i;
  }
  Mantissa mantissa = 0;
  int exponent = 0;
  int digits = 0;
  bool sawDigit = false;
  bool sawPoint = false;
  int firstDropped = -1;
  bool stickyDropped = false;
  for (; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '.') {
      if (sawPoint) return std::nullopt;
      sawPoint = true;
      continue;
    }
    if (c < '0' || c > '9') break;
    sawDigit = true;
    if (digits < kMaxDigits) {
      if (mantissa != 0 || c != '0') ++digits;
      mantissa = mantissa * 10 + static_cast<Mantissa>(c - '0');
      if (sawPoint) --exponent;
    } else {
      // Past the precision: remember what rounding needs, and let integer digits scale.
      if (firstDropped < 0) {
        firstDropped = c - '0';
      } else if (c != '0') {
        stickyDropped = true;
      }
      if (!sawPoint) ++exponent;
    }
  }
  if (!sawDigit) return std::nullopt;
  if (i < text.size()) {
    if (text[i] != 'e' && text[i] != 'E') return std::nullopt;
    ++i;
    int exp = 0;
    const char* begin = text.data() + i;
    const char* end = text.data() + text.size();
    if (begin < end && *begin == '+') ++begin;
    auto [ptr, ec] = std::from_chars(begin, end, exp);
    if (ec != std::errc() || ptr != end) return std::nullopt;
    if (exp > 1000 || exp < -1000) return std::nullopt;
    exponent += exp;
  }
  if (firstDropped > 5 || (firstDropped == 5 && (stickyDropped || (mantissa & 1) != 0))) {
    ++mantissa;  // half to even
  }
  return fromParts(negative, mantissa, exponent);
}

std::optional<Decimal> Decimal::fromDouble(double value) {
  if (!std::isfinite(value)) return std::nullopt;
  char buffer[64];
  auto [ptr, ec] = std::to_chars(buffer, buffer + sizeof buffer, value);
  if (ec != std::errc()) return std::nullopt;
  return parse(std::string_view(buffer, static_cast<size_t>(ptr - buffer)));
}

std::string Decimal::toString() const {
  std::string digits = mantissaDigits(mantissa_);
  std::string out = negative_ ? "-" : "";
  if (exponent_ >= 0) {
    out += digits;
    if (mantissa_ != 0) out.append(static_cast<size_t>(exponent_), '0');
    return out;
  }
  const size_t fraction = static_cast<size_t>(-exponent_);
  if (digits.size() <= fraction) {
    out += "0.";
    out.append(fraction - digits.size(), '0');
    out += digits;
  } else {
    out += digits.substr(0, digits.size() - fraction);
    out += '.';
    out += digits.substr(digits.size() - fraction);
  }
  return out;
}

double Decimal::toDouble() const {
  // strtod rounds the exact decimal text correctly.
  std::string text =
      (negative_ ? "-" : "") + mantissaDigits(mantissa_) + "e" + std::to_string(exponent_);
  return std::strtod(text.c_str(), nullptr);
}

std::strong_ordering Decimal::operator<=>(const Decimal& other) const {
  if (negative_ != other.negative_) {
    return negative_ ? std::strong_ordering::less : std::strong_ordering::greater;
  }
  // Compare magnitudes by the position of the leading digit, then digit by digit.
  std::strong_ordering mag = std::strong_ordering::equal;
  if (mantissa_ == 0 || other.mantissa_ == 0) {
    mag = (mantissa_ != 0) <=> (other.mantissa_ != 0);
  } else {
    const int leadA = digitCount(mantissa_) + exponent_;
    const int leadB = digitCount(other.mantissa_) + other.exponent_;
    if (leadA != leadB) {
      mag = leadA <=> leadB;
    } else {
      std::string a = mantissaDigits(mantissa_);
      std::string b = mantissaDigits(other.mantissa_);
      const size_t n = std::max(a.size(), b.size());
      a.resize(n, '0');
      b.resize(n, '0');
      const int c = std::strcmp(a.c_str(), b.c_str());
      mag = c <=> 0;
    }
  }
  if (negative_) return 0 <=> mag;  // NOLINT(modernize-use-nullptr): the literal 0 of <=>
  return mag;
}

}  // namespace orvane
