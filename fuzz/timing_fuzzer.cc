// The two timing records read back at launch: the per-flow rules and the per-flow windows.
// A document may carry both root fields, so the same bytes are stored under both keys and a
// coordinator loads them. What decodes must be what the coordinator holds and must survive
// being stored again; serving requests of every flow from it afterwards must never leave a
// record that cannot be stored.
#include <cstddef>
#include <cstdint>
#include <set>
#include <string>

#include "FuzzSupport.h"
#include "timing/TimingCoordinator.h"

namespace {

using namespace orvane;

constexpr double kNow = 1.7e9;

template <typename Record, typename Encode, typename Decode>
void checkRoundTrip(const Record& record, Encode encode, Decode decode) {
  const std::optional<std::string> encoded = encode(record);
  FUZZ_CHECK(encoded.has_value());
  const std::optional<Record> again = decode(*encoded, nullptr);
  FUZZ_CHECK(again && *again == record);
}

fuzz::Seeds seeds() {
  TimingConfiguration configuration;
  configuration.flowConfigurations["home"] = {Timing{TimingUnit::kHours, 6}, 2.0,
                                              Timing{TimingUnit::kMinutes, 30}};
  configuration.flowConfigurations["onboarding"] = {Timing{TimingUnit::kExecutions, 5}, 1.0,
                                                    std::nullopt};
  configuration.flowConfigurations["settings"] = {std::nullopt, 0.5, Timing{TimingUnit::kDays, 1}};
  fuzz::SeededRandomSource random;
  TimingStates states;
  for (const auto& [flow, rules] : configuration.flowConfigurations) {
    states.flowState[flow] = FlowTimingStatus::createForConfiguration(rules, Date{kNow}, random);
  }
  states.flowState["home"].numberOfExecutions = 3;
  states.flowState["home"].hasBeenExecutedInTheCurrentWindow = true;
  const std::string rules = encodeTimingConfiguration(configuration).value();
  const std::string windows = encodeTimingStates(states).value();
  // Both root objects in one document: drop the closing brace of one and the opening of the
  // other.
  const std::string both = rules.substr(0, rules.size() - 1) + "," + windows.substr(1);
  return {{"configuration.json", rules}, {"states.json", windows}, {"both.json", both}};
}

}  // namespace

ORVANE_FUZZ_SEEDS(seeds)

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text = fuzz::asText(data, size);
  const auto configuration = decodeTimingConfiguration(text);
  const auto states = decodeTimingStates(text);
  if (configuration) {
    checkRoundTrip(*configuration, encodeTimingConfiguration, decodeTimingConfiguration);
  }
  if (states) checkRoundTrip(*states, encodeTimingStates, decodeTimingStates);

  auto defaults = fuzz::makeDefaults();
  defaults->set(TimingCoordinator::kGeneralConfigurationKey, fuzz::asBytes(text));
  defaults->set(TimingCoordinator::kPerFlowStateKey, fuzz::asBytes(text));
  auto date = std::make_shared<StubDateProvider>(Date{kNow});
  fuzz::CountingErrorReporter reporter;
  TimingCoordinator coordinator(defaults, date, std::make_shared<fuzz::SeededRandomSource>(),
                                [&reporter]() -> ErrorReporter& { return reporter; });
  FUZZ_CHECK(coordinator.currentConfiguration() == configuration.value_or(TimingConfiguration{}));
  FUZZ_CHECK(coordinator.currentStates() == states.value_or(TimingStates{}));
  const size_t loadReports = reporter.count;
  FUZZ_CHECK(loadReports == size_t{!configuration} + size_t{!states});

  // Every flow with rules or a window: a request, a showing, a request a year later.
  std::set<std::string> flows;
  for (const auto& entry : coordinator.currentConfiguration().flowConfigurations) {
    flows.insert(entry.first);
  }
  for (const auto& entry : coordinator.currentStates().flowState) flows.insert(entry.first);
  for (const std::string& flow : flows) {
    date->setStubDate(Date{kNow});
    const CooldownResult first = coordinator.performCooldownCalculation(flow);
    FUZZ_CHECK(!first.signals.empty());
    coordinator.markCurrentWindowExecuted(flow);
    date->setStubDate(Date{kNow + 365 * 86400.0});
    (void)coordinator.performCooldownCalculation(flow);
  }
  // Both records, as they stand now, are stored and read back unchanged.
  coordinator.storeClientConfiguration();
  coordinator.storeFlowTimingState();
  FUZZ_CHECK(reporter.count == loadReports);  // every write since loading could be encoded
  auto stored = [&defaults](std::string_view key) {
    const Bytes bytes = defaults->data(key).value();
    return std::string(bytes.begin(), bytes.end());
  };
  FUZZ_CHECK(decodeTimingConfiguration(stored(TimingCoordinator::kGeneralConfigurationKey)) ==
             coordinator.currentConfiguration());
  FUZZ_CHECK(decodeTimingStates(stored(TimingCoordinator::kPerFlowStateKey)) ==
             coordinator.currentStates());
  return 0;
}
