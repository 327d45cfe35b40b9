// File: LogDateFormat.h
// The time stamp of a log record: "yyyy-MM-dd'T'HH:mm:ss.SSSZ" in UTC, e.g.
// "2023-11-14T22:13:20.123+0000".
#pragma once

#include <string>

#include "orvane/PlistValue.h"

namespace orvane {

std::string formatLogDate(Date date);

}  // namespace orvane
