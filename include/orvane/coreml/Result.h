// File: Result.h
// A value or an error with a readable message. The runtime reports every failure this way:
// nothing it is handed (files, bytes, feature values) can make it throw or crash.
#pragma once

#include <string>
#include <utility>
#include <variant>

#include "orvane/Export.h"

namespace orvane::coreml {

class ORVANE_API Error {
 public:
  explicit Error(std::string message) : message_(std::move(message)) {}
  // A model this runtime will never run: a kind it does not evaluate or a format version
  // outside the range it reads. Trying the same file again cannot help.
  static Error unsupported(std::string message) {
    Error error(std::move(message));
    error.unsupported_ = true;
    return error;
  }

  const std::string& message() const { return message_; }
  bool isUnsupported() const { return unsupported_; }
  // The same error with more context in front of its message.
  Error prefixed(const std::string& context) const {
    Error error(context + message_);
    error.unsupported_ = unsupported_;
    return error;
  }

 private:
  std::string message_;
  bool unsupported_ = false;
};

template <typename T>
class [[nodiscard]] Result {
 public:
  Result(T value) : state_(std::in_place_index<0>, std::move(value)) {}      // NOLINT: implicit
  Result(Error error) : state_(std::in_place_index<1>, std::move(error)) {}  // NOLINT: implicit

  bool ok() const { return state_.index() == 0; }
  explicit operator bool() const { return ok(); }

  // Only valid when ok().
  T& value() & { return std::get<0>(state_); }
  const T& value() const& { return std::get<0>(state_); }
  T&& value() && { return std::get<0>(std::move(state_)); }
  T& operator*() & { return value(); }
  const T& operator*() const& { return value(); }
  T* operator->() { return &value(); }
  const T* operator->() const { return &value(); }

  // Only valid when !ok().
  const Error& error() const { return std::get<1>(state_); }
  const std::string& message() const { return error().message(); }

 private:
  std::variant<T, Error> state_;
};

// Success without a value, or an error.
class [[nodiscard]] Status {
 public:
  Status() = default;
  Status(Error error) : error_(std::move(error)), failed_(true) {}  // NOLINT: implicit

  bool ok() const { return !failed_; }
  explicit operator bool() const { return ok(); }
  const std::string& message() const { return error_.message(); }
  const Error& error() const { return error_; }

 private:
  Error error_{""};
  bool failed_ = false;
};

}  // namespace orvane::coreml
