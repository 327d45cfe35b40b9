// File: StoredElementCodec.h
// The bytes of one array element as a suite file keeps it in its own row. Elements of a few
// hundred bytes or more (the upload queues' records) are kept deflated behind a leading byte
// the plain encoding never starts with: a queued record then costs the disk well under half
// its size in every page it fills. Smaller elements, and any that would not shrink, keep the
// plain encoding (PlistCodec.h), which files written before compression hold throughout.
#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "orvane/PlistValue.h"

namespace orvane {

// Starts a deflated element; the plain encoding starts with kPlistCodecVersion.
inline constexpr uint8_t kDeflatedElementMark = 0x80 | 1;
// Plain encodings shorter than this are stored as they are.
inline constexpr size_t kDeflateElementsFrom = 256;

// None when the element nests too deeply to encode at all.
std::optional<Bytes> encodeStoredElement(const PlistValue& element);
// Either form; none for damaged bytes of either.
std::optional<PlistValue> decodeStoredElement(std::span<const uint8_t> bytes);

}  // namespace orvane
