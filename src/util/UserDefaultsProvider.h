// File: UserDefaultsProvider.h
// The persistence handle every component receives: the defaults suite, or nothing while the
// suite cannot be opened. Without a suite reads yield nothing and writes are dropped.
// While writes are held (the user has not consented to collection), they stay in memory: the
// process reads them back, the suite never sees them.
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "orvane/PlistValue.h"
#include "orvane/platform/KeyValueStore.h"

namespace orvane {

class UserDefaultsProvider {
 public:
  // Over a suite already opened, or none for good.
  explicit UserDefaultsProvider(std::shared_ptr<KeyValueStore> store);

  // Opens `suiteName` through `provider` (none: no suite). When the suite cannot be opened
  // yet (another process holds its file), the provider may open it later in the process, and
  // isAvailable() then turns true.
  static std::shared_ptr<UserDefaultsProvider> open(KeyValueStoreProvider* provider,
                                                    std::string_view suiteName);

  // False while there is no suite. It may turn true later in the process, from any thread,
  // and never turns back. Nothing written while it was false reached the suite, so once true
  // reads answer what is on disk; callers that kept state in memory meanwhile merge it into
  // what they read then rather than write it over the suite.
  bool isAvailable() const { return available_.load(std::memory_order_acquire); }
  std::shared_ptr<KeyValueStore> userDefaults() const;

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
  // True once everything written before it is durable. False when there is no suite, or when
  // the writes are not durable yet: the suite keeps them in memory and keeps committing them,
  // so a later call may answer true.
  bool synchronize();

  // From now on writes and removals stay in memory. Any thread. With `takeBackEarlyWrites`,
  // the keys written to the suite before endEarlyWrites() also leave the suite and are held
  // with their current values: a launch that learns only at setup that it must not collect
  // leaves nothing of what it wrote before.
  void holdWrites(bool takeBackEarlyWrites = false);
  // Stops remembering which keys were written (at setup, when the requirement is known).
  void endEarlyWrites();
  // Ends holding: what was held is written to the suite when `keep`, else forgotten.
  void releaseHeldWrites(bool keep);
  bool writesHeld() const { return holding_.load(std::memory_order_acquire); }
  // Writes to the suite even while writes are held: the user's own choices about collection.
  bool setInSuite(std::string_view key, PlistValue value);
  // Removes `keys` from the suite and from what is held, and synchronises. False when the
  // suite could not confirm it.
  bool eraseKeys(const std::vector<std::string>& keys);
  // The same for every key but `keep`.
  bool eraseAllExcept(const std::vector<std::string>& keep);
  // Asks the suite to clear what was removed from its files too (KeyValueStore::forgetRemoved).
  void forgetRemoved();

 private:
  // Installs the suite once; later calls are ignored.
  void adopt(std::shared_ptr<KeyValueStore> store);
  KeyValueStore* store() const { return isAvailable() ? store_.get() : nullptr; }

  std::mutex adoptMutex_;
  // Written once, before available_ turns true, and never again: readers that saw
  // available_ read it without a lock.
  std::shared_ptr<KeyValueStore> store_;
  std::atomic<bool> available_{false};
  // Held writes: a value, or none for a removal. Guarded by heldMutex_.
  mutable std::mutex heldMutex_;
  std::map<std::string, std::optional<PlistValue>, std::less<>> held_;
  std::atomic<bool> holding_{false};
  // Keys written through to the suite until endEarlyWrites(); guarded by heldMutex_.
  std::vector<std::string> earlyWrites_;
  std::atomic<bool> trackingEarlyWrites_{true};
};

}  // namespace orvane
