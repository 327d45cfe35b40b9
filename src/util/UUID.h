// File: UUID.h
// Random (version 4) UUID strings as the platform prints them: upper-case hexadecimal with
// hyphens, e.g. "E621E1F8-C36C-495A-93FC-0C247A3E6E5F".
#pragma once

#include <string>

#include "orvane/platform/RandomSource.h"

namespace orvane {

// Secure bytes when the source gives them, else the uniform generator: an identifier must
// always come out.
std::string makeUUIDString(RandomSource& random);

}  // namespace orvane
