#include "platform/TimeZoneSource.h"

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace orvane {
namespace {

std::optional<std::string> environmentTz() {
  const char* value = std::getenv("TZ");
  if (value == nullptr) return std::nullopt;
  return std::string(value);
}

std::optional<std::string> contents(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  if (!in) return std::nullopt;
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// What a zone file path names: the part after "zoneinfo/".
std::optional<std::string> zoneNameIn(const std::string& path) {
  const auto at = path.rfind("zoneinfo/");
  if (at == std::string::npos || at + 9 == path.size()) return std::nullopt;
  return path.substr(at + 9);
}

// The file's identity and last change, or a marker when it is missing.
std::string statusOf(const std::string& path, bool followLink) {
  struct stat info {};
  const int result = followLink ? stat(path.c_str(), &info) : lstat(path.c_str(), &info);
  if (result != 0) return "-";
  return std::to_string(info.st_dev) + ":" + std::to_string(info.st_ino) + ":" +
         std::to_string(info.st_size) + ":" + std::to_string(info.st_mtim.tv_sec) + "." +
         std::to_string(info.st_mtim.tv_nsec);
}

// A zone name has no spaces, does not climb out of the zone folder and is not absolute.
bool plausibleZoneName(const std::string& name) {
  return !name.empty() && name.front() != '/' && name.find("..") == std::string::npos &&
         name.find_first_of(" \t") == std::string::npos;
}

}  // namespace

TimeZoneSource::TimeZoneSource(TimeZoneFiles files, Variable tz)
    : files_(std::move(files)), tz_(tz ? std::move(tz) : Variable(environmentTz)) {}

std::string TimeZoneSource::stamp() const {
  std::string text = "tz=";
  if (auto tz = tz_()) {
    text += "[" + *tz + "]";
  } else {
    text += "unset";
  }
  std::error_code error;
  const auto target = std::filesystem::read_symlink(files_.localtime, error);
  text += " link=" + (error ? std::string("-") : target.string());
  // Following the link: a zone file replaced in place changes it too.
  text += " localtime=" + statusOf(files_.localtime, true);
  text += " timezone=" + statusOf(files_.timezone, true);
  return text;
}

std::optional<std::string> TimeZoneSource::identifier() const {
  if (auto tz = tz_()) {
    // As the C library reads TZ: empty is UTC, a leading colon is dropped, a path to a zone
    // file is named by the file.
    if (tz->empty()) return "UTC";
    std::string name = (*tz)[0] == ':' ? tz->substr(1) : *tz;
    if (name.empty()) return "UTC";
    if (name.front() == '/') return zoneNameIn(name);
    return name;
  }
  std::error_code error;
  const auto target = std::filesystem::read_symlink(files_.localtime, error);
  if (!error) return zoneNameIn(target.string());

  // A plain copy: /etc/timezone names it, if the named zone's data is what was copied.
  auto named = contents(files_.timezone);
  if (!named) return std::nullopt;
  std::string name = named->substr(0, named->find_first_of("\r\n"));
  while (!name.empty() && (name.back() == ' ' || name.back() == '\t')) name.pop_back();
  if (!plausibleZoneName(name)) return std::nullopt;
  const auto copied = contents(files_.localtime);
  const auto zone = contents(std::filesystem::path(files_.zoneinfo) / name);
  if (!copied) return std::nullopt;  // the C library then runs on UTC, whatever is named
  if (zone && *copied != *zone) return std::nullopt;
  return name;
}

}  // namespace orvane
