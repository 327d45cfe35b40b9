// File: Result.h
// A value or the error that prevented it. Internal operations that can fail return this;
// nothing inside the SDK throws across a component boundary.
#pragma once

#include <cassert>
#include <optional>
#include <utility>
#include <variant>

#include "util/PlatformError.h"

namespace orvane {

template <typename T>
class [[nodiscard]] Result {
 public:
  // NOLINTNEXTLINE(google-explicit-constructor): a value or an error converts to a result
  Result(T value) : storage_(std::move(value)) {}
  // NOLINTNEXTLINE(google-explicit-constructor)
  Result(PlatformError error) : storage_(std::move(error)) {}

  bool ok() const { return storage_.index() == 0; }
  explicit operator bool() const { return ok(); }

  T& value() & {
    assert(ok());
    return std::get<0>(storage_);
  }
  const T& value() const& {
    assert(ok());
    return std::get<0>(storage_);
  }
  T&& value() && {
    assert(ok());
    return std::get<0>(std::move(storage_));
  }
  const PlatformError& error() const {
    assert(!ok());
    return std::get<1>(storage_);
  }

  T* operator->() { return &value(); }
  const T* operator->() const { return &value(); }
  T& operator*() & { return value(); }
  const T& operator*() const& { return value(); }

 private:
  std::variant<T, PlatformError> storage_;
};

}  // namespace orvane
