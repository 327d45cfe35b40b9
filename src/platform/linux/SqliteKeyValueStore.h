// File: SqliteKeyValueStore.h
// The SQLite-backed suites, with a say in where their failures go and, for tests, in how their
// files are reached and how fast they retry.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "orvane/platform/KeyValueStore.h"
#include "orvane/platform/linux/LinuxPlatform.h"

namespace orvane {

// Receives one line per event: a suite that cannot be opened (or opens on a later attempt), a
// damaged suite file moved aside and what was saved from it, a stored value that cannot be read
// back (that key then reads as absent), the first failure of each kind to commit writes and
// the commit that works again after failures. Called from the opening thread, the provider's
// retry thread and the suites' writer threads, never under a store lock, so it may log or
// report but must be safe to call concurrently. Lines carry no "[Orvane] " prefix.
using KeyValueStoreErrorSink = std::function<void(std::string_view message)>;

struct SqliteStoreOptions {
  // The SQLite VFS the suite files are opened through; empty for SQLite's default. Tests name
  // one that fails writes on demand.
  std::string vfs;
  // Commits that failed, and suites another process held at opening, are tried again after
  // this, doubling up to the cap.
  std::chrono::milliseconds firstRetryDelay{1000};
  std::chrono::milliseconds retryDelayCap{60000};
  // How long an attempt to open waits for another process's lock. The opening caller (often the
  // host's main thread) pays it once; background retries take over from there. Commits wait
  // longer (kCommitBusyTimeoutMs).
  std::chrono::milliseconds openingBusyTimeout{250};
};

// As makeSqliteKeyValueStoreProvider(directory), which sends its failures to standard error.
std::shared_ptr<KeyValueStoreProvider> makeSqliteKeyValueStoreProvider(
    std::string directory, KeyValueStoreErrorSink errorSink, SqliteStoreOptions options = {});

}  // namespace orvane
