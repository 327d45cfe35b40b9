// JSON across the C interface: values the SDK returns (golden signals, a log's plain view) and
// values a bridge hands in (launch options, device facts), which bridges build most easily
// from their own dictionaries.
#include <charconv>
#include <cmath>
#include <iterator>
#include <limits>
#include <map>
#include <nlohmann/json.hpp>
#include <variant>

#include "capi/CApi.h"
#include "orvane/platform/DeviceService.h"

namespace orvane::capi {
namespace {

using Json = nlohmann::json;

Json number(double value) {
  if (std::isnan(value)) return "NaN";
  if (std::isinf(value)) return value > 0 ? "Infinity" : "-Infinity";
  return value;
}

// The float's shortest text read back as a double prints as that same text.
Json number(float value) {
  if (!std::isfinite(value)) return number(static_cast<double>(value));
  const std::string text = shortestFloatText(value);
  double widened = static_cast<double>(value);
  std::from_chars(text.data(), text.data() + text.size(), widened);
  return widened;
}

std::string base64(const Bytes& bytes) {
  static constexpr char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  for (size_t i = 0; i < bytes.size(); i += 3) {
    const uint32_t chunk = (uint32_t{bytes[i]} << 16) |
                           (i + 1 < bytes.size() ? uint32_t{bytes[i + 1]} << 8 : 0) |
                           (i + 2 < bytes.size() ? uint32_t{bytes[i + 2]} : 0);
    out.push_back(kAlphabet[(chunk >> 18) & 63]);
    out.push_back(kAlphabet[(chunk >> 12) & 63]);
    out.push_back(i + 1 < bytes.size() ? kAlphabet[(chunk >> 6) & 63] : '=');
    out.push_back(i + 2 < bytes.size() ? kAlphabet[chunk & 63] : '=');
  }
  return out;
}

Json jsonOf(const PlistValue& value) {
  switch (value.type()) {
    case PlistValue::Type::kBool:
      return *value.asBool();
    case PlistValue::Type::kInt:
      return *value.asInt();
    case PlistValue::Type::kDouble:
      return number(*value.asDouble());
    case PlistValue::Type::kFloat:
      return number(*value.asFloat());
    case PlistValue::Type::kDecimal:
      return value.asDecimal()->toString();
    case PlistValue::Type::kString:
      return *value.asString();
    case PlistValue::Type::kBytes:
      return base64(*value.asBytes());
    case PlistValue::Type::kDate:
      return number(value.asDate()->secondsSince1970);
    case PlistValue::Type::kArray: {
      Json array = Json::array();
      for (const PlistValue& element : *value.asArray()) array.push_back(jsonOf(element));
      return array;
    }
    case PlistValue::Type::kDictionary: {
      Json object = Json::object();
      for (const auto& [key, element] : *value.asDictionary()) object[key] = jsonOf(element);
      return object;
    }
  }
  return nullptr;
}

// Nulls have no property-list form: they are left out of arrays and objects.
std::optional<PlistValue> plistOf(const Json& json) {
  switch (json.type()) {
    case Json::value_t::boolean:
      return PlistValue(json.get<bool>());
    case Json::value_t::number_integer:
      return PlistValue(json.get<int64_t>());
    case Json::value_t::number_unsigned: {
      const auto value = json.get<uint64_t>();
      if (value <= static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
        return PlistValue(static_cast<int64_t>(value));
      }
      return PlistValue(static_cast<double>(value));
    }
    case Json::value_t::number_float:
      return PlistValue(json.get<double>());
    case Json::value_t::string:
      return PlistValue(json.get<std::string>());
    case Json::value_t::array: {
      PlistArray array;
      for (const Json& element : json) {
        if (auto value = plistOf(element)) array.push_back(std::move(*value));
      }
      return PlistValue(std::move(array));
    }
    case Json::value_t::object: {
      PlistDictionary dictionary;
      for (const auto& [key, element] : json.items()) {
        if (auto value = plistOf(element)) dictionary.insert_or_assign(key, std::move(*value));
      }
      return PlistValue(std::move(dictionary));
    }
    default:
      return std::nullopt;
  }
}

// ---- Device facts -------------------------------------------------------------------------
// Each reader takes a present value; null makes an optional fact unknown and resets a plain
// one to its default. False for a value of the wrong type.

bool read(const Json& v, std::optional<std::string>& out) {
  if (v.is_null()) return out.reset(), true;
  if (!v.is_string()) return false;
  out = v.get<std::string>();
  return true;
}

bool read(const Json& v, std::string& out) {
  if (v.is_null()) return out.clear(), true;
  if (!v.is_string()) return false;
  out = v.get<std::string>();
  return true;
}

bool read(const Json& v, std::optional<bool>& out) {
  if (v.is_null()) return out.reset(), true;
  if (!v.is_boolean()) return false;
  out = v.get<bool>();
  return true;
}

bool read(const Json& v, bool& out, bool reset) {
  if (v.is_null()) return out = reset, true;
  if (!v.is_boolean()) return false;
  out = v.get<bool>();
  return true;
}

bool read(const Json& v, std::optional<int64_t>& out) {
  if (v.is_null()) return out.reset(), true;
  if (v.is_number_unsigned()) {
    if (v.get<uint64_t>() > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
      return false;
    }
    out = static_cast<int64_t>(v.get<uint64_t>());
    return true;
  }
  if (!v.is_number_integer()) return false;
  out = v.get<int64_t>();
  return true;
}

bool read(const Json& v, std::optional<uint64_t>& out) {
  if (v.is_null()) return out.reset(), true;
  if (!v.is_number_unsigned()) return false;
  out = v.get<uint64_t>();
  return true;
}

bool read(const Json& v, std::optional<double>& out) {
  if (v.is_null()) return out.reset(), true;
  if (!v.is_number()) return false;
  out = v.get<double>();
  return true;
}

bool read(const Json& v, std::optional<float>& out) {
  std::optional<double> wide;
  if (!read(v, wide)) return false;
  out = wide ? std::optional<float>(static_cast<float>(*wide)) : std::nullopt;
  return true;
}

// Raw values of the platforms' enumerations pass through unchanged.
template <typename Enum>
bool readEnum(const Json& v, Enum& out, Enum reset) {
  std::optional<int64_t> raw;
  if (!read(v, raw)) return false;
  if (!raw) return out = reset, true;
  if (*raw < std::numeric_limits<int>::min() || *raw > std::numeric_limits<int>::max()) {
    return false;
  }
  out = static_cast<Enum>(*raw);
  return true;
}

template <typename Enum>
bool readEnum(const Json& v, std::optional<Enum>& out) {
  if (v.is_null()) return out.reset(), true;
  Enum value{};
  if (!readEnum(v, value, value)) return false;
  out = value;
  return true;
}

template <typename T>
using Fields = std::map<std::string_view, bool (*)(const Json&, T&)>;

const Fields<LocaleInfo>& localeFields() {
  static const Fields<LocaleInfo> fields = {
      {"identifier", [](const Json& v, LocaleInfo& l) { return read(v, l.identifier); }},
      {"languageCode", [](const Json& v, LocaleInfo& l) { return read(v, l.languageCode); }},
      {"regionCode", [](const Json& v, LocaleInfo& l) { return read(v, l.regionCode); }},
      {"currencyCode", [](const Json& v, LocaleInfo& l) { return read(v, l.currencyCode); }},
      {"usesMetricSystem",
       [](const Json& v, LocaleInfo& l) { return read(v, l.usesMetricSystem, true); }},
  };
  return fields;
}

const Fields<BatteryStatus>& batteryFields() {
  static const Fields<BatteryStatus> fields = {
      {"level", [](const Json& v, BatteryStatus& b) { return read(v, b.level); }},
      {"state", [](const Json& v,
                   BatteryStatus& b) { return readEnum(v, b.state, BatteryState::kUnknown); }},
  };
  return fields;
}

const Fields<ScreenInfo>& screenFields() {
  static const Fields<ScreenInfo> fields = {
      {"widthPoints", [](const Json& v, ScreenInfo& s) { return read(v, s.widthPoints); }},
      {"heightPoints", [](const Json& v, ScreenInfo& s) { return read(v, s.heightPoints); }},
      {"scale", [](const Json& v, ScreenInfo& s) { return read(v, s.scale); }},
      {"brightness", [](const Json& v, ScreenInfo& s) { return read(v, s.brightness); }},
      {"isCaptured", [](const Json& v, ScreenInfo& s) { return read(v, s.isCaptured); }},
      {"interfaceStyle", [](const Json& v, ScreenInfo& s) { return read(v, s.interfaceStyle); }},
      {"layoutDirection", [](const Json& v, ScreenInfo& s) { return read(v, s.layoutDirection); }},
      {"horizontalSizeClass",
       [](const Json& v, ScreenInfo& s) { return read(v, s.horizontalSizeClass); }},
      {"verticalSizeClass",
       [](const Json& v, ScreenInfo& s) { return read(v, s.verticalSizeClass); }},
  };
  return fields;
}

const Fields<AudioSessionInfo>& audioFields() {
  static const Fields<AudioSessionInfo> fields = {
      {"isOtherAudioPlaying",
       [](const Json& v, AudioSessionInfo& a) { return read(v, a.isOtherAudioPlaying); }},
      {"secondaryAudioShouldBeSilencedHint",
       [](const Json& v, AudioSessionInfo& a) {
         return read(v, a.secondaryAudioShouldBeSilencedHint);
       }},
      {"allowHapticsAndSystemSoundsDuringRecording",
       [](const Json& v, AudioSessionInfo& a) {
         return read(v, a.allowHapticsAndSystemSoundsDuringRecording);
       }},
  };
  return fields;
}

struct Merge {
  std::string& error;
  std::string& unknownKeys;

