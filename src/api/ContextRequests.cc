// The request forms: each assembles the request's signals (head, motion, defaults), waits for
// motion data where it may, and creates the context that decides. Contexts of asynchronous
// requests are created, and every callback runs, on the main queue.
#include <algorithm>
#include <cstdio>

#include "api/Absorbing.h"
#include "api/ContextAccess.h"
#include "api/Engine.h"
#include "config/RemoteConfiguration.h"
#include "generators/AppLaunchReasonSignalsGenerator.h"
#include "generators/AppLaunchSignalsGenerator.h"
#include "generators/GeoIPSignalGenerator.h"
#include "generators/InternetSignalsGenerator.h"
#include "generators/OutputSignalsGenerator.h"
#include "generators/PushSettingsSignalGenerator.h"
#include "generators/StaticSignalsGenerator.h"
#include "generators/TimeSignalsGenerator.h"
#include "models/CoreMLModelManager.h"
#include "models/ModelExecutionInformation.h"
#include "motion/AccelerometerSensor.h"
#include "motion/PendingFetchContextCall.h"
#include "util/DateProvider.h"

namespace orvane {
namespace {

constexpr size_t kMaximumFlowNameLength = 500;
constexpr int64_t kDefaultDelaySeconds = 3;
// A waiting request is answered once its window of motion data is valid; the buffer keeps 20
// seconds, so a longer (or an empty) window would never be, and the sensor would sample on.
constexpr int64_t kShortestWaitSeconds = 1;
constexpr int64_t kLongestWaitSeconds = 20;
static_assert(kLongestWaitSeconds <= AccelerometerSensor::kCleanupRetentionDuration);

constexpr const char* kInstantContextDisabledMessage =
    "[Orvane] Using ContextManager.instantContext or specifying a maxDelay of 0 requires instant "
    "context to be enabled in the configuration. Please enable instant context in the "
    "Configuration or switch to ContextManager.fetchContext / a non-zero maxDelay.";

SignalList requestHead(bool mayWait, int64_t duration) {
  return {SignalBool(SignalEnum::id(21), mayWait), SignalInt(SignalEnum::id(191), duration)};
}

void appendAll(SignalList& to, const SignalList& from) {
  to.insert(to.end(), from.begin(), from.end());
}

}  // namespace

// ---- Shared steps -------------------------------------------------------------------------

namespace {

// Characters are Unicode code points: every UTF-8 byte but a continuation byte starts one.
size_t characterCount(const std::string& text) {
  return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char c) {
    return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
  }));
}

void applyFlowNameRule(const std::string& flowName, SystemLog& log) {
  if (flowName.size() <= kMaximumFlowNameLength ||
      characterCount(flowName) <= kMaximumFlowNameLength) {
    return;
  }
  log.error("[Orvane] Flow name \"" + flowName + "\" exceeds the maximum allowed length of " +
            std::to_string(kMaximumFlowNameLength) + " characters.");
}

const char* publicName(MethodUsed method) {
  switch (method) {
    case MethodUsed::kOptimize:
      return "optimize";
    case MethodUsed::kCalibrate:
      return "calibrate";
    default:
      return "fetchContext";
  }
}

// The wait clamped into what the motion buffer can answer, with a line when that changed it.
int64_t answerableDuration(int64_t seconds, MethodUsed method, SystemLog& log) {
  const int64_t clamped = std::clamp(seconds, kShortestWaitSeconds, kLongestWaitSeconds);
  if (clamped != seconds) {
    log.error("[Orvane] ContextManager." + std::string(publicName(method)) + " was asked for " +
              std::to_string(seconds) + " s of motion data, but a request can wait for " +
              std::to_string(kShortestWaitSeconds) + " to " + std::to_string(kLongestWaitSeconds) +
              " s only; it is answered with " + std::to_string(clamped) + " s.");
  }
  return clamped;
}

// Whether this request also records the raw motion samples.
bool sampleAdditionalRecord(Engine& manager) {
  const float rate = manager.remoteConfiguration().getConfiguration().additionalAccelDataSampleRate;
  if (rate <= 0) return false;
  if (rate >= 1) return true;
  const auto draw = manager.platform().random->uniformInt(0, 16777216);
  return static_cast<double>(draw) * 0x1p-24 <= static_cast<double>(rate);
}

