#include "util/Base64.h"

#include <array>

namespace orvane {
namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::array<int16_t, 256> makeReverse() {
  std::array<int16_t, 256> table{};
  for (auto& v : table) v = -1;
  for (int i = 0; i < 64; ++i) table[static_cast<uint8_t>(kAlphabet[i])] = static_cast<int16_t>(i);
  return table;
}
constexpr auto kReverse = makeReverse();

}  // namespace

std::string base64Encode(const uint8_t* data, size_t size) {
  std::string out;
  out.reserve((size + 2) / 3 * 4);
  size_t i = 0;
  for (; i + 3 <= size; i += 3) {
    const uint32_t n = (uint32_t{data[i]} << 16) | (uint32_t{data[i + 1]} << 8) | data[i + 2];
    out.push_back(kAlphabet[(n >> 18) & 63]);
    out.push_back(kAlphabet[(n >> 12) & 63]);
    out.push_back(kAlphabet[(n >> 6) & 63]);
    out.push_back(kAlphabet[n & 63]);
  }
  if (const size_t rest = size - i; rest > 0) {
    uint32_t n = uint32_t{data[i]} << 16;
    if (rest == 2) n |= uint32_t{data[i + 1]} << 8;
    out.push_back(kAlphabet[(n >> 18) & 63]);
    out.push_back(kAlphabet[(n >> 12) & 63]);
    out.push_back(rest == 2 ? kAlphabet[(n >> 6) & 63] : '=');
    out.push_back('=');
  }
  return out;
}

std::optional<Bytes> base64Decode(std::string_view text) {
  if (text.size() % 4 != 0) return std::nullopt;
  Bytes out;
  out.reserve(text.size() / 4 * 3);
  for (size_t i = 0; i < text.size(); i += 4) {
    int v[4];
    int padding = 0;
    for (int j = 0; j < 4; ++j) {
      const char c = text[i + j];
      if (c == '=') {
        // Padding only at the end, in the last two places, and nothing after it.
        if (i + 4 != text.size() || j < 2) return std::nullopt;
        ++padding;
        v[j] = 0;
        continue;
      }
      if (padding > 0) return std::nullopt;
      v[j] = kReverse[static_cast<uint8_t>(c)];
      if (v[j] < 0) return std::nullopt;
    }
    // Bits below the last full byte must be zero: one text per byte string.
    if ((padding == 1 && (v[2] & 0x3) != 0) || (padding == 2 && (v[1] & 0xF) != 0)) {
      return std::nullopt;
    }
    const uint32_t n =
        (uint32_t(v[0]) << 18) | (uint32_t(v[1]) << 12) | (uint32_t(v[2]) << 6) | uint32_t(v[3]);
    out.push_back(static_cast<uint8_t>(n >> 16));
    if (padding < 2) out.push_back(static_cast<uint8_t>(n >> 8));
    if (padding < 1) out.push_back(static_cast<uint8_t>(n));
  }
  return out;
}

}  // namespace orvane
