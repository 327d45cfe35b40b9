// File: BundleInfo.h
// Facts about the host application's bundle and the SDK's resources.
#pragma once

#include <optional>
#include <string>

#include "orvane/Export.h"

namespace orvane {

struct ORVANE_API BundleInfo {
  // None when the host has no bundle identifier.
  std::optional<std::string> bundleIdentifier;
  std::string shortVersion;  // marketing version, e.g. "2.4.1"
  std::string buildVersion;  // build number, e.g. "241"
  // Folder that holds the SDK's resource bundle.
  std::string sdkResourceDirectory;
  // Install-environment facts (app store, test flight, development build).
  bool hasEmbeddedProvisioningProfile = false;
  std::string receiptFileName = "receipt";
};

}  // namespace orvane
