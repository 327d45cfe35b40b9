#include "logging/NanoIDGenerator.h"

namespace orvane {
namespace {

// The secure source reports only success or failure; failures are reported with the status
// a mobile platform gives for an unavailable generator.
constexpr const char* kSecureSourceFailureStatus = "-1";

}  // namespace

std::string NanoIDGenerator::generateTavelNanoID(RandomSource& random, ErrorReporter& reporter) {
  std::string id;
  id.reserve(kLength);
  for (size_t i = 0; i < kLength; ++i) {
    id.push_back(kAlphabet[generateSecureUnbiasedByte(random, reporter) % 64]);
  }
  return id;
}

uint8_t NanoIDGenerator::generateSecureUnbiasedByte(RandomSource& random, ErrorReporter& reporter) {
  for (int attempt = 0; attempt < kMaxSecureDraws; ++attempt) {
    uint8_t byte = 0;
    if (!random.secureBytes(std::span(&byte, 1))) {
      reporter.reportError("SecRandomCopyBytes failed during nano ID generation",
                           PlistDictionary{{"errorCode", kSecureSourceFailureStatus}});
      return generateFallbackUnbiasedByte(attempt, random, reporter);
    }
    if (byte < kAcceptanceBound) return byte;
  }
  return generateFallbackUnbiasedByte(kMaxSecureDraws, random, reporter);
}

uint8_t NanoIDGenerator::generateFallbackUnbiasedByte(int retryCount, RandomSource& random,
                                                      ErrorReporter& reporter) {
  uint8_t byte = 0;
  if (random.secureBytes(std::span(&byte, 1))) {
    // Folding 192..255 onto 0..63 keeps the low 6 bits, which is all the alphabet uses.
    const uint8_t result = byte < kAcceptanceBound ? byte : static_cast<uint8_t>(byte + 64);
    reporter.reportError("NanoID rejection sampling exceeded max retries, used crypto fallback",
                         PlistDictionary{{"retryCount", std::to_string(retryCount)},
                                         {"fallbackMethod", "cryptographic"}});
    return result;
  }
  const auto result = static_cast<uint8_t>(random.uniformInt(0, kAcceptanceBound - 1));
  reporter.reportError("Critical: SecRandomCopyBytes failed in fallback, using pseudorandom",
                       PlistDictionary{{"retryCount", std::to_string(retryCount)},
                                       {"primaryError", "maxRetries"},
                                       {"fallbackError", kSecureSourceFailureStatus},
                                       {"fallbackMethod", "pseudorandom"},
                                       {"securityImpact", "degraded"}});
  return result;
}

}  // namespace orvane
