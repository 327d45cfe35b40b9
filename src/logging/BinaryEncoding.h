// File: BinaryEncoding.h
// The fixed-width binary forms of the encoded log. Keys and values are stored big-endian:
// a map entry is a 2-byte column followed by a 1-, 2-, 4- or 8-byte value; the array form is
// a run of 4-byte values.
#pragma once

#include <bit>
#include <concepts>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "orvane/PlistValue.h"

namespace orvane {

template <std::integral T>
constexpr T toBigEndian(T value) {
  if constexpr (std::endian::native == std::endian::big || sizeof(T) == 1) {
    return value;
  } else {
    using U = std::make_unsigned_t<T>;
    U u = static_cast<U>(value);
    U swapped = 0;
    for (size_t i = 0; i < sizeof(T); ++i) {
      swapped = static_cast<U>((swapped << 8) | (u & 0xFF));
      u = static_cast<U>(u >> 8);
    }
    return static_cast<T>(swapped);
  }
}

struct BinaryMapEncodingDecoding {
  // One entry per element: column then value, both big-endian. `entries` holds the column
  // and the value in native order; a repeated column is written once per occurrence, so
  // callers pass maps with unique columns.
  template <std::integral T>
  static Bytes dataFromDictionary(const std::vector<std::pair<uint16_t, T>>& entries) {
    Bytes out(entries.size() * (2 + sizeof(T)));
    uint8_t* p = out.data();
    for (const auto& [column, value] : entries) {
      p[0] = static_cast<uint8_t>(column >> 8);
      p[1] = static_cast<uint8_t>(column);
      const T big = toBigEndian(value);
      std::memcpy(p + 2, &big, sizeof(T));
      p += 2 + sizeof(T);
    }
    return out;
  }

  // None when the length is not a whole number of entries.
  template <std::integral T>
  static std::optional<std::vector<std::pair<uint16_t, T>>> dictionaryFromData(
      std::span<const uint8_t> data) {
    constexpr size_t kEntry = 2 + sizeof(T);
    if (data.size() % kEntry != 0) return std::nullopt;
    std::vector<std::pair<uint16_t, T>> out;
    out.reserve(data.size() / kEntry);
    for (size_t i = 0; i < data.size(); i += kEntry) {
      const auto column = static_cast<uint16_t>((data[i] << 8) | data[i + 1]);
      T big;
      std::memcpy(&big, data.data() + i + 2, sizeof(T));
      out.emplace_back(column, toBigEndian(big));
    }
    return out;
  }
};

struct BinaryArrayEncodingDecoding {
  static Bytes dataFromArray(const std::vector<int32_t>& values) {
    Bytes out(values.size() * 4);
    for (size_t i = 0; i < values.size(); ++i) {
      const int32_t big = toBigEndian(values[i]);
      std::memcpy(out.data() + i * 4, &big, 4);
    }
    return out;
  }

  static std::optional<std::vector<int32_t>> arrayFromData(std::span<const uint8_t> data) {
    if (data.size() % 4 != 0) return std::nullopt;
    std::vector<int32_t> out(data.size() / 4);
    for (size_t i = 0; i < out.size(); ++i) {
      int32_t big;
      std::memcpy(&big, data.data() + i * 4, 4);
      out[i] = toBigEndian(big);
    }
    return out;
  }
};

}  // namespace orvane
