// File: Compression.h
// Raw DEFLATE (RFC 1951: no zlib header, no checksum), the form the encoded log uses, and
// gzip, the content coding of compressed upload bodies.
#pragma once

#include <cstdint>
#include <span>

#include "orvane/PlistValue.h"
#include "util/Result.h"

namespace orvane {

inline constexpr const char* kCompressionErrorDomain = "Compression";

enum class CompressionHint {
  kGeneral,
  // Data with few repeated strings (base64 of compressed bytes): Huffman coding only, which
  // is several times faster and loses almost nothing on such data.
  kEntropyOnly,
  // Bulk data compressed while a caller waits (the raw-motion record of a request): the
  // fastest level, about a tenth larger than the general one and several times quicker.
  kFast,
  // Small dense binary (a log's groups of ids and values), which DEFLATE shrinks by a few per
  // cent for several microseconds each: stored blocks, a copy with a five-byte header.
  kStoreOnly,
};

Result<Bytes> deflateRaw(std::span<const uint8_t> input,
                         CompressionHint hint = CompressionHint::kGeneral);
// Fails on malformed or truncated input and when the output would exceed `maxOutput` bytes.
Result<Bytes> inflateRaw(std::span<const uint8_t> input, size_t maxOutput = size_t{64} << 20);

// The gzip member (RFC 1952) of `input`, for bodies sent with "Content-Encoding: gzip".
Result<Bytes> gzipCompress(std::span<const uint8_t> input);
// The content of one gzip member, with the same failures as inflateRaw.
Result<Bytes> gzipDecompress(std::span<const uint8_t> input, size_t maxOutput = size_t{64} << 20);

}  // namespace orvane
