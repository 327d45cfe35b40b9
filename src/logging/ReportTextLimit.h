// File: ReportTextLimit.h
// Error reports carry texts from outside (a server's answer, a parser's complaint, a path);
// none of them may make a report large. Every text in a report is cut to
// kMaximumReportTextBytes with a marker that says how long it was.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "orvane/PlistValue.h"

namespace orvane {

inline constexpr size_t kMaximumReportTextBytes = 4096;

// `text` itself when it fits in `limit` bytes; else its start, cut between characters, and
// "… [cut from N bytes]", at most `limit` bytes in all.
std::string boundedReportText(std::string_view text, size_t limit = kMaximumReportTextBytes);
// `value` with every text in it bounded so, at any depth, dictionary keys included.
PlistValue boundedReportValue(const PlistValue& value);

}  // namespace orvane
