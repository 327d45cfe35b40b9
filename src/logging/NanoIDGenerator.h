// File: NanoIDGenerator.h
// Short URL-safe identifiers (17 characters over a 64-letter alphabet) from the secure
// random source, with unbiased rejection sampling and two reported fallbacks when the
// source misbehaves. Never fails.
#pragma once

#include <cstdint>
#include <string>

#include "logging/ErrorReporter.h"
#include "orvane/platform/RandomSource.h"

namespace orvane {

class NanoIDGenerator {
 public:
  static constexpr const char* kAlphabet =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-";
  static constexpr size_t kLength = 17;
  static constexpr uint8_t kAcceptanceBound = 192;  // 3 x 64: keeps the low 6 bits uniform
  static constexpr int kMaxSecureDraws = 10;

  static std::string generateTavelNanoID(RandomSource& random, ErrorReporter& reporter);
  static uint8_t generateSecureUnbiasedByte(RandomSource& random, ErrorReporter& reporter);
  static uint8_t generateFallbackUnbiasedByte(int retryCount, RandomSource& random,
                                              ErrorReporter& reporter);
};

}  // namespace orvane
