// File: ControlSplit.h
// Which installations the service keeps on the control rule: those whose uuid hashes below the
// control share. The position is the first 8 bytes of SHA-256("control:" + uuid) over 2^64, so
// an installation stays in its arm for the life of the service (and of the next one with the
// same share), and a tool can repeat the split without asking the service.
#pragma once

#include <string>
#include <string_view>

namespace devservice {

// The arm names stored with each upload: which file answered it.
inline constexpr const char* kPayloadArm = "payload";
inline constexpr const char* kControlArm = "control";

// The installation's place in [0, 1).
double controlPosition(std::string_view installationUuid);

class ControlSplit {
 public:
  // `share` in [0, 1]; 0 keeps every installation on the payload file.
  explicit ControlSplit(double share) : share_(share) {}

  double share() const { return share_; }
  // A position that cannot be computed (1) keeps the installation on the payload file.
  // Uploads without an installation uuid cannot be kept in one arm: they get the payload file.
  const char* armOf(std::string_view installationUuid) const {
    return !installationUuid.empty() && controlPosition(installationUuid) < share_ ? kControlArm
                                                                                   : kPayloadArm;
  }

 private:
  double share_;
};

// The body's "installation_uuid", empty when the body is not JSON or has none.
std::string installationUuidOf(const std::string& uploadBody);

}  // namespace devservice
