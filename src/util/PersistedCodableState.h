// File: PersistedCodableState.h
// A value kept in the defaults suite under one key as JSON bytes, with a default for when
// nothing (or nothing readable) is stored. T needs nlohmann to_json/from_json.
#pragma once

#include <memory>
#include <mutex>
#include <string>

#include <nlohmann/json.hpp>

#include "orvane/platform/SystemLog.h"
#include "util/UserDefaultsProvider.h"

namespace orvane {

template <typename T>
class PersistedCodableState {
 public:
  PersistedCodableState(std::string key, std::shared_ptr<UserDefaultsProvider> defaults,
                        T defaultValue, std::shared_ptr<SystemLog> log = nullptr)
      : key_(std::move(key)),
        defaults_(std::move(defaults)),
        defaultValue_(std::move(defaultValue)),
        log_(std::move(log)) {}

  // The stored value; the default when nothing is stored or the entry cannot be decoded.
  T get() const {
    std::lock_guard<std::mutex> guard(mutex_);
    auto bytes = defaults_->data(key_);
    if (!bytes) return defaultValue_;
    nlohmann::json json = nlohmann::json::parse(bytes->begin(), bytes->end(), nullptr, false);
    if (!json.is_discarded()) {
      try {
        return json.get<T>();
      } catch (const nlohmann::json::exception&) {  // wrong shape: fall through to the default
      }
    }
    if (log_) log_->error("[Orvane] Stored value under " + key_ + " is unreadable; using default");
    return defaultValue_;
  }

  // False when there is no suite to write to.
  bool set(const T& value) {
    std::lock_guard<std::mutex> guard(mutex_);
    const std::string text =
        nlohmann::json(value).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    return defaults_->set(key_, Bytes(text.begin(), text.end()));
  }

  const std::string& key() const { return key_; }

 private:
  const std::string key_;
  std::shared_ptr<UserDefaultsProvider> defaults_;
  const T defaultValue_;
  std::shared_ptr<SystemLog> log_;
  mutable std::mutex mutex_;
};

}  // namespace orvane
