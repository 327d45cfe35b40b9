// File: KeyValueStore.h
// A named suite of property-list values, like the platform's defaults store. Reads come
// from memory; writes apply in memory at once and reach disk in order in the background;
// synchronize() returns once everything written before it survives the process dying.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "orvane/Export.h"
#include "orvane/PlistValue.h"

namespace orvane {

class ORVANE_API KeyValueStore {
 public:
  virtual ~KeyValueStore() = default;
  virtual std::optional<PlistValue> get(std::string_view key) const = 0;
  // The stored value without copying it, for large values read often (the upload queues).
  // Stores that keep values immutable override it; the default copies through get().
  virtual std::shared_ptr<const PlistValue> getShared(std::string_view key) const {
    auto value = get(key);
    return value ? std::make_shared<const PlistValue>(std::move(*value)) : nullptr;
  }
  virtual void set(std::string_view key, PlistValue value) = 0;
  virtual void remove(std::string_view key) = 0;
  virtual std::vector<std::string> keys() const = 0;
  // Blocks until every earlier write survives the process being killed (power loss may lose
  // the last ones). False when not yet: the store keeps them and keeps trying, so may later.
  virtual bool synchronize() = 0;
  // After an erase: makes what was removed before this call unreadable in the store's files
  // too (freed pages, journals), once those removals are committed. Returns at once; a later
  // synchronize() waits for it. Best effort. Stores that keep nothing on disk do nothing.
  virtual void forgetRemoved() {}
};

// A store that found its file damaged and rebuilt it from what could still be read leaves a
// line saying so under this key of the rebuilt suite; the SDK reports it once through its
// error reporting and removes it.
inline constexpr std::string_view kStoreRepairNoteKey = "orvane_store_repair_note";

// Hands over a suite that could not be opened at first, once a later attempt opens it.
using SuiteOpenedLater = std::function<void(std::shared_ptr<KeyValueStore> store)>;

// Opens named suites. Returns null when the suite cannot be opened; callers then behave as
// if nothing can be stored.
class ORVANE_API KeyValueStoreProvider {
 public:
  virtual ~KeyValueStoreProvider() = default;
  virtual std::shared_ptr<KeyValueStore> openSuite(std::string_view suiteName) = 0;

  // As openSuite, for a caller that can start using the suite later. When it cannot be opened
  // now for a reason that may pass (another process holds its file, the disk refuses), the
  // provider keeps trying in the background and calls `openedLater` once with the store, from
  // a thread of its own. Never called when this returns the store, nor once the provider is
  // gone. Providers that never retry answer as openSuite and drop `openedLater`.
  virtual std::shared_ptr<KeyValueStore> openSuiteOrRetry(std::string_view suiteName,
                                                          SuiteOpenedLater openedLater) {
    (void)openedLater;
    return openSuite(suiteName);
  }
};

// Suites that live in memory only, shared by name for the provider's lifetime.
ORVANE_API std::shared_ptr<KeyValueStoreProvider> makeInMemoryKeyValueStoreProvider();

}  // namespace orvane
