// File: SystemLog.h
// The platform's unified log. Callers write whole lines, "[Orvane] " prefix included.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "orvane/Export.h"

namespace orvane {

enum class LogLevel { kDebug, kInfo, kDefault, kError };

class ORVANE_API SystemLog {
 public:
  virtual ~SystemLog() = default;
  virtual void write(LogLevel level, std::string_view line) = 0;

  void error(std::string_view line) { write(LogLevel::kError, line); }
  void info(std::string_view line) { write(LogLevel::kInfo, line); }
  void notice(std::string_view line) { write(LogLevel::kDefault, line); }
};

// Lines to standard error. A manager passes its lines through the host's log level
// (ContextManager::setLogLevel) first.
ORVANE_API std::shared_ptr<SystemLog> makeStderrLog();

// Where a host wants the lines: every level, debug included (the host filters). Calls are made
// one at a time, from whichever thread logs; the line is valid only during the call.
using LogLineSink = std::function<void(LogLevel level, std::string_view line)>;
std::shared_ptr<SystemLog> makeCallbackLog(LogLineSink sink);

}  // namespace orvane