  void noteUnknown(const std::string& path) {
    unknownKeys.append(unknownKeys.empty() ? "\"" : ", \"").append(path).append("\"");
  }

  template <typename T>
  // The keys of a nested fact, `name`.key.
  bool fields(const Json& object, const Fields<T>& known, T& target, const std::string& name) {
    if (!object.is_object()) {
      error = "\"" + name + "\" is not an object";
      return false;
    }
    for (const auto& [key, value] : object.items()) {
      std::string path = name;
      path.append(".").append(key);
      auto field = known.find(key);
      if (field == known.end()) {
        noteUnknown(path);
        continue;
      }
      if (!field->second(value, target)) {
        error = "\"" + path + "\" has the wrong type";
        return false;
      }
    }
    return true;
  }

  // A nested fact: null resets it, an object merges into it.
  template <typename T>
  bool nested(const Json& value, const Fields<T>& known, T& target, const char* name) {
    if (value.is_null()) return target = T{}, true;
    return fields(value, known, target, name);
  }

  bool facts(const Json& object, DeviceFacts& f) {
    if (!object.is_object()) {
      error = "not a JSON object";
      return false;
    }
    for (const auto& [key, value] : object.items()) {
      bool ok = true;
      if (key == "machineIdentifier") {
        ok = read(value, f.machineIdentifier);
      } else if (key == "simulatedModelIdentifier") {
        ok = read(value, f.simulatedModelIdentifier);
      } else if (key == "modelName") {
        ok = read(value, f.modelName);
      } else if (key == "systemVersion") {
        ok = read(value, f.systemVersion);
      } else if (key == "userInterfaceIdiom") {
        ok = readEnum(value, f.userInterfaceIdiom, UserInterfaceIdiom::kUnspecified);
      } else if (key == "physicalMemoryBytes") {
        ok = read(value, f.physicalMemoryBytes);
      } else if (key == "activeProcessorCount") {
        ok = read(value, f.activeProcessorCount);
      } else if (key == "locale") {
        ok = nested(value, localeFields(), f.locale, "locale");
      } else if (key == "battery") {
        if (value.is_null()) {
          f.battery.reset();
        } else {
          BatteryStatus battery = f.battery.value_or(BatteryStatus{});
          ok = fields(value, batteryFields(), battery, "battery");
          if (ok) f.battery = battery;
        }
      } else if (key == "isLowPowerModeEnabled") {
        ok = read(value, f.isLowPowerModeEnabled);
      } else if (key == "thermalState") {
        ok = readEnum(value, f.thermalState);
      } else if (key == "orientation") {
        ok = readEnum(value, f.orientation, DeviceOrientation::kUnknown);
      } else if (key == "mainScreen") {
        ok = nested(value, screenFields(), f.mainScreen, "mainScreen");
      } else if (key == "audioSession") {
        ok = nested(value, audioFields(), f.audioSession, "audioSession");
      } else if (key == "trackingAuthorizationStatus") {
        ok = read(value, f.trackingAuthorizationStatus);
      } else {
        noteUnknown(key);
        continue;
      }
      if (!ok) {
        if (error.empty()) error = "\"" + key + "\" has the wrong type";
        return false;
      }
    }
    return true;
  }
};

}  // namespace

std::string toJson(const PlistValue& value) {
  return jsonOf(value).dump(-1, ' ', false, Json::error_handler_t::replace);
}

namespace {

// {"id", "type", "value"}; the type names match orvane_custom_signal_type's.
template <typename Value>
PlistValue signalEntry(PlistValue id, const Value& value) {
  static const char* const kTypes[] = {"bool", "int", "float", "decimal", "string"};
  static_assert(std::variant_size_v<Value> == std::size(kTypes));
  PlistDictionary entry;
  entry.emplace("id", std::move(id));
  entry.emplace("type", kTypes[value.index()]);
  entry.emplace("value", std::visit([](const auto& v) { return PlistValue(v); }, value));
  return PlistValue(std::move(entry));
}

}  // namespace

std::string toJson(const SignalList& signals) {
  PlistArray entries;
  entries.reserve(signals.size());
  for (const Signal& signal : signals) {
    entries.push_back(signalEntry(static_cast<int64_t>(signal.id().rawValue()), signal.value()));
  }
  return toJson(PlistValue(std::move(entries)));
}

std::string toJson(const CustomSignalList& signals) {
  PlistArray entries;
  entries.reserve(signals.size());
  for (const CustomSignal& signal : signals) {
    entries.push_back(signalEntry(signal.id(), signal.value()));
  }
  return toJson(PlistValue(std::move(entries)));
}

std::optional<LaunchOptions> launchOptionsFromJson(std::string_view text, std::string& error) {
  const Json json = Json::parse(text, nullptr, false);
  if (json.is_discarded() || !json.is_object()) {
    error = "not a JSON object";
    return std::nullopt;
  }
  LaunchOptions options;
  for (const auto& [key, element] : json.items()) {
    if (auto value = plistOf(element)) options.insert_or_assign(key, std::move(*value));
  }
  return options;
}

bool mergeDeviceFacts(std::string_view text, DeviceFacts& facts, std::string& error,
                      std::string& unknownKeys) {
  const Json json = Json::parse(text, nullptr, false);
  if (json.is_discarded()) {
    error = "not valid JSON";
    return false;
  }
  DeviceFacts merged = facts;
  Merge merge{error, unknownKeys};
  if (!merge.facts(json, merged)) return false;
  facts = std::move(merged);
  return true;
}

}  // namespace orvane::capi
