// File: PlatformError.h
// An error as the platform reports it: a domain, a code and a readable description. Transport
// failures, file-system failures and decoding failures all take this shape so error
// reporting can filter and describe them uniformly.
#pragma once

#include <cstdint>
#include <string>

#include "orvane/Export.h"

namespace orvane {

struct ORVANE_API PlatformError {
  std::string domain;  // e.g. "NSURLErrorDomain", "NSPOSIXErrorDomain", "DecodingError"
  int64_t code = 0;
  std::string description;
};

inline constexpr const char* kUrlErrorDomain = "NSURLErrorDomain";
inline constexpr const char* kPosixErrorDomain = "NSPOSIXErrorDomain";
inline constexpr const char* kDecodingErrorDomain = "DecodingError";
inline constexpr const char* kEncodingErrorDomain = "EncodingError";

}  // namespace orvane
