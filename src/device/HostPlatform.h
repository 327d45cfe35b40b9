// File: HostPlatform.h
// The framework that embeds the SDK, as the records report it (signal 43). Internal: nothing
// sets it yet beyond the native default, so it is not part of the public API.
#pragma once

namespace orvane {

// Wrapper platforms (1, 3, 4) start their native layer late, so setup gets a longer grace
// period there.
enum class HostPlatform : int {
  kUnknown = 0,
  kManagedRuntime = 1,
  kHybridWeb = 2,
  kScriptBridge = 3,
  kCompiledBridge = 4,
  kNative = 5,
};

}  // namespace orvane