void onMain(Engine& manager, Task task) {
  auto main = manager.platform().executors->mainQueue();
  if (main->isCurrent()) {
    task();
  } else {
    main->async(std::move(task));
  }
}

}  // namespace

SignalList Engine::allDefaultSignals() {
  // One zone for all of this context's readings: day keys, zone name and abbreviation, hour.
  if (platform_.calendar) platform_.calendar->refreshZone();
  appLaunchSignals_->updateLastAppWillResignDate();
  SignalList signals;
  signals.reserve(160);
  const Configuration options = configuration();
  if (options.enableAutomaticAppLaunchBehaviourLogging) {
    appendAll(signals, appLaunchSignals_->appLaunchSignals());
    appendAll(signals, appLaunchSignals_->appSecondsSignals(currentSessionStarted()));
  }
  appendAll(signals, staticSignalsGenerator().staticSignals());
  appendAll(signals, outputSignalsGenerator().outputSignals());
  appendAll(signals,
            TimeSignalsGenerator::timeSignals(*platform_.calendar, dateProvider_->currentDate()));
  appendAll(signals, internetSignals_->internetSignals());
  appendAll(signals, coreMLModelManager().allSignals());
  appendAll(signals, geoIPSignalGenerator().allSignals());
  appendAll(signals, pushSettingsSignalGenerator().pushSettingsSignals());
  appendAll(signals, launchReason_->allSignals());
  appendAll(signals, options.allSignals());
  return signals;
}

// ---- The forms ----------------------------------------------------------------------------

void Engine::requestFetchContext(const std::string& flowName, int64_t requestedDuration,
                                 const CustomSignalList& customSignals, ContextCallback callback,
                                 MethodUsed method) noexcept {
  absorbing(platform_, "fetchContext", [&] {
    applyFlowNameRule(flowName, *platform_.log);
    const int64_t duration = answerableDuration(requestedDuration, method, *platform_.log);
    AccelerometerSensor& sensor = accelerometerSensor();
    {
      std::lock_guard<std::mutex> guard(sensor.accelerometerStateLock());
      sensor.addOpenRequest();
      sensor.maybeStartAccelerometer();
    }
    auto signals = std::make_shared<SignalList>(requestHead(true, duration));
    const bool logAdditional = sampleAdditionalRecord(*this);
    // Continues on the main queue once the motion signals are there.
    auto finish = [this, flowName, customSignals, callback, method,
                   signals](std::shared_ptr<RawMotionCapture> rawMotion) {
      AccelerometerSensor& sensor = accelerometerSensor();
      {
        std::lock_guard<std::mutex> guard(sensor.accelerometerStateLock());
        sensor.removeOpenRequest();
        sensor.maybeStopAccelerometer();
      }
      auto context = ContextAccess::create(*this, *signals, flowName, customSignals, method, {},
                                           std::move(rawMotion));
      if (callback) callback(context);
    };
    MotionAnswer motion = sensor.allSignals(duration, logAdditional);
    if (AccelerometerSensor::hasValidAccelerometerData(motion.signals)) {
      appendAll(*signals, motion.signals);
      appendAll(*signals, allDefaultSignals());
      platform_.executors->mainQueue()->async(
          [finish, rawMotion = std::move(motion.rawMotion)] { finish(rawMotion); });
      return;
    }
    auto call = std::make_shared<PendingFetchContextCall>();
    call->flowName = flowName;
    call->durationToUse = duration;
    call->logAdditionalAccelData = logAdditional;
    call->callback = [this, signals, finish](MotionAnswer answer) {
      appendAll(*signals, answer.signals);
      appendAll(*signals, allDefaultSignals());
      platform_.executors->mainQueue()->async(
          [finish, rawMotion = std::move(answer.rawMotion)] { finish(rawMotion); });
    };
    sensor.requestCallback(duration, std::move(call));
  });
}

std::shared_ptr<Context> Engine::requestInstantContext(const std::string& flowName,
                                                       int64_t duration,
                                                       const CustomSignalList& customSignals,
                                                       MethodUsed method) noexcept {
  std::shared_ptr<Context> context;
  absorbing(platform_, "instantContext", [&] {
    applyFlowNameRule(flowName, *platform_.log);
    if (!configuration().enableInstantContext && method != MethodUsed::kFurther10) {
      platform_.log->error(kInstantContextDisabledMessage);
    }
    SignalList signals = requestHead(false, duration);
    appendAll(signals, allDefaultSignals());
    std::shared_ptr<RawMotionCapture> rawMotion;
    if (isSupported_ == ContextManagerIsSupported::kSupported) {
      const bool logAdditional = method != MethodUsed::kFurther10 && sampleAdditionalRecord(*this);
      MotionAnswer motion = accelerometerSensor().allSignals(duration, logAdditional);
      appendAll(signals, motion.signals);
      rawMotion = std::move(motion.rawMotion);
    }
    context = ContextAccess::create(*this, std::move(signals), flowName, customSignals, method, {},
                                    std::move(rawMotion));
  });
  return context;
}

