// The device service of a Linux host: what the kernel and the C library know, the rest from
// the host.
#include <langinfo.h>
#include <locale.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <vector>

#include "orvane/platform/linux/LinuxPlatform.h"
#include "platform/linux/LinuxDeviceFacts.h"

namespace orvane {
namespace linux_device {
namespace {

std::optional<std::string> environment(const char* name) {
  const char* value = std::getenv(name);
  if (value == nullptr || *value == '\0') return std::nullopt;
  return std::string(value);
}

std::optional<std::string> readTrimmed(const std::filesystem::path& file) {
  std::ifstream in(file);
  std::string line;
  if (!in || !std::getline(in, line)) return std::nullopt;
  while (!line.empty() && (line.back() == ' ' || line.back() == '\r' || line.back() == '\t')) {
    line.pop_back();
  }
  return line;
}

std::optional<double> readNumber(const std::filesystem::path& file) {
  auto text = readTrimmed(file);
  if (!text || text->empty()) return std::nullopt;
  char* end = nullptr;
  const double value = std::strtod(text->c_str(), &end);
  if (end == text->c_str() || *end != '\0') return std::nullopt;
  return value;
}

bool allOf(std::string_view text, size_t minLength, size_t maxLength, int (*test)(int)) {
  return text.size() >= minLength && text.size() <= maxLength &&
         std::all_of(text.begin(), text.end(),
                     [test](char c) { return test(static_cast<unsigned char>(c)) != 0; });
}

int isLowerAscii(int c) { return c >= 'a' && c <= 'z'; }
int isUpperAscii(int c) { return c >= 'A' && c <= 'Z'; }
int isDigitAscii(int c) { return c >= '0' && c <= '9'; }

// Only these regions measure in customary units.
bool regionUsesMetric(const std::optional<std::string>& region) {
  return !region || (*region != "US" && *region != "LR" && *region != "MM");
}

std::optional<float> batteryLevel(const std::filesystem::path& dir) {
  if (auto capacity = readNumber(dir / "capacity")) {
    return static_cast<float>(std::clamp(*capacity / 100.0, 0.0, 1.0));
  }
  for (const char* kind : {"energy", "charge"}) {
    auto now = readNumber(dir / (std::string(kind) + "_now"));
    auto full = readNumber(dir / (std::string(kind) + "_full"));
    if (now && full && *full > 0) return static_cast<float>(std::clamp(*now / *full, 0.0, 1.0));
  }
  return std::nullopt;
}

BatteryState batteryState(const std::filesystem::path& dir) {
  const auto status = readTrimmed(dir / "status");
  if (!status) return BatteryState::kUnknown;
  if (*status == "Discharging") return BatteryState::kUnplugged;
  // "Not charging": on mains power but held below full (a charge threshold), which the
  // mobile platforms report as charging.
  if (*status == "Charging" || *status == "Not charging") return BatteryState::kCharging;
  if (*status == "Full") return BatteryState::kFull;
  return BatteryState::kUnknown;
}

}  // namespace

LocaleInfo localeFromPosixName(std::string_view name) {
  LocaleInfo info;
  const std::string_view base = name.substr(0, name.find_first_of(".@"));
  info.identifier = std::string(base);
  const auto underscore = base.find('_');
  const std::string_view language = base.substr(0, underscore);
  if (allOf(language, 2, 3, isLowerAscii)) info.languageCode = std::string(language);
  if (info.languageCode && underscore != std::string_view::npos) {
    const std::string_view region = base.substr(underscore + 1);
    if (allOf(region, 2, 2, isUpperAscii) || allOf(region, 3, 3, isDigitAscii)) {
      info.regionCode = std::string(region);
    }
  }
  info.usesMetricSystem = regionUsesMetric(info.regionCode);

  const std::string full(name);
  locale_t locale = newlocale(LC_MEASUREMENT_MASK | LC_MONETARY_MASK, full.c_str(), nullptr);
  if (locale == nullptr) return info;
  // glibc's measurement item is one byte: 1 metric, 2 customary.
  if (const char* measurement = nl_langinfo_l(_NL_MEASUREMENT_MEASUREMENT, locale)) {
    if (measurement[0] == 1 || measurement[0] == 2) info.usesMetricSystem = measurement[0] == 1;
  }
  if (const char* symbol = nl_langinfo_l(INT_CURR_SYMBOL, locale)) {
    const std::string_view code = std::string_view(symbol).substr(0, 3);
    if (allOf(code, 3, 3, isUpperAscii)) info.currencyCode = std::string(code);
  }
  freelocale(locale);
  return info;
}

BatteryStatus readBattery(const std::filesystem::path& powerSupply) {
  std::error_code ec;
  std::vector<std::filesystem::path> supplies;
  for (std::filesystem::directory_iterator it(powerSupply, ec), end; !ec && it != end;
       it.increment(ec)) {
    supplies.push_back(it->path());
  }
  std::sort(supplies.begin(), supplies.end());
  for (const auto& dir : supplies) {
    if (readTrimmed(dir / "type") != "Battery") continue;
    // Mice and headsets report their own batteries with scope "Device".
    if (readTrimmed(dir / "scope") == "Device") continue;
    if (readTrimmed(dir / "present") == "0") continue;
    return {batteryLevel(dir), batteryState(dir)};
  }
  return {};
}

}  // namespace linux_device

namespace {

class LinuxDeviceService : public HostDeviceService {
 public:
  LinuxDeviceService(DeviceFacts facts, LinuxDevicePaths paths)
      : HostDeviceService(std::move(facts)), paths_(std::move(paths)) {}

  BatteryStatus battery() const override {
    if (auto set = read([](const DeviceFacts& f) { return f.battery; })) return *set;
    return linux_device::readBattery(paths_.powerSupply);
  }

 private:
  LinuxDevicePaths paths_;
};

DeviceFacts machineFacts() {
  DeviceFacts facts;
  struct utsname names {};
  if (uname(&names) == 0) {
    facts.machineIdentifier = std::string(names.machine);
    facts.systemVersion = std::string(names.release);
  }
  facts.simulatedModelIdentifier = linux_device::environment("SIMULATOR_MODEL_IDENTIFIER");
  const long pages = sysconf(_SC_PHYS_PAGES);
  const long pageSize = sysconf(_SC_PAGESIZE);
  if (pages > 0 && pageSize > 0) {
    facts.physicalMemoryBytes = static_cast<uint64_t>(pages) * static_cast<uint64_t>(pageSize);
  }
  if (const long processors = sysconf(_SC_NPROCESSORS_ONLN); processors > 0) {
    facts.activeProcessorCount = processors;
  }
  auto name = linux_device::environment("LC_ALL");
  if (!name) name = linux_device::environment("LANG");
  facts.locale = linux_device::localeFromPosixName(name.value_or("C"));
  return facts;
}

}  // namespace

std::shared_ptr<HostDeviceService> makeLinuxDeviceService(LinuxDevicePaths paths) {
  return std::make_shared<LinuxDeviceService>(machineFacts(), std::move(paths));
}

}  // namespace orvane
