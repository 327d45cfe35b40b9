// File: URLText.h
// Whether a text from the network can be used as a URL at all.
#pragma once

#include <string_view>

namespace orvane {

// Non-empty and made only of the characters a URL may hold (letters, digits, the reserved
// and unreserved marks), with every '%' starting a two-digit hexadecimal escape. Spaces,
// quotes, angle brackets, control characters and non-ASCII bytes fail.
bool parsesAsURL(std::string_view text);

}  // namespace orvane
