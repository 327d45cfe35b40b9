// File: Report.h
// The run as one self-contained HTML page with inline SVG charts: the motion over time with
// every decision marked, the decisions per flow, the upload queue over time, and the upload
// attempts with their back-off.
#pragma once

#include <string>

#include "RunRecord.h"
#include "Summary.h"

namespace orvane::sim::demo {

// The page's style sheet, shared by the learning run's report.
const char* reportStyle();

std::string renderReport(const RunRecord& record, const Summary& summary);
bool writeReport(const std::string& path, const RunRecord& record, const Summary& summary,
                 std::string* error);

}  // namespace orvane::sim::demo
