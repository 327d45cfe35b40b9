#include "util/UserDefaultsProvider.h"

#include <algorithm>

namespace orvane {

UserDefaultsProvider::UserDefaultsProvider(std::shared_ptr<KeyValueStore> store) {
  adopt(std::move(store));
}

std::shared_ptr<UserDefaultsProvider> UserDefaultsProvider::open(KeyValueStoreProvider* provider,
                                                                 std::string_view suiteName) {
  auto defaults = std::make_shared<UserDefaultsProvider>(nullptr);
  if (!provider) return defaults;
  std::weak_ptr<UserDefaultsProvider> weak = defaults;
  defaults->adopt(
      provider->openSuiteOrRetry(suiteName, [weak](std::shared_ptr<KeyValueStore> store) {
        if (auto self = weak.lock()) self->adopt(std::move(store));
      }));
  return defaults;
}

void UserDefaultsProvider::adopt(std::shared_ptr<KeyValueStore> store) {
  if (!store) return;
  std::lock_guard<std::mutex> guard(adoptMutex_);
  if (isAvailable()) return;
  store_ = std::move(store);
  available_.store(true, std::memory_order_release);
}

std::shared_ptr<KeyValueStore> UserDefaultsProvider::userDefaults() const {
  return isAvailable() ? store_ : nullptr;
}

std::shared_ptr<const PlistValue> UserDefaultsProvider::sharedObject(std::string_view key) const {
  if (writesHeld()) {
    std::lock_guard<std::mutex> guard(heldMutex_);
    if (auto it = held_.find(key); it != held_.end()) {
      return it->second ? std::make_shared<const PlistValue>(*it->second) : nullptr;
    }
  }
  KeyValueStore* store = this->store();
  return store ? store->getShared(key) : nullptr;
}

std::optional<PlistValue> UserDefaultsProvider::object(std::string_view key) const {
  if (writesHeld()) {
    std::lock_guard<std::mutex> guard(heldMutex_);
    if (auto it = held_.find(key); it != held_.end()) return it->second;
  }
  KeyValueStore* store = this->store();
  if (!store) return std::nullopt;
  return store->get(key);
}

std::optional<std::string> UserDefaultsProvider::string(std::string_view key) const {
  auto value = object(key);
  if (!value || !value->asString()) return std::nullopt;
  return *value->asString();
}

std::optional<Bytes> UserDefaultsProvider::data(std::string_view key) const {
  auto value = object(key);
  if (!value || !value->asBytes()) return std::nullopt;
  return *value->asBytes();
}

std::optional<Date> UserDefaultsProvider::date(std::string_view key) const {
  auto value = object(key);
  if (!value) return std::nullopt;
  return value->asDate();
}

std::optional<PlistDictionary> UserDefaultsProvider::dictionary(std::string_view key) const {
  auto value = object(key);
  if (!value || !value->asDictionary()) return std::nullopt;
  return *value->asDictionary();
}

std::optional<PlistArray> UserDefaultsProvider::array(std::string_view key) const {
  auto value = object(key);
  if (!value || !value->asArray()) return std::nullopt;
  return *value->asArray();
}

std::optional<int64_t> UserDefaultsProvider::integer(std::string_view key) const {
  auto value = object(key);
  if (!value) return std::nullopt;
  return value->numericInt();
}

std::optional<double> UserDefaultsProvider::doubleValue(std::string_view key) const {
  auto value = object(key);
  if (!value) return std::nullopt;
  return value->numericDouble();
}

std::optional<bool> UserDefaultsProvider::boolean(std::string_view key) const {
  auto value = object(key);
  if (!value) return std::nullopt;
  if (auto b = value->asBool()) return b;
  if (auto i = value->asInt()) return *i != 0;
  return std::nullopt;
}

bool UserDefaultsProvider::set(std::string_view key, PlistValue value) {
  if (writesHeld() || trackingEarlyWrites_.load(std::memory_order_acquire)) {
    std::lock_guard<std::mutex> guard(heldMutex_);
    if (writesHeld()) {
      held_.insert_or_assign(std::string(key), std::move(value));
      return true;
    }
    if (trackingEarlyWrites_.load(std::memory_order_acquire)) {
      // Under the lock, so that a take-back never runs between noting a key and writing it.
      if (std::find(earlyWrites_.begin(), earlyWrites_.end(), key) == earlyWrites_.end()) {
        earlyWrites_.emplace_back(key);
      }
      return setInSuite(key, std::move(value));
    }
  }
  return setInSuite(key, std::move(value));
}

bool UserDefaultsProvider::remove(std::string_view key) {
  if (writesHeld()) {
    std::lock_guard<std::mutex> guard(heldMutex_);
    if (writesHeld()) {
      held_.insert_or_assign(std::string(key), std::nullopt);
      return true;
    }
  }
  KeyValueStore* store = this->store();
  if (!store) return false;
  store->remove(key);
  return true;
}

bool UserDefaultsProvider::synchronize() {
  // While writes are held this makes durable only what was written through to the suite.
  KeyValueStore* store = this->store();
  return store && store->synchronize();
}

void UserDefaultsProvider::holdWrites(bool takeBackEarlyWrites) {
  std::lock_guard<std::mutex> guard(heldMutex_);
  KeyValueStore* store = this->store();
  if (takeBackEarlyWrites && store && !writesHeld()) {
    for (const std::string& key : earlyWrites_) {
      held_.insert_or_assign(key, store->get(key));
      store->remove(key);
    }
    store->synchronize();
  }
  earlyWrites_.clear();
  holding_.store(true, std::memory_order_release);
}

void UserDefaultsProvider::endEarlyWrites() {
  std::lock_guard<std::mutex> guard(heldMutex_);
  trackingEarlyWrites_.store(false, std::memory_order_release);
  earlyWrites_.clear();
}

void UserDefaultsProvider::releaseHeldWrites(bool keep) {
  std::lock_guard<std::mutex> guard(heldMutex_);
  if (!writesHeld()) return;
  // Readers that saw holding_ wait on the lock and then find the suite already written.
  if (KeyValueStore* store = this->store(); store && keep) {
    for (auto& [key, value] : held_) {
      if (value) {
        store->set(key, std::move(*value));
      } else {
        store->remove(key);
      }
    }
    store->synchronize();
  }
  held_.clear();
  holding_.store(false, std::memory_order_release);
}

bool UserDefaultsProvider::setInSuite(std::string_view key, PlistValue value) {
  KeyValueStore* store = this->store();
  if (!store) return false;
  store->set(key, std::move(value));
  return true;
}

bool UserDefaultsProvider::eraseKeys(const std::vector<std::string>& keys) {
  {
    std::lock_guard<std::mutex> guard(heldMutex_);
    for (const std::string& key : keys) {
      if (auto it = held_.find(key); it != held_.end()) held_.erase(it);
    }
  }
  KeyValueStore* store = this->store();
  if (!store) return false;
  for (const std::string& key : keys) store->remove(key);
  return store->synchronize();
}

bool UserDefaultsProvider::eraseAllExcept(const std::vector<std::string>& keep) {
  std::vector<std::string> keys;
  {
    std::lock_guard<std::mutex> guard(heldMutex_);
    for (const auto& [key, value] : held_) keys.push_back(key);
  }
  if (KeyValueStore* store = this->store()) {
    for (std::string& key : store->keys()) keys.push_back(std::move(key));
  }
  std::erase_if(keys, [&](const std::string& key) {
    return std::find(keep.begin(), keep.end(), key) != keep.end();
  });
  return eraseKeys(keys);
}

void UserDefaultsProvider::forgetRemoved() {
  if (KeyValueStore* store = this->store()) store->forgetRemoved();
}

}  // namespace orvane
