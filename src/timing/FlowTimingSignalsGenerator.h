// File: FlowTimingSignalsGenerator.h
// How long ago the same flow last produced a context that upsold, one that did not, and
// either. The moment of each flow's last context per answer is kept in the defaults suite.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "orvane/Signal.h"
#include "util/DateProvider.h"
#include "util/UserDefaultsProvider.h"

namespace orvane {

class FlowTimingSignalsGenerator {
 public:
  // A dictionary from "<flow>_true" / "<flow>_false" to the date of that flow's last context
  // with that answer. The spelling is part of the stored format.
  static constexpr std::string_view kLastFlowOccurrenceDatesKey = "last_flow_occurence_dates";

  FlowTimingSignalsGenerator(std::shared_ptr<DateProvider> dateProvider,
                             std::shared_ptr<UserDefaultsProvider> userDefaultsProvider);

  // Signals 92 (since the last upsell), 93 (since the last no) and 94 (since either), in
  // seconds, -1 where there was no such context; then records this context. Empty when
  // nothing can be stored.
  SignalList trackFlowCalled(const std::string& flowName, bool shouldUpsell);

 private:
  std::shared_ptr<DateProvider> dateProvider_;
  std::shared_ptr<UserDefaultsProvider> defaults_;
  std::mutex lock_;  // serialises the read-modify-write of the dictionary
};

}  // namespace orvane