void Engine::requestOptimize(const std::string& flowName, std::optional<int64_t> maxDelay,
                             const CustomSignalList& customSignals,
                             ContextCallback callback) noexcept {
  absorbing(platform_, "optimize", [&] {
    const CustomModelInfo info = coreMLModelManager().getModelInfoForFlow(flowName);
    const bool hasModel =
        dynamic_cast<const CoreMLModelExecutionInformation*>(info.executionInformation.get());
    if (!hasModel) {
      const int64_t delay = maxDelay.value_or(kDefaultDelaySeconds);
      if (delay < 1) {
        auto context = requestInstantContext(flowName, kDefaultDelaySeconds, customSignals,
                                             MethodUsed::kOptimize);
        onMain(*this, [callback, context] {
          if (callback) callback(context);
        });
      } else {
        requestFetchContext(flowName, delay, customSignals, callback, MethodUsed::kOptimize);
      }
      return;
    }
    // The flow's own model decides: a "no" is logged at once, before the host sees it.
    ContextCallback answer = [callback](std::shared_ptr<Context> context) {
      if (context && !context->shouldUpsell()) {
        ContextAccess::logWithArbitraryOutcome(*context, Context::kAutomaticNegativeOutcome,
                                               EventType::kOutcome);
      }
      if (callback) callback(context);
    };
    const int64_t needed = info.supportedDuration;
    bool instant = info.useInstantContext;
    if (!instant && maxDelay && *maxDelay < needed) {
      char line[1024];
      std::snprintf(line, sizeof line,
                    "[Orvane] You are using a custom model for \"%s\" requiring %llds of data "
                    "while supplying a lower maxDelay value of %llds. Please make sure to call "
                    ".optimize() with the correct maxDelay value.",
                    flowName.c_str(), static_cast<long long>(needed),
                    static_cast<long long>(*maxDelay));
      platform_.log->error(line);
      instant = true;
    }
    if (instant) {
      auto context = requestInstantContext(flowName, needed, customSignals, MethodUsed::kOptimize);
      onMain(*this, [answer, context] { answer(context); });
    } else {
      requestFetchContext(flowName, needed, customSignals, answer, MethodUsed::kOptimize);
    }
  });
}

void Engine::requestCalibrate(const std::string& flowName, int64_t maxDelay,
                              const CustomSignalList& customSignals,
                              ContextCallback callback) noexcept {
  absorbing(platform_, "calibrate", [&] {
    ContextCallback answer = [this, callback](std::shared_ptr<Context> context) {
      if (context && ContextAccess::modelInfo(*context).executionInformation) {
        platform_.log->error(
            "[Orvane] You're using the `calibrate` method for a flow for which you already have a "
            "custom model for. To act on the recommendations of your custom model, update your "
            "call to:\n\n");
        platform_.log->error("ContextManager.optimize(customModel: .[yourModelNameHere], ...)");
      }
      if (callback) callback(context);
    };
    if (maxDelay < 1) {
      auto context = requestInstantContext(flowName, kDefaultDelaySeconds, customSignals,
                                           MethodUsed::kCalibrate);
      onMain(*this, [answer, context] { answer(context); });
    } else {
      requestFetchContext(flowName, maxDelay, customSignals, answer, MethodUsed::kCalibrate);
    }
  });
}

void Engine::cancelContextCallbackFor(const std::string& flowName) noexcept {
  absorbing(platform_, "cancelContextCallback", [&] {
    AccelerometerSensor& sensor = accelerometerSensor();
    const int64_t dropped = sensor.cancelCallbackForFlow(flowName);
    std::lock_guard<std::mutex> guard(sensor.accelerometerStateLock());
    for (int64_t i = 0; i < dropped; ++i) sensor.removeOpenRequest();
    if (dropped > 0) sensor.maybeStopAccelerometer();
  });
}

}  // namespace orvane
