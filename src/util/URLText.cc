#include "util/URLText.h"

#include <cctype>
#include <string_view>

namespace orvane {

bool parsesAsURL(std::string_view text) {
  static constexpr std::string_view kMarks = "-._~:/?#[]@!$&'()*+,;=";
  if (text.empty()) return false;
  for (size_t i = 0; i < text.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (c == '%') {
      if (i + 2 >= text.size() || !std::isxdigit(static_cast<unsigned char>(text[i + 1])) ||
          !std::isxdigit(static_cast<unsigned char>(text[i + 2]))) {
        return false;
      }
      i += 2;
      continue;
    }
    if (c >= 0x80 || (!std::isalnum(c) && kMarks.find(static_cast<char>(c)) == kMarks.npos)) {
      return false;
    }
  }
  return true;
}

}  // namespace orvane
