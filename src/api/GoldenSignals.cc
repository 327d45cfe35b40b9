// Golden signals: for a bid of the host's ad stack, an instant context is created and logged,
// and a few of its values go back to the ad stack under an identifier that ties the bid to
// the logged record.
#include <algorithm>

#include "api/Absorbing.h"
#include "api/ContextAccess.h"
#include "api/Engine.h"
#include "config/RemoteConfiguration.h"
#include "generators/AppLaunchSignalsGenerator.h"
#include "logging/NanoIDGenerator.h"
#include "logging/OrvaneErrorReporting.h"
#include "motion/ActivityRecognitionManager.h"
#include "orvane/Context.h"

namespace orvane {
namespace {

constexpr const char* kFlowName = "Orvane_41e6625b_golden_signals";
constexpr int64_t kDefaultDurationSeconds = 3;

PlistValue plistValue(const SignalValue& value) {
  return std::visit([](const auto& v) { return PlistValue(v); }, value);
}

std::string taggerKeySuffix(std::string version) {
  std::replace(version.begin(), version.end(), '.', '_');
  return version;
}

}  // namespace

PlistDictionary Engine::collectGoldenSignals(const std::optional<std::string>& trigger,
                                             const std::optional<std::string>& bidID) noexcept {
  PlistDictionary result;
  absorbing(platform_, "goldenSignals", [&] {
    const ConfigurationData settings = remoteConfiguration().getConfiguration();
    const int64_t duration =
        settings.goldenSignalsDurationSeconds.value_or(kDefaultDurationSeconds);
    const std::string flowName = trigger ? std::string(kFlowName) + "_" + *trigger : kFlowName;
    auto context = requestInstantContext(flowName, duration, {}, MethodUsed::kGoldenSignals);
    if (!context) return;

    const std::string goldenId =
        NanoIDGenerator::generateTavelNanoID(*platform_.random, orvaneErrorReporting());
    if (trigger)
      ContextAccess::appendSignals(*context, {SignalString(SignalEnum::id(750), *trigger)});
    ContextAccess::appendSignals(*context, {SignalString(SignalEnum::id(751), goldenId)});
    if (bidID) ContextAccess::appendSignals(*context, {SignalString(SignalEnum::id(752), *bidID)});
    ContextAccess::logWithArbitraryOutcome(*context, Context::kGoldenSignalsOutcome,
                                           EventType::kCreation);

    result.insert_or_assign("ctxId", goldenId);
    if (settings.returnContextDurationAsGoldenSignal.value_or(false)) {
      result.insert_or_assign("contextDuration", duration);
    }
    const SignalList signals = context->signals();
    const std::vector<uint16_t> wanted = settings.goldenSignals.value_or(std::vector<uint16_t>{});
    std::optional<bool> validMotion;  // the first signal 192 decides
    for (const Signal& signal : signals) {
      const uint16_t id = signal.id().rawValue();
      if (std::find(wanted.begin(), wanted.end(), id) != wanted.end()) {
        result.insert_or_assign("c" + std::to_string(id), plistValue(signal.value()));
      }
      if (id == 192 && !validMotion) {
        const bool* valid = std::get_if<bool>(&signal.value());
        validMotion = valid && *valid;
      }
    }

    if (!settings.activityTaggerVersion) return;
    const std::vector<ActivityType> activities = remoteConfiguration().parsedActivities();
    if (activities.empty() || !validMotion.value_or(false)) return;
    const std::string suffix = "_" + taggerKeySuffix(*settings.activityTaggerVersion);
    ActivityRecognitionManager& recognition = activityRecognitionManager();
    for (ActivityType activity : activities) {
      auto model = recognition.getOrLoadModel(activity);
      if (!model) continue;
      if (auto score = recognition.evaluateModel(*model, signals)) {
        result.insert_or_assign("u_" + std::string(rawName(activity)) + suffix, *score);
      }
    }
  });
  return result;
}

}  // namespace orvane
