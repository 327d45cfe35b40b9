// File: RandomSource.h
// Randomness: uniform draws for sampling decisions and secure bytes for keys, IVs and ids.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "orvane/Export.h"

namespace orvane {

class ORVANE_API RandomSource {
 public:
  virtual ~RandomSource() = default;
  // Uniform in [0, 1] with 24 bits of resolution (the resolution of a float draw).
  virtual float uniformFloat() = 0;
  // Uniform in [0, 1] with 53 bits of resolution.
  virtual double uniformDouble() = 0;
  // Uniform integer in [lower, upper]; lower when upper < lower.
  virtual int64_t uniformInt(int64_t lower, int64_t upper) = 0;
  // Fills `out` from a cryptographically secure source. False when the source failed; the
  // contents of `out` are then unspecified.
  virtual bool secureBytes(std::span<uint8_t> out) = 0;
};

// The kernel's entropy (getentropy) for secure bytes; a 64-bit engine seeded from it for
// uniform draws.
ORVANE_API std::shared_ptr<RandomSource> makeSystemRandomSource();

}  // namespace orvane
