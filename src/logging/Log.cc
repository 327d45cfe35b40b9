#include "orvane/Log.h"

#include "logging/LogDictionaries.h"

#include <algorithm>
#include <array>

#include "api/Engine.h"
#include "logging/AnyEncodable.h"
#include "logging/OrvaneLogSender.h"
#include "util/Base64.h"

namespace orvane {
namespace {

PlistValue plistValue(const SignalValue& value) {
  return std::visit([](const auto& v) { return PlistValue(v); }, value);
}

// Columns come from the signal catalogue, which ends below 1024.
constexpr size_t kColumnLimit = 1024;
static_assert(signal_catalogue::kAllIds.back() < kColumnLimit);

struct ColumnKeys {
  std::array<std::string, kColumnLimit> keys;  // "ctx_<column>"
  std::array<uint16_t, kColumnLimit> byKey;    // columns in the map's (text) order
  ColumnKeys() {
    for (size_t c = 0; c < kColumnLimit; ++c) {
      keys[c] = "ctx_" + std::to_string(c);
      byKey[c] = static_cast<uint16_t>(c);
    }
    std::sort(byKey.begin(), byKey.end(),
              [&](uint16_t a, uint16_t b) { return keys[a] < keys[b]; });
  }
};

// Built-in signals by column, a later signal of a column replacing an earlier one. The map is
// filled in key order with end hints, so each insertion costs one comparison.
void putBuiltInSignals(PlistDictionary& out, const SignalList& signals) {
  static const ColumnKeys columns;
  std::array<int32_t, kColumnLimit> latest;
  latest.fill(-1);
  for (size_t i = 0; i < signals.size(); ++i) {
    latest[signals[i].id().rawValue()] = static_cast<int32_t>(i);
  }
  for (uint16_t c : columns.byKey) {
    if (latest[c] < 0) continue;
    out.insert_or_assign(out.end(), columns.keys[c], plistValue(signals[latest[c]].value()));
  }
}

void putLastWins(PlistDictionary& out, const char* prefix, const CustomSignalList& signals) {
  for (const auto& s : signals) out.insert_or_assign(prefix + s.id(), plistValue(s.value()));
}

// Base64 of the encoded form cut into pieces of `width` characters, the last holding the rest.
std::vector<std::string> pieces(const Bytes& data, size_t width) {
  const std::string text = base64Encode(data);
  std::vector<std::string> out;
  for (size_t i = 0; i < text.size(); i += width) out.push_back(text.substr(i, width));
  return out;
}

// The value as the host wrote it: text without quotes, numbers in their shortest form.
std::string plainText(const PlistValue& value) {
  if (const std::string* text = value.asString()) return *text;
  if (auto f = value.asFloat()) return shortestFloatText(*f);
  return describe(value);
}

}  // namespace

Log::Log(SignalList signals, CustomSignalList customSignals, CustomSignalList globalSignals,
         CustomSignalList outcomeMetadata, Bytes encodedData)
    : Log(std::move(signals), std::move(customSignals), std::move(globalSignals),
          std::move(outcomeMetadata), std::move(encodedData), std::weak_ptr<void>()) {}

Log::Log(SignalList signals, CustomSignalList customSignals, CustomSignalList globalSignals,
         CustomSignalList outcomeMetadata, Bytes encodedData, std::weak_ptr<void> owner)
    : signals_(std::move(signals)),
      customSignals_(std::move(customSignals)),
      globalSignals_(std::move(globalSignals)),
      outcomeMetadata_(std::move(outcomeMetadata)),
      encodedData_(std::move(encodedData)),
      owner_(std::move(owner)) {}

void Log::send() noexcept {
  try {
    auto owner = Engine::hold(std::static_pointer_cast<Engine>(owner_.lock()));
    if (!owner || owner->isShutDown()) return;
    OrvaneLogSender& sender = owner->orvaneLogSender();
    const Signal* outcome = nullptr;
    const Signal* contextUUID = nullptr;
    for (const Signal& s : signals_) {
      if (!outcome && s.id() == SignalEnum::id(3)) outcome = &s;
      if (!contextUUID && s.id() == SignalEnum::id(29)) contextUUID = &s;
    }
    if (outcome && outcome->kind() == SignalKind::kInt &&
        std::get<int64_t>(outcome->value()) == -101) {
      sender.addToUnloggedQueue(*this);
      return;
    }
    if (contextUUID && contextUUID->kind() == SignalKind::kString) {
      sender.removeUnloggedEventFromQueue(std::get<std::string>(contextUUID->value()));
    }
    sender.addToQueue(*this);
  } catch (...) {  // never let a queue failure reach the host
  }
}

std::shared_ptr<Log> makeEngineLog(SignalList signals, CustomSignalList customSignals,
                                   CustomSignalList globalSignals, CustomSignalList outcomeMetadata,
                                   Bytes encodedData, std::weak_ptr<Engine> owner) {
  struct EngineLog final : Log {
    EngineLog(SignalList s, CustomSignalList c, CustomSignalList g, CustomSignalList o, Bytes e,
              std::weak_ptr<void> owner)
        : Log(std::move(s), std::move(c), std::move(g), std::move(o), std::move(e),
              std::move(owner)) {}
  };
  return std::make_shared<EngineLog>(std::move(signals), std::move(customSignals),
                                     std::move(globalSignals), std::move(outcomeMetadata),
                                     std::move(encodedData), std::weak_ptr<void>(std::move(owner)));
}

PlistDictionary rawDictionaryWithStaticColumns(const Log& log) {
  PlistDictionary out;
  putBuiltInSignals(out, log.signals());
  PlistDictionary custom;
  putLastWins(custom, "f_", log.customSignals());
  putLastWins(custom, "g_", log.globalSignals());
  PlistDictionary outcome;
  putLastWins(outcome, "o_", log.outcomeMetadata());
  out.insert_or_assign("ctx_custom_signals", std::move(custom));
  out.insert_or_assign("ctx_outcome_metadata", std::move(outcome));
  return out;
}

PlistDictionary rawDictionary(const Log& log, SystemLog* collisions) {
  PlistDictionary out;
  putBuiltInSignals(out, log.signals());
  auto putFirstWins = [&](const char* prefix, const CustomSignalList& signals, const char* kind) {
    for (const auto& s : signals) {
      auto [it, inserted] = out.try_emplace(prefix + s.id(), plistValue(s.value()));
      if (!inserted && collisions) {
        const std::string kept = plainText(it->second);
        collisions->error(std::string("[Orvane] ") + kind + " with id " + s.id() +
                          " is already set. We're proceeding with the value '" + kept +
                          "' for this signal.");
      }
    }
  };
  putFirstWins("f_", log.customSignals(), "Custom signal");
  putFirstWins("g_", log.globalSignals(), "Global signal");
  putFirstWins("o_", log.outcomeMetadata(), "Outcome metadata");
  return out;
}

PlistDictionary Log::dictionary() const noexcept {
  PlistDictionary out;
  std::string version = "0.0.0";
  for (const Signal& s : signals_) {
    if (s.id() == SignalEnum::id(1)) {
      if (s.kind() == SignalKind::kString) version = std::get<std::string>(s.value());
      break;
    }
  }
  out.emplace("ctx_1", version);
  const auto parts = pieces(encodedData_, 96);
  for (size_t i = 0; i < parts.size(); ++i) {
    out.emplace("ctx_" + std::to_string(401 + i), std::to_string(i) + "_" + parts[i]);
  }
  out.emplace("ctx_400", static_cast<int64_t>(parts.size()));
  return out;
}

PlistDictionary Log::dictionaryWithStaticColumns() const noexcept { return dictionary(); }

std::map<std::string, std::string> Log::forFirebase() const noexcept {
  std::map<std::string, std::string> out;
  const auto parts = pieces(encodedData_, 97);
  for (size_t i = 0; i < parts.size(); ++i) {
    out.emplace("c_sdk_param_" + std::to_string(i), std::to_string(i) + "_" + parts[i]);
  }
  return out;
}

std::string Log::toJSONString() const noexcept {
  auto json = AnyEncodable(PlistValue(dictionary())).toJson();
  return json ? *json : std::string("{}");
}

std::string Log::toBase64() const noexcept { return base64Encode(encodedData_); }

Bytes Log::toData() const noexcept { return encodedData_; }

}  // namespace orvane
