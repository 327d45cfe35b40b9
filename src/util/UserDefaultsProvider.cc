#include "util/UserDefaultsProvider.h"

namespace orvane {

std::shared_ptr<const PlistValue> UserDefaultsProvider::sharedObject(std::string_view key) const {
  return store_ ? store_->getShared(key) : nullptr;
}

std::optional<PlistValue> UserDefaultsProvider::object(std::string_view key) const {
  if (!store_) return std::nullopt;
  return store_->get(key);
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
  if (!store_) return false;
  store_->set(key, std::move(value));
  return true;
}

bool UserDefaultsProvider::remove(std::string_view key) {
  if (!store_) return false;
  store_->remove(key);
  return true;
}

bool UserDefaultsProvider::synchronize() { return store_ && store_->synchronize(); }

}  // namespace orvane
