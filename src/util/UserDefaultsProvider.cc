#include "util/UserDefaultsProvider.h"

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
  KeyValueStore* store = this->store();
  return store ? store->getShared(key) : nullptr;
}

std::optional<PlistValue> UserDefaultsProvider::object(std::string_view key) const {
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
  KeyValueStore* store = this->store();
  if (!store) return false;
  store->set(key, std::move(value));
  return true;
}

bool UserDefaultsProvider::remove(std::string_view key) {
  KeyValueStore* store = this->store();
  if (!store) return false;
  store->remove(key);
  return true;
}

bool UserDefaultsProvider::synchronize() {
  KeyValueStore* store = this->store();
  return store && store->synchronize();
}

}  // namespace orvane
