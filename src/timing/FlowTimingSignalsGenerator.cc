#include "timing/FlowTimingSignalsGenerator.h"

#include <optional>

namespace orvane {

namespace {

constexpr SignalEnum kSinceLastUpsell = SignalEnum::id(92);
constexpr SignalEnum kSinceLastNoUpsell = SignalEnum::id(93);
constexpr SignalEnum kSinceLastEither = SignalEnum::id(94);

// The stored dictionary when every value in it is a date; anything else counts as empty
// (and is replaced by the write that follows).
PlistDictionary storedDates(const UserDefaultsProvider& defaults) {
  auto stored = defaults.dictionary(FlowTimingSignalsGenerator::kLastFlowOccurrenceDatesKey);
  if (!stored) return {};
  for (const auto& [key, value] : *stored) {
    if (!value.asDate()) return {};
  }
  return std::move(*stored);
}

std::optional<Date> dateFor(const PlistDictionary& dates, const std::string& key) {
  const auto found = dates.find(key);
  if (found == dates.end()) return std::nullopt;
  return found->second.asDate();
}

float secondsSince(Date now, const std::optional<Date>& date) {
  if (!date) return -1.0f;
  return static_cast<float>(now.secondsSince1970 - date->secondsSince1970);
}

}  // namespace

FlowTimingSignalsGenerator::FlowTimingSignalsGenerator(
    std::shared_ptr<DateProvider> dateProvider,
    std::shared_ptr<UserDefaultsProvider> userDefaultsProvider)
    : dateProvider_(std::move(dateProvider)), defaults_(std::move(userDefaultsProvider)) {}

SignalList FlowTimingSignalsGenerator::trackFlowCalled(const std::string& flowName,
                                                       bool shouldUpsell) {
  std::lock_guard<std::mutex> guard(lock_);
  if (!defaults_ || !defaults_->isAvailable()) return {};
  PlistDictionary dates = storedDates(*defaults_);
  const Date now = dateProvider_->currentDate();

  const std::optional<Date> lastUpsell = dateFor(dates, flowName + "_true");
  const std::optional<Date> lastNoUpsell = dateFor(dates, flowName + "_false");
  std::optional<Date> lastEither = lastNoUpsell;  // on equal dates either is the same moment
  if (lastUpsell && (!lastNoUpsell || *lastUpsell > *lastNoUpsell)) lastEither = lastUpsell;

  SignalList signals{SignalFloat(kSinceLastUpsell, secondsSince(now, lastUpsell)),
                     SignalFloat(kSinceLastNoUpsell, secondsSince(now, lastNoUpsell)),
                     SignalFloat(kSinceLastEither, secondsSince(now, lastEither))};

  dates[flowName + (shouldUpsell ? "_true" : "_false")] = now;
  defaults_->set(kLastFlowOccurrenceDatesKey, std::move(dates));
  return signals;
}

}  // namespace orvane
