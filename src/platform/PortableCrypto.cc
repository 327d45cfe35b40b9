// SHA-1, SHA-256 and AES-CBC written from their published definitions, for platforms without
// a crypto library. The cipher protects records whose key ships inside the app, so it aims at
// correctness and clarity rather than resistance to timing attacks; it still avoids branching
// on data where that costs nothing.
#include <algorithm>
#include <bit>
#include <cstddef>
#include <utility>

#include "orvane/platform/Crypto.h"

namespace orvane {
namespace {

uint32_t loadBigEndian(const uint8_t* p) {
  return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | uint32_t{p[3]};
}

void storeBigEndian(uint8_t* p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v >> 24);
  p[1] = static_cast<uint8_t>(v >> 16);
  p[2] = static_cast<uint8_t>(v >> 8);
  p[3] = static_cast<uint8_t>(v);
}

template <size_t N>
std::array<uint8_t, 4 * N> toBytes(const std::array<uint32_t, N>& words) {
  std::array<uint8_t, 4 * N> out{};
  for (size_t i = 0; i < N; ++i) storeBigEndian(out.data() + 4 * i, words[i]);
  return out;
}

// ---- Digests ----

// Both digests pad the same way: the message, a 1 bit, zeros, and the message length in bits as
// a 64-bit big-endian number closing the last 64-byte block. Whole blocks are compressed where
// they lie; only the tail is copied.
template <typename Compress>
void compressPadded(std::span<const uint8_t> data, Compress compress) {
  const size_t whole = data.size() / 64 * 64;
  for (size_t i = 0; i < whole; i += 64) compress(data.data() + i);
  std::array<uint8_t, 128> tail{};
  const size_t rest = data.size() - whole;
  std::copy(data.begin() + static_cast<ptrdiff_t>(whole), data.end(), tail.begin());
  tail[rest] = 0x80;
  // The length needs 8 bytes after the 1 bit; from 56 bytes of tail on, it spills into a second
  // block.
  const size_t tailSize = rest < 56 ? 64 : 128;
  const uint64_t bits = uint64_t{data.size()} * 8;
  for (size_t i = 0; i < 8; ++i) tail[tailSize - 1 - i] = static_cast<uint8_t>(bits >> (8 * i));
  for (size_t i = 0; i < tailSize; i += 64) compress(tail.data() + i);
}

std::array<uint8_t, 20> sha1Digest(std::span<const uint8_t> data) {
  std::array<uint32_t, 5> h{0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476, 0xc3d2e1f0};
  compressPadded(data, [&h](const uint8_t* block) {
    std::array<uint32_t, 80> w;
    for (int t = 0; t < 16; ++t) w[t] = loadBigEndian(block + 4 * t);
    uint32_t a = h[0], b = h[1], c = h[2], d = h[3], e = h[4];
    auto round = [&](int t, uint32_t f, uint32_t k) {
      // The schedule is extended as the rounds reach it: as a loop of its own, compilers
      // vectorise it into something three times slower.
      if (t >= 16) w[t] = std::rotl(w[t - 3] ^ w[t - 8] ^ w[t - 14] ^ w[t - 16], 1);
      const uint32_t temp = std::rotl(a, 5) + f + e + k + w[t];
      e = d, d = c, c = std::rotl(b, 30), b = a, a = temp;
    };
    // Four stages of 20 rounds, each with its own function and constant.
    for (int t = 0; t < 20; ++t) round(t, (b & c) | (~b & d), 0x5a827999);
    for (int t = 20; t < 40; ++t) round(t, b ^ c ^ d, 0x6ed9eba1);
    for (int t = 40; t < 60; ++t) round(t, (b & c) | (b & d) | (c & d), 0x8f1bbcdc);
    for (int t = 60; t < 80; ++t) round(t, b ^ c ^ d, 0xca62c1d6);
    h[0] += a, h[1] += b, h[2] += c, h[3] += d, h[4] += e;
  });
  return toBytes(h);
}

// The first 32 bits of the fractional parts of the cube roots of the first 64 primes.
constexpr std::array<uint32_t, 64> kSha256RoundConstants{
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2,
};

std::array<uint8_t, 32> sha256Digest(std::span<const uint8_t> data) {
  // The first 32 bits of the fractional parts of the square roots of the first 8 primes.
  std::array<uint32_t, 8> h{0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                            0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};
  compressPadded(data, [&h](const uint8_t* block) {
    std::array<uint32_t, 64> w;
    for (int t = 0; t < 16; ++t) w[t] = loadBigEndian(block + 4 * t);
    for (int t = 16; t < 64; ++t) {
      const uint32_t s0 = std::rotr(w[t - 15], 7) ^ std::rotr(w[t - 15], 18) ^ (w[t - 15] >> 3);
      const uint32_t s1 = std::rotr(w[t - 2], 17) ^ std::rotr(w[t - 2], 19) ^ (w[t - 2] >> 10);
      w[t] = w[t - 16] + s0 + w[t - 7] + s1;
    }
    auto [a, b, c, d, e, f, g, hh] = h;
    for (int t = 0; t < 64; ++t) {
      const uint32_t sum1 = std::rotr(e, 6) ^ std::rotr(e, 11) ^ std::rotr(e, 25);
      const uint32_t choose = (e & f) ^ (~e & g);
      const uint32_t t1 = hh + sum1 + choose + kSha256RoundConstants[t] + w[t];
      const uint32_t sum0 = std::rotr(a, 2) ^ std::rotr(a, 13) ^ std::rotr(a, 22);
      const uint32_t majority = (a & b) ^ (a & c) ^ (b & c);
      hh = g, g = f, f = e, e = d + t1, d = c, c = b, b = a, a = t1 + sum0 + majority;
    }
    const std::array<uint32_t, 8> add{a, b, c, d, e, f, g, hh};
    for (size_t i = 0; i < 8; ++i) h[i] += add[i];
  });
  return toBytes(h);
}

// ---- AES ----

// Multiplication by x in GF(2^8) modulo x^8 + x^4 + x^3 + x + 1, without a branch on the top bit.
constexpr uint8_t xtime(uint8_t a) { return static_cast<uint8_t>((a << 1) ^ (0x1b & -(a >> 7))); }

constexpr uint8_t multiply(uint8_t a, uint8_t b) {
  uint8_t product = 0;
  for (; b != 0; b >>= 1, a = xtime(a)) product ^= static_cast<uint8_t>(a & -(b & 1));
  return product;
}

constexpr uint32_t packColumn(uint8_t r0, uint8_t r1, uint8_t r2, uint8_t r3) {
  return uint32_t{r0} << 24 | uint32_t{r1} << 16 | uint32_t{r2} << 8 | uint32_t{r3};
}

// The S-boxes are derived as FIPS 197 defines them (multiplicative inverse, then an affine
// map) rather than typed in; the round tables fold SubBytes and MixColumns into one lookup per
// byte: entry x is the column that input byte x of row 0 contributes, and the other rows' are
// the same column rotated.
struct AesTables {
  std::array<uint8_t, 256> sbox{};
  std::array<uint8_t, 256> inverseSbox{};
  std::array<uint32_t, 256> encrypt{};  // (2, 1, 1, 3) * S(x)
  std::array<uint32_t, 256> decrypt{};  // (14, 9, 13, 11) * S^-1(x)
};

constexpr AesTables makeAesTables() {
  // Powers of the generator 3 give logarithms, and from them inverses.
  std::array<uint8_t, 256> power{}, log{};
  uint8_t p = 1;
  for (int i = 0; i < 255; ++i, p = static_cast<uint8_t>(p ^ xtime(p))) {
    power[i] = p;
    log[p] = static_cast<uint8_t>(i);
  }
  AesTables t;
  for (int x = 0; x < 256; ++x) {
    const uint8_t inverse = x == 0 ? 0 : power[(255 - log[x]) % 255];
    const auto s = static_cast<uint8_t>(inverse ^ std::rotl(inverse, 1) ^ std::rotl(inverse, 2) ^
                                        std::rotl(inverse, 3) ^ std::rotl(inverse, 4) ^ 0x63);
    t.sbox[x] = s;
    t.inverseSbox[s] = static_cast<uint8_t>(x);
  }
  for (int x = 0; x < 256; ++x) {
    const uint8_t s = t.sbox[x], i = t.inverseSbox[x];
    t.encrypt[x] = packColumn(xtime(s), s, s, static_cast<uint8_t>(xtime(s) ^ s));
    t.decrypt[x] = packColumn(multiply(i, 14), multiply(i, 9), multiply(i, 13), multiply(i, 11));
  }
  return t;
}

constexpr AesTables kAes = makeAesTables();
static_assert(kAes.sbox[0x00] == 0x63 && kAes.sbox[0x53] == 0xed && kAes.sbox[0xff] == 0x16);
static_assert(kAes.inverseSbox[0x63] == 0x00 && kAes.inverseSbox[0xed] == 0x53);

constexpr size_t kBlockSize = 16;
using Block = std::array<uint32_t, 4>;  // four columns, row 0 in the high byte

// Round keys as words, four per round; AES-256 has 14 rounds and 15 round keys.
struct KeySchedule {
  int rounds = 0;
  std::array<uint32_t, 60> words{};
};

uint32_t subWord(uint32_t w) {
  const auto& s = kAes.sbox;
  return packColumn(s[w >> 24], s[(w >> 16) & 0xff], s[(w >> 8) & 0xff], s[w & 0xff]);
}

KeySchedule expandKey(std::span<const uint8_t> key) {
  const size_t nk = key.size() / 4;  // 4 or 8 words
  KeySchedule ks;
  ks.rounds = static_cast<int>(nk) + 6;
  for (size_t i = 0; i < nk; ++i) ks.words[i] = loadBigEndian(key.data() + 4 * i);
  uint8_t rcon = 1;
  for (size_t i = nk; i < 4 * (static_cast<size_t>(ks.rounds) + 1); ++i) {
    uint32_t temp = ks.words[i - 1];
    if (i % nk == 0) {
      temp = subWord(std::rotl(temp, 8)) ^ (uint32_t{rcon} << 24);
      rcon = xtime(rcon);
    } else if (nk > 6 && i % nk == 4) {
      temp = subWord(temp);
    }
    ks.words[i] = ks.words[i - nk] ^ temp;
  }
  return ks;
}

// The decryption table applies InvMixColumns to S^-1(x); fed S(x), it applies InvMixColumns
// alone, one byte's share at a time.
uint32_t inverseMixColumn(uint32_t column) {
  const auto& t = kAes.decrypt;
  const auto& s = kAes.sbox;
  return t[s[column >> 24]] ^ std::rotr(t[s[(column >> 16) & 0xff]], 8) ^
         std::rotr(t[s[(column >> 8) & 0xff]], 16) ^ std::rotr(t[s[column & 0xff]], 24);
}

// Decryption runs the rounds in the same shape as encryption (FIPS 197's equivalent inverse
// cipher): round keys in reverse order, with InverseMixColumns applied to the inner ones.
KeySchedule inverseSchedule(const KeySchedule& forward) {
  KeySchedule inverse;
  inverse.rounds = forward.rounds;
  for (int r = 0; r <= forward.rounds; ++r) {
    for (int c = 0; c < 4; ++c) {
      const uint32_t w = forward.words[4 * (forward.rounds - r) + c];
      inverse.words[4 * r + c] = r == 0 || r == forward.rounds ? w : inverseMixColumn(w);
    }
  }
  return inverse;
}

// The byte of row kRow that lands in column kColumn after ShiftRows, which takes it from
// column kColumn + kRow, or after InvShiftRows, which takes it from column kColumn - kRow.
template <bool kDecrypt, size_t kColumn, size_t kRow>
uint8_t shiftedByte(const Block& s) {
  constexpr size_t source = (kDecrypt ? kColumn + 4 - kRow : kColumn + kRow) & 3;
  return static_cast<uint8_t>(s[source] >> (24 - 8 * kRow));
}

// One inner round: (Inv)ShiftRows, then (Inv)SubBytes and (Inv)MixColumns through the round
// table, then the round key. The columns are spelled out at compile time so the state stays in
// registers.
template <bool kDecrypt, size_t... kColumns>
Block innerRound(const Block& s, const uint32_t* key, std::index_sequence<kColumns...>) {
  const auto& table = kDecrypt ? kAes.decrypt : kAes.encrypt;
  return {(table[shiftedByte<kDecrypt, kColumns, 0>(s)] ^
           std::rotr(table[shiftedByte<kDecrypt, kColumns, 1>(s)], 8) ^
           std::rotr(table[shiftedByte<kDecrypt, kColumns, 2>(s)], 16) ^
           std::rotr(table[shiftedByte<kDecrypt, kColumns, 3>(s)], 24) ^ key[kColumns])...};
}

// The last round has no (Inv)MixColumns.
template <bool kDecrypt, size_t... kColumns>
Block finalRound(const Block& s, const uint32_t* key, std::index_sequence<kColumns...>) {
  const auto& sbox = kDecrypt ? kAes.inverseSbox : kAes.sbox;
  return {(packColumn(sbox[shiftedByte<kDecrypt, kColumns, 0>(s)],
                      sbox[shiftedByte<kDecrypt, kColumns, 1>(s)],
                      sbox[shiftedByte<kDecrypt, kColumns, 2>(s)],
                      sbox[shiftedByte<kDecrypt, kColumns, 3>(s)]) ^
           key[kColumns])...};
}

template <bool kDecrypt>
Block cipherBlock(Block s, const KeySchedule& ks) {
  constexpr auto columns = std::make_index_sequence<4>();
  const uint32_t* key = ks.words.data();
  for (size_t c = 0; c < 4; ++c) s[c] ^= key[c];
  for (int round = 1; round < ks.rounds; ++round) {
    key += 4;
    s = innerRound<kDecrypt>(s, key, columns);
  }
  return finalRound<kDecrypt>(s, key + 4, columns);
}

Block loadBlock(const uint8_t* p) {
  return {loadBigEndian(p), loadBigEndian(p + 4), loadBigEndian(p + 8), loadBigEndian(p + 12)};
}

void storeBlock(uint8_t* p, const Block& b) {
  for (size_t c = 0; c < 4; ++c) storeBigEndian(p + 4 * c, b[c]);
}

Block exclusiveOr(const Block& a, const Block& b) {
  return {a[0] ^ b[0], a[1] ^ b[1], a[2] ^ b[2], a[3] ^ b[3]};
}

bool validSizes(std::span<const uint8_t> key, std::span<const uint8_t> iv) {
  return (key.size() == 16 || key.size() == 32) && iv.size() == kBlockSize;
}

std::optional<std::vector<uint8_t>> encryptCbc(std::span<const uint8_t> key,
                                               std::span<const uint8_t> iv,
                                               std::span<const uint8_t> data) {
  if (!validSizes(key, iv)) return std::nullopt;
  // PKCS#7: 1 to 16 bytes each holding the count, so even an aligned input gains a block.
  const size_t padding = kBlockSize - data.size() % kBlockSize;
  std::vector<uint8_t> out(data.begin(), data.end());
  out.resize(data.size() + padding, static_cast<uint8_t>(padding));
  const KeySchedule ks = expandKey(key);
  Block chain = loadBlock(iv.data());
  for (size_t i = 0; i < out.size(); i += kBlockSize) {
    chain = cipherBlock<false>(exclusiveOr(loadBlock(out.data() + i), chain), ks);
    storeBlock(out.data() + i, chain);
  }
  return out;
}

std::optional<std::vector<uint8_t>> decryptCbc(std::span<const uint8_t> key,
                                               std::span<const uint8_t> iv,
                                               std::span<const uint8_t> data) {
  if (!validSizes(key, iv)) return std::nullopt;
  // At least the padding block, and whole blocks only.
  if (data.empty() || data.size() % kBlockSize != 0) return std::nullopt;
  const KeySchedule ks = inverseSchedule(expandKey(key));
  std::vector<uint8_t> out(data.size());
  Block chain = loadBlock(iv.data());
  for (size_t i = 0; i < data.size(); i += kBlockSize) {
    const Block cipher = loadBlock(data.data() + i);
    storeBlock(out.data() + i, exclusiveOr(cipherBlock<true>(cipher, ks), chain));
    chain = cipher;
  }
  // The last byte gives the padding length, 1 to 16, and every padding byte must repeat it.
  // All 16 bytes are looked at whatever that length is.
  const uint8_t padding = out.back();
  const uint8_t* last = out.data() + out.size() - kBlockSize;
  uint8_t mismatch = 0;
  for (size_t i = 0; i < kBlockSize; ++i) {
    const auto inPadding = static_cast<uint8_t>(-static_cast<int>(kBlockSize - i <= padding));
    mismatch |= static_cast<uint8_t>((last[i] ^ padding) & inPadding);
  }
  if (padding == 0 || padding > kBlockSize || mismatch != 0) return std::nullopt;
  out.resize(out.size() - padding);
  return out;
}

class PortableCrypto : public Crypto {
 public:
  std::array<uint8_t, 20> sha1(std::span<const uint8_t> data) const override {
    return sha1Digest(data);
  }
  std::array<uint8_t, 32> sha256(std::span<const uint8_t> data) const override {
    return sha256Digest(data);
  }
  std::optional<std::vector<uint8_t>> aesCbcEncrypt(std::span<const uint8_t> key,
                                                    std::span<const uint8_t> iv,
                                                    std::span<const uint8_t> data) const override {
    return encryptCbc(key, iv, data);
  }
  std::optional<std::vector<uint8_t>> aesCbcDecrypt(std::span<const uint8_t> key,
                                                    std::span<const uint8_t> iv,
                                                    std::span<const uint8_t> data) const override {
    return decryptCbc(key, iv, data);
  }
};

}  // namespace

std::shared_ptr<Crypto> makePortableCrypto() { return std::make_shared<PortableCrypto>(); }

}  // namespace orvane
