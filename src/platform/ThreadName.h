// File: ThreadName.h
// Names the calling thread for debuggers and crash reports, on every platform the core builds
// for.
#pragma once

#include <string_view>

namespace orvane {

// Cut to the 15 bytes Linux allows; does nothing for an empty name or where naming fails.
void setCurrentThreadName(std::string_view name) noexcept;

}  // namespace orvane
