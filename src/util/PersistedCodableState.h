// File: PersistedCodableState.h
// A value kept in the defaults suite under one key as JSON bytes, with a default for when
// nothing (or nothing readable) is stored. T needs nlohmann to_json; reading goes through a
// JsonReader decoder given by the owner. The stored bytes are outside input, and nlohmann's
// own from_json converts an out-of-range number to an integer field with undefined behaviour,
// so it is not used for reading.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "orvane/platform/SystemLog.h"
#include "util/JsonReader.h"
#include "util/UserDefaultsProvider.h"

namespace orvane {

template <typename T>
class PersistedCodableState {
 public:
  // Reads a stored value: none, after recording the reason on the reader, when it cannot.
  using Decoder = std::function<std::optional<T>(const JsonReader&)>;

  PersistedCodableState(std::string key, std::shared_ptr<UserDefaultsProvider> defaults,
                        T defaultValue, Decoder decode, std::shared_ptr<SystemLog> log = nullptr)
      : key_(std::move(key)),
        defaults_(std::move(defaults)),
        defaultValue_(std::move(defaultValue)),
        decode_(std::move(decode)),
        log_(std::move(log)) {}

  // The stored value; the default when nothing is stored or the entry cannot be decoded.
  T get() const {
    std::lock_guard<std::mutex> guard(mutex_);
    auto bytes = defaults_->data(key_);
    if (!bytes) return defaultValue_;
    std::string error;
    auto json = parseJson(
        std::string_view(reinterpret_cast<const char*>(bytes->data()), bytes->size()), &error);
    if (json) {
      JsonReader reader(*json);
      auto value = decode_(reader);
      if (value && reader.ok()) return std::move(*value);
      error = reader.ok() ? "refused" : reader.error();
    }
    if (log_) {
      log_->error("[Orvane] Stored value under " + key_ + " is unreadable (" + error +
                  "); using default");
    }
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
  const Decoder decode_;
  std::shared_ptr<SystemLog> log_;
  mutable std::mutex mutex_;
};

}  // namespace orvane
