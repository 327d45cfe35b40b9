#include "ControlSplit.h"

#include <cstdint>

#include <openssl/evp.h>

#include <nlohmann/json.hpp>

namespace devservice {

double controlPosition(std::string_view installationUuid) {
  const std::string text = "control:" + std::string(installationUuid);
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (!EVP_Digest(text.data(), text.size(), digest, &length, EVP_sha256(), nullptr)) return 1;
  // The first 8 bytes, big-endian; their top 53 bits fill a double's mantissa exactly, so the
  // result stays below 1.
  uint64_t word = 0;
  for (int i = 0; i < 8; ++i) word = (word << 8) | digest[i];
  return static_cast<double>(word >> 11) * 0x1.0p-53;
}

std::string installationUuidOf(const std::string& uploadBody) {
  const auto body = nlohmann::json::parse(uploadBody, nullptr, /*allow_exceptions=*/false);
  if (!body.is_object()) return "";
  const auto it = body.find("installation_uuid");
  return it != body.end() && it->is_string() ? it->get<std::string>() : "";
}

}  // namespace devservice
