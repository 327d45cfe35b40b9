// File: AppInstallationEnvironmentHelper.h
// How the host app was installed, from its bundle.
#pragma once

#include <cstdint>

#include "orvane/platform/BundleInfo.h"

namespace orvane {

class AppInstallationEnvironmentHelper {
 public:
  // 2 a build that carries a provisioning profile (development, ad hoc, enterprise);
  // 1 a sandbox store receipt (test distribution); 0 otherwise (the store).
  static int64_t current(const BundleInfo& bundle);
  static bool isAppStoreReceiptSandbox(const BundleInfo& bundle);
};

}  // namespace orvane
