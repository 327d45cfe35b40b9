// File: SqliteKeyValueStore.h
// The SQLite-backed suites, with a say in where their failures go.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "orvane/platform/KeyValueStore.h"
#include "orvane/platform/linux/LinuxPlatform.h"

namespace orvane {

// Receives one line per failure: a suite that cannot be opened, a stored value that cannot
// be read back (that key then reads as absent), a write batch that could not be committed.
// Called from the opening thread and from the suites' writer threads, never under a store
// lock, so it may log or report but must be safe to call concurrently.
using KeyValueStoreErrorSink = std::function<void(std::string_view message)>;

// As makeSqliteKeyValueStoreProvider(directory), which sends its failures to standard error.
std::shared_ptr<KeyValueStoreProvider> makeSqliteKeyValueStoreProvider(
    std::string directory, KeyValueStoreErrorSink errorSink);

}  // namespace orvane
