#include "generators/AppInstallationEnvironmentHelper.h"

namespace orvane {

bool AppInstallationEnvironmentHelper::isAppStoreReceiptSandbox(const BundleInfo& bundle) {
  return bundle.receiptFileName == "sandboxReceipt";
}

int64_t AppInstallationEnvironmentHelper::current(const BundleInfo& bundle) {
  if (bundle.hasEmbeddedProvisioningProfile) return 2;
  if (isAppStoreReceiptSandbox(bundle)) return 1;
  return 0;
}

}  // namespace orvane
