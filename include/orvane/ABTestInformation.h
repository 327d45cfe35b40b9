// File: ABTestInformation.h
// Which A/B test and cohort this installation belongs to.
#pragma once

#include <string>

#include "orvane/Export.h"

namespace orvane {

struct ORVANE_API ABTestInformation {
  std::string testName;
  std::string cohortName;
  bool operator==(const ABTestInformation&) const = default;
};

}  // namespace orvane
