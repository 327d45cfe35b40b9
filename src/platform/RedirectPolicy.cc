// Which redirects a transport may follow: never one that leaves https, so a request sent over
// TLS (app key and records in its body) is never repeated in clear.
#include <cctype>

#include "orvane/platform/HttpTransport.h"

namespace orvane {
namespace {

// The scheme of an absolute URL (RFC 3986: a letter, then letters, digits, "+", "-", ".",
// up to ":"), lower-cased; empty for a relative reference, which keeps the current scheme.
std::string schemeOf(std::string_view reference) {
  std::string scheme;
  for (const char c : reference) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == ':') return scheme;
    const bool allowed =
        std::isalpha(byte) ||
        (!scheme.empty() && (std::isdigit(byte) || c == '+' || c == '-' || c == '.'));
    if (!allowed) return "";
    scheme.push_back(static_cast<char>(std::tolower(byte)));
  }
  return "";
}

}  // namespace

bool mayFollowRedirect(std::string_view fromUrl, std::string_view location) noexcept {
  try {
    if (schemeOf(fromUrl) != "https") return true;
    const std::string target = schemeOf(location);
    return target.empty() || target == "https";
  } catch (...) {  // out of memory for a few bytes: refuse rather than risk a downgrade
    return false;
  }
}

}  // namespace orvane
