// File: Decimal.h
// An exact base-10 number: a sign, an unsigned mantissa of up to 38 decimal digits and a
// power-of-ten exponent. Values are kept normalised (no trailing zeros in the mantissa), so
// equal numbers compare equal field by field.
#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "orvane/Export.h"

namespace orvane {

class ORVANE_API Decimal {
 public:
  using Mantissa = unsigned __int128;
  static constexpr int kMaxDigits = 38;
  static constexpr int kMinExponent = -128;
  static constexpr int kMaxExponent = 127;

  // Zero.
  constexpr Decimal() = default;
  // The integer `value` exactly.
  Decimal(int64_t value);  // NOLINT(google-explicit-constructor): integers are decimals.
  // mantissa x 10^exponent; digits beyond 38 are rounded half-even, exponents clamped.
  static Decimal fromParts(bool negative, Mantissa mantissa, int exponent);
  // Parses "12", "-0.25", "+3.5e-2", ".5". Nothing else (no spaces, no hex, no NaN).
  static std::optional<Decimal> parse(std::string_view text);
  // The nearest decimal with at most 17 significant digits (the shortest that reads back to
  // the same double); none for infinities and NaN.
  static std::optional<Decimal> fromDouble(double value);

  bool isNegative() const { return negative_; }
  bool isZero() const { return mantissa_ == 0; }
  Mantissa mantissa() const { return mantissa_; }
  int exponent() const { return exponent_; }

  // Canonical text: "2.5", "0", "-1.25", "1000", "0.001". Never exponent notation.
  std::string toString() const;
  // The double nearest to the exact value.
  double toDouble() const;

  bool operator==(const Decimal& other) const = default;
  std::strong_ordering operator<=>(const Decimal& other) const;

 private:
  void normalise();

  bool negative_ = false;
  Mantissa mantissa_ = 0;
  int exponent_ = 0;
};

}  // namespace orvane
