#include "util/UUID.h"

#include <array>

namespace orvane {

std::string makeUUIDString(RandomSource& random) {
  std::array<uint8_t, 16> bytes{};
  if (!random.secureBytes(bytes)) {
    for (auto& b : bytes) b = static_cast<uint8_t>(random.uniformInt(0, 255));
  }
  bytes[6] = static_cast<uint8_t>((bytes[6] & 0x0F) | 0x40);  // version 4
  bytes[8] = static_cast<uint8_t>((bytes[8] & 0x3F) | 0x80);  // RFC 4122 variant
  return uuidString(bytes);
}

std::string uuidString(const std::array<uint8_t, 16>& bytes) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(36);
  for (size_t i = 0; i < bytes.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) out.push_back('-');
    out.push_back(kHex[bytes[i] >> 4]);
    out.push_back(kHex[bytes[i] & 0x0F]);
  }
  return out;
}

}  // namespace orvane
