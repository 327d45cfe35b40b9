// File: PlistSamples.h
// Values that are easy to damage on the way to bytes and back: extremes, every type, and
// containers nesting one another.
#pragma once

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "orvane/PlistValue.h"

namespace orvane::testing {

struct NamedValue {
  std::string name;
  PlistValue value;
};

inline std::vector<NamedValue> samplePlistValues() {
  using namespace std::string_literals;
  const PlistValue nested = PlistArray{
      int64_t{1},
      "two",
      PlistArray{3.0f, PlistArray{*Decimal::parse("-0.004"), PlistArray{}}},
      PlistDictionary{{"bytes", Bytes{0, 1, 2}}, {"when", Date{-1.5}}},
  };
  return {
      {"bool", true},
      {"int min", std::numeric_limits<int64_t>::min()},
      {"int max", std::numeric_limits<int64_t>::max()},
      {"double tenth", 0.1},
      {"double denormal", std::numeric_limits<double>::denorm_min()},
      {"double infinity", -std::numeric_limits<double>::infinity()},
      {"float tenth", 0.1f},
      {"float lowest", std::numeric_limits<float>::lowest()},
      {"decimal tenth", *Decimal::parse("0.1")},
      {"decimal 38 digits", *Decimal::parse("-12345678901234567890123456789012345678")},
      {"decimal smallest exponent", Decimal::fromParts(false, 7, Decimal::kMinExponent)},
      {"decimal largest exponent", Decimal::fromParts(true, 99, Decimal::kMaxExponent)},
      {"unicode string", "h\xc3\xa9llo \xe2\x9c\x93"},
      {"string with nul", "a\0b"s},
      {"empty bytes", Bytes{}},
      {"bytes", Bytes{0x00, 0xFF, 0x80, 0x7F}},
      {"date", Date{-86'400.5}},
      {"empty array", PlistArray{}},
      {"nested array", nested},
      {"nested dictionary",
       PlistDictionary{{"", "empty key"}, {"k\0ey"s, nested}, {"z", PlistDictionary{{"a", 1.5}}}}},
  };
}

// `levels` arrays, each holding the next; the innermost holds a single integer.
inline PlistValue nestedArrays(int levels) {
  PlistValue value = int64_t{7};
  for (int i = 0; i < levels; ++i) value = PlistArray{std::move(value)};
  return value;
}

}  // namespace orvane::testing
