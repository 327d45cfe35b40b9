// File: SdkUploads.h
// Upload bodies made by the SDK itself: contexts created through the ordinary decision path
// on fake platform services, answered by a scripted user, their records written as the log
// sender uploads them. The user says yes more often when signal 113 is small, in one flow.
#pragma once

#include <cmath>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "api/ContextAccess.h"
#include "api/Engine.h"
#include "logging/LogDictionaries.h"
#include "logging/OrvaneLogSender.h"
#include "orvane/Context.h"
#include "orvane/Log.h"
#include "testutil/FakePlatform.h"
#include "testutil/ManagerHelpers.h"
#include "testutil/SignalReaders.h"

namespace orvane::testing {

inline constexpr const char* kLearnableFlow = "paywall";
inline constexpr const char* kNoiseFlow = "banner";

struct SdkUploads {
  // Every record sent, in order.
  std::vector<std::shared_ptr<Log>> logs;
  // Context id -> its first answer: the record the trainer takes a context's features from.
  std::map<std::string, std::shared_ptr<Log>> firstAnswer;
};

// Seeded draws and identifiers: the fake's counter repeats its identifiers after a few
// contexts, and the trainer's hold-out split follows the context ids.
class SeededRandomSource : public RandomSource {
 public:
  explicit SeededRandomSource(unsigned seed) : engine_(seed) {}
  float uniformFloat() override {
    std::lock_guard<std::mutex> guard(mutex_);
    return std::uniform_real_distribution<float>(0, 1)(engine_);
  }
  double uniformDouble() override {
    std::lock_guard<std::mutex> guard(mutex_);
    return std::uniform_real_distribution<double>(0, 1)(engine_);
  }
  int64_t uniformInt(int64_t lower, int64_t upper) override {
    std::lock_guard<std::mutex> guard(mutex_);
    return std::uniform_int_distribution<int64_t>(lower, upper)(engine_);
  }
  bool secureBytes(std::span<uint8_t> out) override {
    std::lock_guard<std::mutex> guard(mutex_);
    for (auto& b : out) b = static_cast<uint8_t>(engine_());
    return true;
  }

