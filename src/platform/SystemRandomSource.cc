// Uniform draws for sampling decisions and secure bytes for keys and ids. Secure bytes come
// straight from the kernel (getentropy), not from a crypto library: worker threads may still
// draw while a library's exit-time clean-up runs, and the kernel is never torn down.
#include <unistd.h>
#if defined(__APPLE__)
#include <sys/random.h>
#endif

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <limits>
#include <mutex>
#include <optional>
#include <random>

#include "orvane/platform/RandomSource.h"

namespace orvane {
namespace {

bool randBytes(std::span<uint8_t> out) {
  // getentropy fills at most 256 bytes a call.
  constexpr size_t kChunk = 256;
  for (size_t offset = 0; offset < out.size(); offset += kChunk) {
    const size_t n = std::min(kChunk, out.size() - offset);
    if (getentropy(out.data() + offset, n) != 0) return false;
  }
  return true;
}

std::mt19937_64 seededEngine() {
  std::array<uint8_t, 32> bytes{};
  std::array<std::seed_seq::result_type, 8> words{};
  if (!randBytes(bytes)) {
    // Uniform draws only steer sampling; a weaker seed beats refusing to work.
    std::random_device device;
    for (auto& w : words) w = device();
    words[0] ^= static_cast<std::seed_seq::result_type>(
        std::chrono::steady_clock::now().time_since_epoch().count());
  } else {
    std::memcpy(words.data(), bytes.data(), sizeof(words));
  }
  std::seed_seq seq(words.begin(), words.end());
  return std::mt19937_64(seq);
}

class SystemRandomSource : public RandomSource {
 public:
  // Both draws cover the closed interval: every multiple of 2^-bits from 0 to 1 inclusive is
  // equally likely, so a rate of exactly 1 can still fail one draw in 2^bits + 1.
  float uniformFloat() override {
    constexpr int64_t kSteps = int64_t{1} << 24;
    return static_cast<float>(uniformInt(0, kSteps)) / static_cast<float>(kSteps);
  }
  double uniformDouble() override {
    constexpr int64_t kSteps = int64_t{1} << 53;
    return static_cast<double>(uniformInt(0, kSteps)) / static_cast<double>(kSteps);
  }

  int64_t uniformInt(int64_t lower, int64_t upper) override {
    if (upper <= lower) return lower;
    // Unsigned arithmetic keeps the full int64 range well defined.
    const uint64_t span = static_cast<uint64_t>(upper) - static_cast<uint64_t>(lower);
    std::lock_guard<std::mutex> guard(mutex_);
    // Seeded at the first draw: seeding costs tens of microseconds, and making the platform
    // happens on the host's thread at start, long before the first sampling decision.
    if (!engine_) engine_ = seededEngine();
    std::mt19937_64& engine = *engine_;
    if (span == std::numeric_limits<uint64_t>::max()) return static_cast<int64_t>(engine());
    const uint64_t count = span + 1;
    // Draws below 2^64 mod count would favour the low results; reject them.
    const uint64_t threshold = (0 - count) % count;
    while (true) {
      const uint64_t r = engine();
      if (r >= threshold) return static_cast<int64_t>(static_cast<uint64_t>(lower) + r % count);
    }
  }

  bool secureBytes(std::span<uint8_t> out) override { return randBytes(out); }

 private:
  std::mutex mutex_;
  std::optional<std::mt19937_64> engine_;
};

}  // namespace

std::shared_ptr<RandomSource> makeSystemRandomSource() {
  return std::make_shared<SystemRandomSource>();
}

}  // namespace orvane
