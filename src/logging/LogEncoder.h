// File: LogEncoder.h
// Turns the signals of one log into its compact encrypted form:
//   0x00 | 16-byte IV | AES-CBC(PKCS#7) of raw-DEFLATE(JSON envelope)
// The envelope groups built-in signals by value type into big-endian binary maps (each
// compressed and base64-encoded), keeps text and decimal signals as text, and carries the
// custom ("cs") and global ("gs") signals as JSON.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "orvane/CustomSignal.h"
#include "orvane/PlistValue.h"
#include "orvane/Signal.h"
#include "orvane/platform/Crypto.h"
#include "orvane/platform/RandomSource.h"
#include "orvane/platform/SystemLog.h"
#include "util/Result.h"

namespace orvane {

class LogEncoder {
 public:
  // `logKey` gives the current log encryption key (none before setup).
  LogEncoder(std::shared_ptr<Crypto> crypto, std::shared_ptr<RandomSource> random,
             std::shared_ptr<SystemLog> log, std::function<std::optional<std::string>()> logKey);

  Result<Bytes> encodeLog(const SignalList& signals, const CustomSignalList& customSignals,
                          const CustomSignalList& globalSignals) const;
  Result<Bytes> encodeLogWithKey(const SignalList& signals, const CustomSignalList& customSignals,
                                 const CustomSignalList& globalSignals,
                                 const std::optional<std::string>& key) const;

  // The envelope JSON before compression and encryption.
  Result<std::string> envelopeJson(const SignalList& signals, const CustomSignalList& customSignals,
                                   const CustomSignalList& globalSignals) const;

 private:
  std::shared_ptr<Crypto> crypto_;
  std::shared_ptr<RandomSource> random_;
  std::shared_ptr<SystemLog> log_;
  std::function<std::optional<std::string>()> logKey_;
};

}  // namespace orvane