 private:
  std::mutex mutex_;
  std::mt19937 engine_;
};

// The request signals and custom signals of context `i`: every kind the SDK sends (float,
// integer, bool, text; custom bool, integer, float, text), some absent, a few NaN.
inline SignalList requestSignals(std::mt19937& random, int i, float stillness) {
  std::uniform_real_distribution<float> unit(0, 1);
  SignalList signals{SignalFloat(SignalEnum::id(113), stillness),
                     SignalInt(SignalEnum::id(191), 3)};
  if (i % 11 != 0) signals.push_back(SignalFloat(SignalEnum::id(70), unit(random) * 80));
  if (i % 13 == 0) {
    signals.push_back(SignalFloat(SignalEnum::id(71), NAN));
  } else if (i % 29 == 0) {
    signals.push_back(SignalFloat(SignalEnum::id(71), i % 3 ? INFINITY : -INFINITY));
  } else {
    signals.push_back(SignalFloat(SignalEnum::id(71), unit(random) - 0.5f));
  }
  // Large floats upload in their shortest form ("1.23e+10"), not their own value.
  signals.push_back(SignalFloat(SignalEnum::id(64), static_cast<float>(1 + random() % 90) * 1e9f));
  // A reading that is never available.
  signals.push_back(SignalFloat(SignalEnum::id(72), NAN));
  static const char* const kCountries[] = {"US", "DE", "FR", "BR", "JP"};
  // A rare value too, which no category takes.
  if (i % 250 == 2)
    signals.push_back(SignalString(SignalEnum::id(34), "NZ"));
  else if (i % 17 != 0)
    signals.push_back(SignalString(SignalEnum::id(34), kCountries[random() % 5]));
  signals.push_back(SignalBool(SignalEnum::id(51), random() % 2 == 0));
  signals.push_back(SignalInt(SignalEnum::id(66), static_cast<int64_t>(random() % 400)));
  return signals;
}

inline CustomSignalList customSignals(std::mt19937& random, int i) {
  static const char* const kPlans[] = {"free", "trial", "pro", "team"};
  CustomSignalList custom{CustomSignalInt("sessions", static_cast<int64_t>(random() % 40)),
                          CustomSignalBool("returning", random() % 3 == 0)};
  if (i % 250 == 4)
    custom.push_back(CustomSignalString("plan", "enterprise"));
  else if (i % 7 != 0)
    custom.push_back(CustomSignalString("plan", kPlans[random() % 4]));
  custom.push_back(CustomSignalFloat("ratio", static_cast<float>(random() % 1000) / 37.0f));
  return custom;
}

// `perFlow` contexts in each flow, all shown (the control rule with chance 1) and answered.
inline SdkUploads makeSdkUploads(int perFlow, unsigned seed) {
  FakePlatform fake;
  fake.platform.random = std::make_shared<SeededRandomSource>(seed);
  auto manager = std::make_shared<Engine>(fake.platform, ContextManagerIsSupported::kSupported);
  SentLogs sent;
  manager->setupWith("KEY-0123456789abcdef", sent.sender(), std::nullopt, Configuration{});
  for (const char* flow : {kLearnableFlow, kNoiseFlow}) {
    storeFlowRecord(*manager->userDefaultsProvider(), flow, controlRecord(1, 3));
  }
  std::mt19937 random(seed);
  std::uniform_real_distribution<float> unit(0, 1);
  std::vector<std::shared_ptr<Context>> contexts;
  for (int i = 0; i < 2 * perFlow; ++i) {
    const bool learnable = i % 2 == 0;
    const float stillness = unit(random) * 0.6f;
    auto context = ContextAccess::create(*manager, requestSignals(random, i, stillness),
                                         learnable ? kLearnableFlow : kNoiseFlow,
                                         customSignals(random, i), MethodUsed::kFetchContext);
    const double logit = learnable ? 12 * (0.3 - stillness) - 0.3 : -0.3;
    const bool yes = unit(random) < 1 / (1 + std::exp(-logit));
    context->log(yes ? EventOutcome::kPositiveConverted : EventOutcome::kNegativeDismissed);
    fake.clock->advance(37);
    contexts.push_back(std::move(context));
  }
  fake.drain();
  SdkUploads uploads;
  uploads.logs = sent.take();
  for (const auto& log : uploads.logs) {
    const Signal* uuid = findSignal(log->signals(), 29);
    const Signal* outcome = findSignal(log->signals(), 3);
    if (!uuid || !outcome || std::get<int64_t>(outcome->value()) < -3) continue;
    uploads.firstAnswer.emplace(std::get<std::string>(uuid->value()), log);
  }
  return uploads;
}

// The records as upload bodies of `perFile` records each, named in sending order.
inline void writeUploadBodies(const SdkUploads& uploads, const std::filesystem::path& folder,
                              size_t perFile = 400) {
  std::filesystem::create_directories(folder);
  std::vector<PlistDictionary> records;
  for (const auto& log : uploads.logs) records.push_back(rawDictionaryWithStaticColumns(*log));
  OrvaneLogSender::UploadBodyFields fields{"com.example.host", "KEY-0123456789abcdef", "5.13.0", 0,
                                           "installation"};
  for (size_t first = 0, file = 0; first < records.size(); first += perFile, ++file) {
    std::vector<const PlistDictionary*> batch;
    for (size_t i = first; i < std::min(records.size(), first + perFile); ++i) {
      batch.push_back(&records[i]);
    }
    auto body = OrvaneLogSender::encodeUploadBody(batch, fields);
    char name[32];
    std::snprintf(name, sizeof name, "upload-%04zu.json", file);
    std::ofstream(folder / name) << body.value_or("not written");
  }
}

}  // namespace orvane::testing
