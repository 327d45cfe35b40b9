// File: UserDefaultsProvider.h
// The persistence handle every component receives: the defaults suite, or nothing when the
// suite could not be opened. Without a suite reads yield nothing and writes are dropped.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "orvane/PlistValue.h"
#include "orvane/platform/KeyValueStore.h"

namespace orvane {

class UserDefaultsProvider {
 public:
  explicit UserDefaultsProvider(std::shared_ptr<KeyValueStore> store) : store_(std::move(store)) {}

  bool isAvailable() const { return store_ != nullptr; }
  const std::shared_ptr<KeyValueStore>& userDefaults() const { return store_; }

  std::optional<PlistValue> object(std::string_view key) const;
  // The stored value itself, shared rather than copied; null when absent.
  std::shared_ptr<const PlistValue> sharedObject(std::string_view key) const;
  // Typed reads: none when absent or of another type.
  std::optional<std::string> string(std::string_view key) const;
  std::optional<Bytes> data(std::string_view key) const;
  std::optional<Date> date(std::string_view key) const;
  std::optional<PlistDictionary> dictionary(std::string_view key) const;
  std::optional<PlistArray> array(std::string_view key) const;
  // Numeric reads accept any numeric type, as the platform store does.
  std::optional<int64_t> integer(std::string_view key) const;
  std::optional<double> doubleValue(std::string_view key) const;
  std::optional<bool> boolean(std::string_view key) const;

  // False when there is no suite.
  bool set(std::string_view key, PlistValue value);
  bool remove(std::string_view key);
  bool synchronize();

 private:
  std::shared_ptr<KeyValueStore> store_;
};

}  // namespace orvane
