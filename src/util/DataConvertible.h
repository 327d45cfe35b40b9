// File: DataConvertible.h
// Fixed-width integers read from raw bytes in the machine's native (little-endian) order.
#pragma once

#include <concepts>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>

namespace orvane {

// A value only when `bytes` is exactly as wide as T.
template <std::integral T>
std::optional<T> fromBytes(std::span<const uint8_t> bytes) {
  if (bytes.size() != sizeof(T)) return std::nullopt;
  T value;
  std::memcpy(&value, bytes.data(), sizeof(T));
  return value;
}

}  // namespace orvane
