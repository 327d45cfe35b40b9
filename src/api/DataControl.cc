// The host's controls over what the SDK keeps and sends: consent, erase and shutdown.
#include <string>
#include <string_view>
#include <vector>

#include "api/Absorbing.h"
#include "api/Engine.h"
#include "api/PeriodicContextEvaluator.h"
#include "config/RemoteConfiguration.h"
#include "generators/AppLaunchSignalsGenerator.h"
#include "generators/GeoIPSignalGenerator.h"
#include "logging/OrvaneLogSender.h"
#include "models/CoreMLModelManager.h"
#include "motion/AccelerometerSensor.h"
#include "timing/TimingCoordinator.h"
#include "util/UserDefaultsProvider.h"

namespace orvane {
namespace {

const char* nameOf(ConsentState state) {
  switch (state) {
    case ConsentState::kGranted:
      return "granted";
    case ConsentState::kDenied:
      return "denied";
    case ConsentState::kUnknown:
      break;
  }
  return "unknown";
}

}  // namespace

void Engine::setConsent(ConsentState state) noexcept {
  absorbing(platform_, "setConsent", [&] {
    if (state != ConsentState::kUnknown && state != ConsentState::kGranted &&
        state != ConsentState::kDenied) {
      platform_.log->error(
          "[Orvane] ContextManager.setConsent: " + std::to_string(static_cast<int>(state)) +
          " is not a consent state; nothing changes.");
      return;
    }
    collectionChanged(consent_->setState(state), nameOf(state));
  });
}

ConsentState Engine::consent() const { return consent_->state(); }

bool Engine::collectionAllowed() const { return consent_->allowed(); }

void Engine::collectionChanged(CollectionConsent::Change change, const char* why) {
  const bool atSetup = std::string_view(why) == "setup";
  if (change.wasAllowed && !change.nowAllowed) {
    orvaneLogSender().discardQueues([defaults = defaults_] { defaults->forgetRemoved(); });
    if (atSetup) {
      // Learnt at setup (the first launch that requires consent): what this launch wrote so
      // far was taken back from the suite, and there is usually nothing queued to speak of.
      platform_.log->info(
          "[Orvane] Consent is required and not granted: nothing is stored or sent.");
    } else {
      platform_.log->notice(std::string("[Orvane] Consent ") + why +
                            ": queued records deleted; nothing is stored or sent until consent "
                            "is granted.");
    }
  } else if (!change.wasAllowed && change.nowAllowed) {
    platform_.log->info(std::string("[Orvane] Consent ") + why + ": collection starts now.");
    if (platform_.executors) {
      platform_.executors->mainQueue()->async([weak = weakHandle()] {
        if (auto engine = hold(weak)) engine->triggerBothUploadQueues();
      });
    }
  } else if (!change.nowAllowed && atSetup) {
    platform_.log->info("[Orvane] Consent is required and not granted: nothing is stored or sent.");
  }
}

void Engine::resetAllData() noexcept {
  absorbing(platform_, "resetAllData", [&] {
    // The queues go on the sender's queue, behind every record handed over before this call
    // (moments later: the queue never waits for the network).
    orvaneLogSender().discardQueues(nullptr);
    // Under a new generation: an upload answer or model update asked for before this call
    // finds it moved and is dropped, and one writing now ends before the erase begins.
    bool durable = false;
    erasures_->advance([&] {
      // What components keep in memory goes before the suite, so that none of it is written
      // back over the erase.
      coreMLModelManager().eraseAll();
      remoteConfiguration().forgetStored();
      timingCoordinator().forgetStored();
      geoIPSignalGenerator().forget();
      appLaunchSignals_->forgetHistory();
      {
        std::lock_guard<std::mutex> guard(stateMutex_);
        installationUUID_.reset();
        installationUUIDIsInterim_ = false;
      }
      std::vector<std::string> kept = CollectionConsent::keysKeptOnErase();
      kept.emplace_back(OrvaneLogSender::kMainQueueKey);
      kept.emplace_back(OrvaneLogSender::kUnloggedQueueKey);
      durable = defaults_->eraseAllExcept(kept);
    });
    // Behind the queues' deletion, so that the records go from the files too.
    orvaneLogSender().onQueue([defaults = defaults_] { defaults->forgetRemoved(); });
    if (durable) {
      platform_.log->notice("[Orvane] All data erased: the next start is a new installation.");
    } else {
      platform_.log->error("[Orvane] Data erased, but the store did not confirm it as durable.");
    }
  });
}

bool Engine::shutdown(double timeoutSeconds) noexcept {
  bool emptied = false;
  absorbing(platform_, "shutdown", [&] {
    if (shutDown_.load()) return;
    emptied = collectionAllowed() && flush(timeoutSeconds);
    shutDown_.store(true);
    periodicContextEvaluator().appWillResign();
    AccelerometerSensor& sensor = accelerometerSensor();
    sensor.setAlwaysRunInForeground(false);
    {
      std::lock_guard<std::mutex> guard(sensor.accelerometerStateLock());
      sensor.setAppInForeground(false);
      sensor.maybeStopAccelerometer();
    }
    defaults_->synchronize();
    platform_.log->notice("[Orvane] Shut down: later calls do nothing.");
  });
  return emptied;
}

}  // namespace orvane
