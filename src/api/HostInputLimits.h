// File: HostInputLimits.h
// Bounds on what a host hands the SDK. Every id and text ends up in each record the context
// writes, and each record is uploaded and kept on disk, so one runaway value (a whole document
// as a flow name, ten thousand custom signals) would otherwise grow every upload and the
// process's memory without limit. Over a bound the input is cut, never refused, with one
// "[Orvane] " line saying so: the request is still answered.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "orvane/CustomSignal.h"
#include "orvane/platform/SystemLog.h"

namespace orvane {

struct HostInputLimits {
  // Flow and tracked event names, in UTF-8 bytes: every name of up to 500 characters (the
  // longest the flow-name rule accepts without a warning) fits whole.
  static constexpr size_t kMaximumFlowNameBytes = 2000;
  // Custom signal ids and the text of a custom signal, in UTF-8 bytes.
  static constexpr size_t kMaximumSignalIdBytes = 256;
  static constexpr size_t kMaximumTextValueBytes = 1024;
  // Custom signals of one request, and distinct global custom signals.
  static constexpr size_t kMaximumCustomSignals = 64;
  static constexpr size_t kMaximumGlobalSignals = 64;
};

// `text` cut to at most `maximumBytes` without splitting a UTF-8 sequence.
std::string_view utf8Prefix(std::string_view text, size_t maximumBytes);

// `name` within `maximumBytes`; none when it already is. `what` names it in the line logged
// ("flow name", "event name").
std::optional<std::string> limitedName(std::string_view what, const std::string& name,
                                       size_t maximumBytes, SystemLog& log);

// `signals` within the bounds on count, ids and text values; none when they already are.
std::optional<CustomSignalList> limitedCustomSignals(const CustomSignalList& signals,
                                                     SystemLog& log);

// One global custom signal within the bounds on its id and text value.
CustomSignal limitedCustomSignal(const CustomSignal& signal, SystemLog& log);

}  // namespace orvane
