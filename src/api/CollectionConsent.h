// File: CollectionConsent.h
// Whether the user lets the SDK keep and send data. Collection is allowed when consent was
// granted, or when it was never asked for and the host does not require it; a denial stops
// it whether required or not. While it is not allowed, writes to the defaults suite stay in
// memory and the manager's HTTP transport refuses every request, so nothing reaches the disk
// or the network whichever component tries. The choice and the requirement are the only
// things written meanwhile: they must survive the launch.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "orvane/ContextManager.h"
#include "orvane/platform/HttpTransport.h"

namespace orvane {

class UserDefaultsProvider;

// The error of a request made while collection is not allowed.
inline constexpr int64_t kCollectionNotAllowed = -1020;

class CollectionConsent {
 public:
  static constexpr const char* kStateKey = "orvane_consent";
  static constexpr const char* kRequiredKey = "orvane_consent_required";

  // Reads the stored choice; holds the suite's writes at once when collection is not allowed.
  explicit CollectionConsent(std::shared_ptr<UserDefaultsProvider> defaults);

  struct Change {
    bool wasAllowed;
    bool nowAllowed;
  };
  // Records the host's choice. Entering "not allowed" holds writes (what is held meanwhile is
  // never written); leaving it writes what was held.
  Change setState(ConsentState state);
  // At setup. A launch that learns here that it may not collect takes back from the suite
  // what it wrote before (held in memory from now on).
  Change setRequired(bool required);

  ConsentState state() const { return state_.load(); }
  bool required() const { return required_.load(); }
  bool allowed() const;
  // The keys an erase leaves: the user's choice outlives the data.
  static std::vector<std::string> keysKeptOnErase();

  // `inner`, refusing every request at once while collection is not allowed.
  std::shared_ptr<HttpTransport> gate(std::shared_ptr<HttpTransport> inner);

 private:
  Change change(ConsentState state, bool required, bool takeBackEarlyWrites);

  std::shared_ptr<UserDefaultsProvider> defaults_;
  std::mutex changeMutex_;  // one change at a time: state, suite and holding agree
  std::atomic<ConsentState> state_{ConsentState::kUnknown};
  std::atomic<bool> required_{false};
};

}  // namespace orvane
