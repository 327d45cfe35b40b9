// File: PlistCodec.h
// The byte form of a property-list value, as the key-value store keeps it on disk.
//
// Layout: one format-version byte, then one value. A value is a tag byte and its payload:
//   false / true          no payload
//   int64, double, date   8 bytes little-endian (doubles as their IEEE-754 bits)
//   float                 4 bytes little-endian IEEE-754 bits
//   decimal               sign byte (0 or 1), 16-byte little-endian mantissa, 2-byte
//                         little-endian signed exponent
//   string, bytes         varint length, then the bytes
//   array                 varint count, then the values
//   dictionary            varint count, then (varint key length, key bytes, value) in
//                         strictly ascending key order
// Varints are unsigned LEB128 in their shortest form.
//
// Every value has exactly one encoding, and the decoder accepts nothing else: anything it
// accepts re-encodes to the same bytes. Stored bytes can be damaged, so decoding never
// trusts them: it bounds every length by what is left, limits nesting, and answers none
// rather than throwing or guessing.
#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "orvane/PlistValue.h"

namespace orvane {

inline constexpr uint8_t kPlistCodecVersion = 1;
// Containers nested deeper than this are refused both ways, so decoding recursion stays
// shallow whatever the input claims.
inline constexpr int kPlistCodecMaxNesting = 64;

// None when the value nests containers deeper than kPlistCodecMaxNesting.
std::optional<Bytes> encodePlistValue(const PlistValue& value);

// None for anything that is not exactly one well-formed encoded value.
std::optional<PlistValue> decodePlistValue(std::span<const uint8_t> bytes);

// One element of an array stored on its own: the same bytes as a top-level value, with the
// nesting limit counted from inside the array, so an array kept element by element is refused
// exactly when the whole array would be.
std::optional<Bytes> encodePlistArrayElement(const PlistValue& element);
std::optional<PlistValue> decodePlistArrayElement(std::span<const uint8_t> bytes);

}  // namespace orvane
