// File: StoreKitRevenueTracker.h
// Turns the store's products and transactions into the outcome metadata of a revenue log.
#pragma once

#include "orvane/CustomSignal.h"
#include "orvane/Revenue.h"

namespace orvane {

struct Platform;

// What the metadata needs to know about the device besides the purchase.
struct StoreEnvironment {
  // The app's store receipt is a sandbox receipt (test distribution).
  bool isSandboxReceipt = false;
  // Major operating-system version; 0 when unknown.
  int systemMajorVersion = 0;

  static StoreEnvironment of(const Platform& platform);
};

class StoreKitRevenueTracker {
 public:
  StoreKitRevenueTracker() = delete;

  static CustomSignalList extractStoreKit2ProductMetadata(const StoreKit2Product& product,
                                                          const StoreEnvironment& environment);
  static CustomSignalList extractStoreKit1ProductMetadata(const StoreKit1Product& product,
                                                          const StoreEnvironment& environment);
  // The product's metadata when there is one, then the transaction's state and date.
  static CustomSignalList extractStoreKit1TransactionMetadata(
      const StoreKit1Transaction& transaction, const std::optional<StoreKit1Product>& product,
      const StoreEnvironment& environment);
};

// "2024-05-01T12:34:56Z": whole seconds in UTC, fractions dropped. None for a date that is not
// finite or lies outside years 1...9999.
std::optional<std::string> formatInternetDateTime(Date date);

}  // namespace orvane
