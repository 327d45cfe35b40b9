// File: KeyValueStore.h
// A named suite of property-list values, like the platform's defaults store. Reads come
// from memory; writes apply in memory at once and reach disk in order in the background;
// synchronize() returns once everything written before it is durable.
#pragma once

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
  // Blocks until every earlier write is durable. False when persisting failed.
  virtual bool synchronize() = 0;
};

// Opens named suites. Returns null when the suite cannot be opened; callers then behave as
// if nothing can be stored.
class ORVANE_API KeyValueStoreProvider {
 public:
  virtual ~KeyValueStoreProvider() = default;
  virtual std::shared_ptr<KeyValueStore> openSuite(std::string_view suiteName) = 0;
};

// Suites that live in memory only, shared by name for the provider's lifetime.
ORVANE_API std::shared_ptr<KeyValueStoreProvider> makeInMemoryKeyValueStoreProvider();

}  // namespace orvane
