// File: RealisticLog.h
// A log about the size of a real one, for the benchmarks that queue or store records.
#pragma once

#include <string>

#include "api/Engine.h"
#include "logging/LogEncoder.h"
#include "orvane/Log.h"

namespace orvane::bench {

// ~420 signals of every kind the SDK sends (text, integer, float by id); `serial` varies the
// values.
inline SignalList realisticSignals(int serial) {
  SignalList signals;
  for (const SignalEnum id : SignalEnum::allCases()) {
    if (signals.size() == 420) break;
    const uint16_t raw = id.rawValue();
    if (raw % 7 == 0) {
      signals.push_back(SignalString(id, "value-" + std::to_string(raw + serial)));
    } else if (raw % 5 == 0) {
      signals.push_back(SignalInt(id, raw * 1000 + serial));
    } else {
      signals.push_back(SignalFloat(id, static_cast<float>(raw) / 7.0f + serial));
    }
  }
  return signals;
}

// The signals above, a log id and one custom signal.
inline Log realisticLog(Engine& manager, int serial) {
  SignalList signals = realisticSignals(serial);
  signals.push_back(SignalString(SignalEnum::id(8), "log-" + std::to_string(serial)));
  const CustomSignalList custom{CustomSignalString("plan", "pro")};
  auto encoded = manager.logEncoder().encodeLog(signals, custom, {});
  return Log(signals, custom, {}, {}, encoded ? *encoded : Bytes{});
}

}  // namespace orvane::bench
