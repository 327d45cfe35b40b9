#include "LogCommands.h"

#include <fstream>
#include <iostream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "logging/AES.h"
#include "logging/LogDecoder.h"
#include "logging/LogEncoder.h"
#include "orvane/platform/Platform.h"
#include "orvane/platform/linux/LinuxPlatform.h"
#include "util/Base64.h"

namespace orvane::sim {
namespace {

std::optional<std::string> readFile(const std::string& path, std::string& error) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    error = "cannot read " + path;
    return std::nullopt;
  }
  std::stringstream buffer;
  buffer << in.rdbuf();
  return buffer.str();
}

// One {"id": ..., "kind": ..., "value": ...} entry as a value of the signal kinds.
std::optional<SignalValue> parseValue(const nlohmann::json& entry, std::string& error) {
  const std::string kind = entry.value("kind", "");
  const auto value = entry.find("value");
  if (value == entry.end()) {
    error = "entry without \"value\"";
    return std::nullopt;
  }
  if (kind == "bool" && value->is_boolean()) return SignalValue(value->get<bool>());
  if (kind == "int" && value->is_number_integer()) return SignalValue(value->get<int64_t>());
  if (kind == "float" && value->is_number()) return SignalValue(value->get<float>());
  if (kind == "string" && value->is_string()) return SignalValue(value->get<std::string>());
  if (kind == "decimal") {
    const std::string text = value->is_string() ? value->get<std::string>() : value->dump();
    if (auto d = Decimal::parse(text)) return SignalValue(*d);
  }
  error = "entry of kind \"" + kind + "\" has an unusable value " + value->dump();
  return std::nullopt;
}

Signal makeSignal(SignalEnum id, const SignalValue& value) {
  switch (value.index()) {
    case 0:
      return SignalBool(id, std::get<bool>(value));
    case 1:
      return SignalInt(id, std::get<int64_t>(value));
    case 2:
      return SignalFloat(id, std::get<float>(value));
    case 3:
      return SignalDecimal(id, std::get<Decimal>(value));
    default:
      return SignalString(id, std::get<std::string>(value));
  }
}

CustomSignal makeCustom(const std::string& id, const SignalValue& value) {
  switch (value.index()) {
    case 0:
      return CustomSignalBool(id, std::get<bool>(value));
    case 1:
      return CustomSignalInt(id, std::get<int64_t>(value));
    case 2:
      return CustomSignalFloat(id, std::get<float>(value));
    case 3:
      return CustomSignalDecimal(id, std::get<Decimal>(value));
    default:
      return CustomSignalString(id, std::get<std::string>(value));
  }
}

struct SignalFile {
  SignalList signals;
  CustomSignalList customSignals;
  CustomSignalList globalSignals;
};

std::optional<SignalFile> parseSignalFile(const std::string& text, std::string& error) {
  const auto json = nlohmann::json::parse(text, nullptr, false);
  if (json.is_discarded() || !json.is_object()) {
    error = "the signals file is not a JSON object";
    return std::nullopt;
  }
  SignalFile out;
  for (const auto& entry : json.value("signals", nlohmann::json::array())) {
    if (!entry.is_object() || !entry.contains("id") || !entry["id"].is_number_unsigned()) {
      error = "a signal needs a numeric \"id\": " + entry.dump();
      return std::nullopt;
    }
    const auto raw = entry["id"].get<uint64_t>();
    auto id = raw <= 65535 ? SignalEnum::fromRawValue(static_cast<uint16_t>(raw)) : std::nullopt;
    if (!id) {
      error = "signal id " + std::to_string(raw) + " is not in the catalogue";
      return std::nullopt;
    }
    auto value = parseValue(entry, error);
    if (!value) return std::nullopt;
    out.signals.push_back(makeSignal(*id, *value));
  }
  for (const char* group : {"customSignals", "globalSignals"}) {
    for (const auto& entry : json.value(group, nlohmann::json::array())) {
      if (!entry.is_object() || !entry.contains("id") || !entry["id"].is_string()) {
        error = std::string("a custom signal needs a text \"id\": ") + entry.dump();
        return std::nullopt;
      }
      auto value = parseValue(entry, error);
      if (!value) return std::nullopt;
      (std::string(group) == "customSignals" ? out.customSignals : out.globalSignals)
          .push_back(makeCustom(entry["id"].get<std::string>(), *value));
    }
  }
  return out;
}

}  // namespace

void addLogCommands(CLI::App& app, int& exitCode) {
  auto* encode =
      app.add_subcommand("encode-log", "encode a signal list into the encrypted log form");
  static std::string encodeKey, signalsPath;
  encode->add_option("--key", encodeKey, "the app key")->required();
  encode
      ->add_option("--signals", signalsPath, "JSON file with signals, customSignals, globalSignals")
      ->required();
  encode->callback([&exitCode] {
    std::string error;
    auto text = readFile(signalsPath, error);
    auto file = text ? parseSignalFile(*text, error) : std::nullopt;
    if (!file) {
      std::cerr << "encode-log: " << error << "\n";
      exitCode = 1;
      return;
    }
    LogEncoder encoder(makeOpenSslCrypto(), makeSystemRandomSource(), makeStderrLog(), nullptr);
    auto encoded = encoder.encodeLogWithKey(file->signals, file->customSignals, file->globalSignals,
                                            deriveLogEncryptionKey(encodeKey));
    if (!encoded) {
      std::cerr << "encode-log: " << encoded.error().domain << " " << encoded.error().code << ": "
                << encoded.error().description << "\n";
      exitCode = 1;
      return;
    }
    std::cout << base64Encode(*encoded) << "\n";
  });

  auto* decode = app.add_subcommand("decode-log", "decrypt and decode an encoded log");
  static std::string decodeKey, b64, dictPath;
  decode->add_option("--key", decodeKey, "the app key")->required();
  auto* b64Option = decode->add_option("--b64", b64, "the base64 text (toBase64())");
  auto* dictOption =
      decode->add_option("--dict", dictPath, "a JSON file holding dictionary() or forFirebase()");
  b64Option->excludes(dictOption);
  decode->callback([&exitCode, b64Option, dictOption] {
    if (b64Option->count() == 0 && dictOption->count() == 0) {
      std::cerr << "decode-log: give --b64 TEXT or --dict FILE\n";
      exitCode = 2;
      return;
    }
    std::string text = b64;
    if (dictOption->count() > 0) {
      std::string error;
      auto file = readFile(dictPath, error);
      if (!file) {
        std::cerr << "decode-log: " << error << "\n";
        exitCode = 1;
        return;
      }
      auto joined = joinEncodedPieces(*file);
      if (!joined) {
        std::cerr << "decode-log: " << joined.error().description << "\n";
        exitCode = 1;
        return;
      }
      text = *joined;
    }
    auto crypto = makeOpenSslCrypto();
    auto decoded = decodeEncodedLogBase64(text, decodeKey, *crypto);
    if (!decoded) {
      std::cerr << "decode-log: " << decoded.error().description << "\n";
      exitCode = 1;
      return;
    }
    std::cout << nlohmann::json::parse(decoded->toReadableJson()).dump(2) << "\n";
  });
}

}  // namespace orvane::sim
