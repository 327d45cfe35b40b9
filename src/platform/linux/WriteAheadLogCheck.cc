// The log format: a 32-byte header (magic, version, page size, checkpoint sequence, two salts,
// a checksum of the first 24 bytes) and frames of a 24-byte header (page number, database size
// after a commit or 0, the two salts, a running checksum) followed by one page. Integers are
// big-endian; the checksum adds 32-bit words in the byte order the magic's low bit names.
#include "platform/linux/WriteAheadLogCheck.h"

#include <fstream>
#include <vector>

namespace orvane {
namespace {

constexpr uint32_t kMagicLittleEndianSums = 0x377f0682;
constexpr uint32_t kMagicBigEndianSums = 0x377f0683;
constexpr uint32_t kFormatVersion = 3007000;
constexpr size_t kHeaderSize = 32;
constexpr size_t kFrameHeaderSize = 24;
constexpr size_t kSmallestPage = 512;
// A log longer than this is not checked: SQLite checkpoints at about 4 MB, so only a log that
// grew without checkpoints for a long time gets here, and reading it at every open would cost
// more than the check is worth.
constexpr uintmax_t kLargestCheckedLog = uintmax_t{256} << 20;

uint32_t bigEndian32(const uint8_t* p) {
  return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | uint32_t{p[3]};
}

struct Checksum {
  uint32_t first = 0;
  uint32_t second = 0;
  bool operator==(const Checksum&) const = default;
};

Checksum storedChecksum(const uint8_t* at) { return {bigEndian32(at), bigEndian32(at + 4)}; }

// `size` is a multiple of 8, as every summed range of the format is.
Checksum addChecksum(Checksum sum, bool bigEndianWords, const uint8_t* data, size_t size) {
  auto word = [&](const uint8_t* p) {
    return bigEndianWords
               ? bigEndian32(p)
               : uint32_t{p[3]} << 24 | uint32_t{p[2]} << 16 | uint32_t{p[1]} << 8 | uint32_t{p[0]};
  };
  for (size_t i = 0; i + 8 <= size; i += 8) {
    sum.first += word(data + i) + sum.second;
    sum.second += word(data + i + 4) + sum.first;
  }
  return sum;
}

}  // namespace

bool isWriteAheadLogDamaged(std::span<const uint8_t> log) {
  if (log.size() < kHeaderSize) return false;  // nothing was ever committed to it
  const uint8_t* header = log.data();
  const uint32_t magic = bigEndian32(header);
  const bool bigEndianWords = magic == kMagicBigEndianSums;
  uint32_t pageSize = bigEndian32(header + 8);
  if (pageSize == 1) pageSize = 65536;
  const bool headerSound =
      (magic == kMagicLittleEndianSums || magic == kMagicBigEndianSums) &&
      bigEndian32(header + 4) == kFormatVersion && pageSize >= kSmallestPage && pageSize <= 65536 &&
      (pageSize & (pageSize - 1)) == 0 &&
      addChecksum({}, bigEndianWords, header, 24) == storedChecksum(header + 24);
  if (!headerSound) {
    // SQLite ignores a log it cannot read the header of, frames and all.
    return log.size() >= kHeaderSize + kFrameHeaderSize + kSmallestPage;
  }

  const uint32_t salt1 = bigEndian32(header + 16);
  const uint32_t salt2 = bigEndian32(header + 20);
  const size_t frameSize = kFrameHeaderSize + pageSize;
  const size_t frames = (log.size() - kHeaderSize) / frameSize;
  Checksum previous = storedChecksum(header + 24);
  bool pastBadFrame = false;
  for (size_t i = 0; i < frames; ++i) {
    const uint8_t* frame = log.data() + kHeaderSize + i * frameSize;
    const Checksum stored = storedChecksum(frame + 16);
    // Frames of an older generation carry other salts: they are the log's unused tail.
    const bool current = bigEndian32(frame) != 0 && bigEndian32(frame + 8) == salt1 &&
                         bigEndian32(frame + 12) == salt2;
    Checksum sum = addChecksum(previous, bigEndianWords, frame, 8);
    sum = addChecksum(sum, bigEndianWords, frame + kFrameHeaderSize, pageSize);
    const bool sound = current && sum == stored;
    if (!pastBadFrame) {
      pastBadFrame = !sound;
    } else if (sound && bigEndian32(frame + 4) != 0) {
      return true;  // a commit SQLite will never replay
    }
    // Past a bad frame each frame is checked against its predecessor's stored sum.
    previous = stored;
  }
  return false;
}

bool isWriteAheadLogDamaged(const std::filesystem::path& walFile) {
  std::error_code error;
  const uintmax_t size = std::filesystem::file_size(walFile, error);
  if (error || size == 0 || size > kLargestCheckedLog) return false;
  std::ifstream in(walFile, std::ios::binary);
  std::vector<uint8_t> log(static_cast<size_t>(size));
  if (!in.read(reinterpret_cast<char*>(log.data()), static_cast<std::streamsize>(log.size()))) {
    return false;
  }
  return isWriteAheadLogDamaged(log);
}

}  // namespace orvane
