// File: Absorbing.h
// Public entry points absorb every internal failure: the host never sees an exception.
#pragma once

#include <exception>
#include <string>

#include "orvane/platform/Platform.h"

namespace orvane {

template <typename Fn>
void absorbing(const Platform& platform, const char* operation, Fn&& fn) noexcept {
  try {
    fn();
  } catch (const std::exception& e) {
    if (platform.log) {
      platform.log->error(std::string("[Orvane] Internal error in ") + operation + ": " + e.what());
    }
  } catch (...) {
    if (platform.log) platform.log->error(std::string("[Orvane] Internal error in ") + operation);
  }
}

}  // namespace orvane
