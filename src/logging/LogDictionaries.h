// File: LogDictionaries.h
// The SDK's own forms of a log record, and how its records are made.
#pragma once

#include <memory>

#include "orvane/Log.h"
#include "orvane/platform/SystemLog.h"

namespace orvane {

class Engine;

// A record whose send() queues it in `owner`'s upload queues while that engine lives.
std::shared_ptr<Log> makeEngineLog(SignalList signals, CustomSignalList customSignals,
                                   CustomSignalList globalSignals, CustomSignalList outcomeMetadata,
                                   Bytes encodedData, std::weak_ptr<Engine> owner);

// The form the upload queues store: built-in columns, plus "ctx_custom_signals" (f_/g_
// entries) and "ctx_outcome_metadata" (o_ entries), last value of a key wins.
PlistDictionary rawDictionaryWithStaticColumns(const Log& log);

// One flat map; for custom, global and outcome entries the first value of a key wins and each
// collision is written to `collisions` when given. Used by diagnostics.
PlistDictionary rawDictionary(const Log& log, SystemLog* collisions);

}  // namespace orvane
