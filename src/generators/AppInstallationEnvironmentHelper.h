// File: AppInstallationEnvironmentHelper.h
// Where the host app was installed from: 2 a development build (it carries a provisioning
// profile), 1 a test build (its store receipt is a sandbox receipt), 0 the store.
#pragma once

#include "orvane/platform/BundleInfo.h"

namespace orvane {

struct AppInstallationEnvironmentHelper {
  static int current(const BundleInfo& bundle) {
    if (bundle.hasEmbeddedProvisioningProfile) return 2;
    return isAppStoreReceiptSandbox(bundle) ? 1 : 0;
  }
  static bool isAppStoreReceiptSandbox(const BundleInfo& bundle) {
    return bundle.receiptFileName == "sandboxReceipt";
  }
};

}  // namespace orvane
