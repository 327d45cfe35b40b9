// Feeds arbitrary bytes to the server payload decoder. Whatever the service (or anyone on the
// path) sends, decoding must return, not crash, and report why it refused; an accepted
// payload must carry only the values the decoder promises.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "config/ServerPayload.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view body(reinterpret_cast<const char*>(data), size);
  std::string error;
  auto payload = orvane::decodeServerPayload(body, &error);
  if (!payload) {
    if (error.empty()) std::abort();  // every refusal says why
    return 0;
  }
  if (payload->geoIpData && !payload->geoIpData->raw.is_object()) std::abort();
  // Decoding the same bytes twice gives the same answer.
  if (orvane::decodeServerPayload(body) != payload) std::abort();
  return 0;
}
