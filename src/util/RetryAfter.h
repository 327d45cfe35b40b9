// File: RetryAfter.h
// Reads the Retry-After header of an HTTP answer: delay-seconds ("120") or an IMF-fixdate
// ("Sun, 06 Nov 1994 08:49:37 GMT"). The obsolete date forms are not read.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace orvane {

// Seconds from `nowSeconds` (since 1970) until the answer allows the next request; none
// without a readable header. A date already past reads as 0.
std::optional<double> retryAfterSeconds(
    const std::vector<std::pair<std::string, std::string>>& headers, double nowSeconds);

}  // namespace orvane
