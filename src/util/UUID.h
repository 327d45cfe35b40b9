// File: UUID.h
// Random (version 4) UUID strings as the platform prints them: upper-case hexadecimal with
// hyphens, e.g. "E621E1F8-C36C-495A-93FC-0C247A3E6E5F".
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "orvane/platform/RandomSource.h"

namespace orvane {

// Secure bytes when the source gives them, else the uniform generator: an identifier must
// always come out.
std::string makeUUIDString(RandomSource& random);
// The standard text of 16 given bytes, as they are.
std::string uuidString(const std::array<uint8_t, 16>& bytes);

}  // namespace orvane
