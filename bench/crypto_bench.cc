// The crypto seam's implementations on one upload record's worth of data (5 KB): the cipher
// with the 16-byte key logs use, and the digests.
#include <benchmark/benchmark.h>

#include "orvane/platform/Crypto.h"
#include "orvane/platform/linux/LinuxPlatform.h"

namespace {

using namespace orvane;
using Factory = std::shared_ptr<Crypto> (*)();

constexpr size_t kRecordSize = 5 * 1024;

std::vector<uint8_t> pattern(size_t size, uint8_t seed) {
  std::vector<uint8_t> out(size);
  for (size_t i = 0; i < size; ++i) out[i] = static_cast<uint8_t>(seed + i * 31);
  return out;
}

void setBytes(benchmark::State& state) {
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kRecordSize));
}

void BM_AesCbcEncrypt(benchmark::State& state, Factory make) {
  const auto crypto = make();
  const auto key = pattern(16, 1), iv = pattern(16, 2), record = pattern(kRecordSize, 3);
  for (auto _ : state) benchmark::DoNotOptimize(crypto->aesCbcEncrypt(key, iv, record));
  setBytes(state);
}

void BM_AesCbcDecrypt(benchmark::State& state, Factory make) {
  const auto crypto = make();
  const auto key = pattern(16, 1), iv = pattern(16, 2);
  const auto encrypted = *crypto->aesCbcEncrypt(key, iv, pattern(kRecordSize, 3));
  for (auto _ : state) benchmark::DoNotOptimize(crypto->aesCbcDecrypt(key, iv, encrypted));
  setBytes(state);
}

void BM_Sha1(benchmark::State& state, Factory make) {
  const auto crypto = make();
  const auto record = pattern(kRecordSize, 3);
  for (auto _ : state) benchmark::DoNotOptimize(crypto->sha1(record));
  setBytes(state);
}

void BM_Sha256(benchmark::State& state, Factory make) {
  const auto crypto = make();
  const auto record = pattern(kRecordSize, 3);
  for (auto _ : state) benchmark::DoNotOptimize(crypto->sha256(record));
  setBytes(state);
}

BENCHMARK_CAPTURE(BM_AesCbcEncrypt, openssl, makeOpenSslCrypto)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_AesCbcEncrypt, portable, makePortableCrypto)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_AesCbcDecrypt, openssl, makeOpenSslCrypto)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_AesCbcDecrypt, portable, makePortableCrypto)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_Sha1, openssl, makeOpenSslCrypto)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_Sha1, portable, makePortableCrypto)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_Sha256, openssl, makeOpenSslCrypto)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_Sha256, portable, makePortableCrypto)->Unit(benchmark::kMicrosecond);

}  // namespace
