// File: Base64.h
// Standard base64 (RFC 4648, with padding, no line breaks).
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "orvane/PlistValue.h"

namespace orvane {

std::string base64Encode(const uint8_t* data, size_t size);
inline std::string base64Encode(const Bytes& bytes) {
  return base64Encode(bytes.data(), bytes.size());
}
// None for text that is not canonical padded base64.
std::optional<Bytes> base64Decode(std::string_view text);

}  // namespace orvane
