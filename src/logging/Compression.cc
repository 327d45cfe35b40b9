#include "logging/Compression.h"

#include <zlib.h>

#include <string>

namespace orvane {
namespace {

PlatformError zlibError(int code, const char* what) {
  return PlatformError{kCompressionErrorDomain, code, std::string(what)};
}

}  // namespace

Result<Bytes> deflateRaw(std::span<const uint8_t> input) {
  z_stream stream{};
  // windowBits -15: raw DEFLATE without the zlib wrapper.
  int rc = deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY);
  if (rc != Z_OK) return zlibError(rc, "Failed to start compression");
  Bytes out(deflateBound(&stream, static_cast<uLong>(input.size())));
  stream.next_in = const_cast<Bytef*>(input.data());
  stream.avail_in = static_cast<uInt>(input.size());
  stream.next_out = out.data();
  stream.avail_out = static_cast<uInt>(out.size());
  rc = deflate(&stream, Z_FINISH);
  const size_t written = stream.total_out;
  deflateEnd(&stream);
  if (rc != Z_STREAM_END) return zlibError(rc, "Failed to compress data");
  out.resize(written);
  return out;
}

Result<Bytes> inflateRaw(std::span<const uint8_t> input, size_t maxOutput) {
  z_stream stream{};
  int rc = inflateInit2(&stream, -15);
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

}  // namespace orvane
