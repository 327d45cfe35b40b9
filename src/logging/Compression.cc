#include "logging/Compression.h"

#include <zlib.h>

#include <algorithm>
#include <cstddef>
#include <string>

namespace orvane {
namespace {

PlatformError zlibError(int code, const char* what) {
  return PlatformError{kCompressionErrorDomain, code, std::string(what)};
}

// One compressor per thread, reset between uses: setting one up allocates and clears
// about 256 KB, which would dominate the encoding of a small log.
// Level 5 is what mobile platforms' zlib compression uses, so encoded logs are alike in size
// everywhere.
constexpr int kGeneralLevel = 5;
constexpr int kFastLevel = 1;

// windowBits -15 writes raw DEFLATE without the zlib wrapper, 31 one gzip member.
class Deflater {
 public:
  Deflater(int level, int memLevel, int strategy, int windowBits = -15) {
    ready_ = deflateInit2(&stream_, level, Z_DEFLATED, windowBits, memLevel, strategy) == Z_OK;
  }
  ~Deflater() {
    if (ready_) deflateEnd(&stream_);
  }
  Deflater(const Deflater&) = delete;
  Deflater& operator=(const Deflater&) = delete;

  Result<Bytes> compress(std::span<const uint8_t> input) {
    if (!ready_) return zlibError(Z_MEM_ERROR, "Failed to start compression");
    deflateReset(&stream_);
    Bytes out(deflateBound(&stream_, static_cast<uLong>(input.size())));
    stream_.next_in = const_cast<Bytef*>(input.data());
    stream_.avail_in = static_cast<uInt>(input.size());
    stream_.next_out = out.data();
    stream_.avail_out = static_cast<uInt>(out.size());
    const int rc = deflate(&stream_, Z_FINISH);
    if (rc != Z_STREAM_END) return zlibError(rc, "Failed to compress data");
    out.resize(stream_.total_out);
    return out;
  }

 private:
  z_stream stream_{};
  bool ready_ = false;
};

// Stored blocks (BTYPE 00), at most 65535 bytes each; an empty input is one empty final block.
Bytes storedBlocks(std::span<const uint8_t> input) {
  constexpr size_t kLargestBlock = 65535;
  Bytes out;
  out.reserve(input.size() + 5 * (input.size() / kLargestBlock + 1));
  size_t offset = 0;
  do {
    const size_t length = std::min(kLargestBlock, input.size() - offset);
    const bool last = offset + length == input.size();
    out.push_back(last ? 0x01 : 0x00);  // BFINAL, BTYPE 00, padded to the byte boundary
    out.push_back(static_cast<uint8_t>(length));
    out.push_back(static_cast<uint8_t>(length >> 8));
    out.push_back(static_cast<uint8_t>(~length));
    out.push_back(static_cast<uint8_t>(~length >> 8));
    out.insert(out.end(), input.begin() + static_cast<std::ptrdiff_t>(offset),
               input.begin() + static_cast<std::ptrdiff_t>(offset + length));
    offset += length;
  } while (offset < input.size());
  return out;
}

}  // namespace

Result<Bytes> deflateRaw(std::span<const uint8_t> input, CompressionHint hint) {
  if (hint == CompressionHint::kStoreOnly) return storedBlocks(input);
  // A reset clears the hash table, whose size follows memLevel, and a block holds up to
  // 2^(memLevel + 6) symbols: small inputs get a small table, and the Huffman-only envelope
  // of an ordinary log (under 4 KB) fits one block. Text that is mostly base64 of binary has
  // nothing for string matching to find, so it is only Huffman-coded.
  if (hint == CompressionHint::kEntropyOnly) {
    thread_local Deflater huffman(kGeneralLevel, 6, Z_HUFFMAN_ONLY);
    return huffman.compress(input);
  }
  if (hint == CompressionHint::kFast) {
    thread_local Deflater fast(kFastLevel, 8, Z_DEFAULT_STRATEGY);
    return fast.compress(input);
  }
  if (input.size() <= 4096) {
    thread_local Deflater small(kGeneralLevel, 4, Z_DEFAULT_STRATEGY);
    return small.compress(input);
  }
  thread_local Deflater large(kGeneralLevel, 8, Z_DEFAULT_STRATEGY);
  return large.compress(input);
}

namespace {

// windowBits -15 reads raw DEFLATE, 31 one gzip member.
Result<Bytes> inflateWith(int windowBits, std::span<const uint8_t> input, size_t maxOutput) {
  z_stream stream{};
  int rc = inflateInit2(&stream, windowBits);
  if (rc != Z_OK) return zlibError(rc, "Failed to start decompression");
  Bytes out;
  uint8_t chunk[16384];
  stream.next_in = const_cast<Bytef*>(input.data());
  stream.avail_in = static_cast<uInt>(input.size());
  do {
    stream.next_out = chunk;
    stream.avail_out = sizeof chunk;
    rc = inflate(&stream, Z_NO_FLUSH);
    if (rc != Z_OK && rc != Z_STREAM_END) {
      inflateEnd(&stream);
      return zlibError(rc, "Compressed data is malformed");
    }
    out.insert(out.end(), chunk, chunk + (sizeof chunk - stream.avail_out));
    if (out.size() > maxOutput) {
      inflateEnd(&stream);
      return zlibError(Z_BUF_ERROR, "Decompressed data is too large");
    }
    if (rc != Z_STREAM_END && stream.avail_in == 0 && stream.avail_out != 0) {
      inflateEnd(&stream);
      return zlibError(Z_BUF_ERROR, "Compressed data is truncated");
    }
  } while (rc != Z_STREAM_END);
  inflateEnd(&stream);
  return out;
}

}  // namespace

Result<Bytes> inflateRaw(std::span<const uint8_t> input, size_t maxOutput) {
  return inflateWith(-15, input, maxOutput);
}

Result<Bytes> gzipDecompress(std::span<const uint8_t> input, size_t maxOutput) {
  return inflateWith(31, input, maxOutput);
}

Result<Bytes> gzipCompress(std::span<const uint8_t> input) {
  // An upload body is compressed once, off the caller's thread: a stream of its own at the
  // default level, rather than a thread's kept compressor.
  Deflater gzip(Z_DEFAULT_COMPRESSION, 8, Z_DEFAULT_STRATEGY, 31);
  return gzip.compress(input);
}

}  // namespace orvane
