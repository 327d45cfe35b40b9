#include "models/ControlGrouper.h"

#include <cstdint>
#include <string>

#include "util/DataConvertible.h"

namespace orvane {

double ControlGrouper::position(const Crypto& crypto, std::string_view installationUUID,
                                std::string_view name) {
  // Our strings already hold UTF-8, so there is no conversion that could fail here.
  std::string text;
  text.reserve(installationUUID.size() + name.size());
  text.append(installationUUID).append(name);
  const auto digest = crypto.sha256(
      std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(text.data()), text.size()));
  const auto word = fromBytes<uint32_t>(std::span<const uint8_t>(digest.data(), 4));
  return static_cast<double>(word.value_or(0)) / 4294967295.0;
}

}  // namespace orvane
