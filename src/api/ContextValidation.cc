// Context::validate(): a readable check of the integration, for a developer holding the
// device. It builds the record a log would carry, without logging and without touching the
// context's per-log signals.
#include <string>
#include <vector>

#include "api/Engine.h"
#include "logging/LogDictionaries.h"
#include "logging/LogEncoder.h"
#include "models/CoreMLModelManager.h"
#include "models/ModelExecutionInformation.h"
#include "orvane/Context.h"
#include "orvane/Log.h"
#include "signals/SignalsManager.h"

namespace orvane {
namespace {

constexpr const char* kSupportAddress = "support@orvanepellam.com";
constexpr size_t kEnoughSignals = 150;

// A value as the platform prints it: text as is, floats in their shortest digits with ".0"
// on integral values (so a still device shows "0.0").
std::string printed(const PlistValue& value) {
  if (const std::string* text = value.asString()) return *text;
  if (auto f = value.asFloat()) {
    std::string text = shortestFloatText(*f);
    if (text.find_first_not_of("-0123456789") == std::string::npos) text += ".0";
    return text;
  }
  if (auto d = value.asDecimal()) return d->toString();
  return describe(value);
}

std::string printedOrUndefined(const PlistDictionary& raw, const char* key) {
  auto it = raw.find(key);
  return it == raw.end() ? "undefined" : printed(it->second);
}

std::string joined(const std::vector<std::string>& lines) {
  std::string out;
  for (const std::string& line : lines) {
    if (!out.empty()) out += "\n";
    out += line;
  }
  return out;
}

}  // namespace

std::string Context::validate() const noexcept {
  try {
    const std::shared_ptr<Engine> owner = ownerFor("validate");
    if (!owner) return "❌ Failed to validate the context: its ContextManager is gone";
    const bool modelAssigned = modelInfo_ && modelInfo_->executionInformation != nullptr;
    const std::string modeLine =
        modelAssigned ? "✅ Custom Model Active" : "✅ Calibration Mode active";
    if (owner->isSupported() == ContextManagerIsSupported::kUnsupported) {
      return joined(
          {"❌ You're currently running Orvane on an unsupported device (Simulator) - "
           "please run context.validate() on a physical iPhone",
           modeLine});
    }

    SignalList signals;
    CustomSignalList metadata;
    std::optional<bool> validMotion;
    {
      std::lock_guard<std::mutex> guard(mutex_);
      signals = signalsManager_->signals();
      metadata = outcomeMetadata_;
      validMotion = signalsManager_->boolValue(SignalEnum::id(192));
    }
    const CustomSignalList globals = owner->globalCustomSignals();
    auto encoded = owner->logEncoder().encodeLog(signals, customSignals_, globals);
    if (!encoded) {
      return joined({modeLine, std::string("❌ Failed to validate the context: ") +
                                   encoded.error().description +
                                   " - please report this problem to " + kSupportAddress});
    }
    const Log record(std::move(signals), customSignals_, globals, std::move(metadata),
                     std::move(encoded).value());
    const PlistDictionary raw = rawDictionary(record, owner->platform().log.get());
    const bool motionValid = validMotion.value_or(false);

    std::vector<std::string> lines{modeLine};
    lines.push_back(std::string(raw.size() > kEnoughSignals ? "✅" : "❌") +
                    " Number of Signals: " + std::to_string(raw.size()));
    lines.push_back("✅ Flow name provided: " + printedOrUndefined(raw, "ctx_20"));
    lines.push_back(std::string(motionValid ? "✅" : "❌") +
                    " Accelerometer Data: " + (motionValid ? "Valid" : "Invalid"));
    lines.push_back("👉 Signal Sample 1: " + printedOrUndefined(raw, "ctx_112") +
                    " (if your device was flat on the table not moving, this should be 0.0)");
    lines.push_back("👉 Signal Sample 2: " + printedOrUndefined(raw, "ctx_113") +
                    " (this should never be exactly 0.0)");
    lines.push_back("👉 Orvane Version: " + ContextManager::sdkVersion());
    if (modelAssigned) {
      lines.push_back("👉 Custom Model Version: " +
                      owner->coreMLModelManager().getCurrentAppliedGenerationId());
    }
    if (!motionValid) {
      lines.push_back(
          "❌ Insufficient Data During instantContext or calibrate(maxDelay: 0) Call - Check out "
          "the docs for further instructions");
    }
    return joined(lines);
  } catch (const std::exception& e) {
    return std::string("❌ Failed to validate the context: ") + e.what() +
           " - please report this problem to " + kSupportAddress;
  } catch (...) {
    return std::string("❌ Failed to validate the context - please report this problem to ") +
           kSupportAddress;
  }
}

}  // namespace orvane
