#include "logging/ReportTextLimit.h"

namespace orvane {

std::string boundedReportText(std::string_view text, size_t limit) {
  if (text.size() <= limit) return std::string(text);
  const std::string marker = "\u2026 [cut from " + std::to_string(text.size()) + " bytes]";
  size_t kept = limit > marker.size() ? limit - marker.size() : 0;
  // Never end inside a UTF-8 sequence: back up over continuation bytes.
  while (kept > 0 && (static_cast<unsigned char>(text[kept]) & 0xC0) == 0x80) --kept;
  return std::string(text.substr(0, kept)) + marker;
}

PlistValue boundedReportValue(const PlistValue& value) {
  if (const std::string* text = value.asString()) {
    if (text->size() <= kMaximumReportTextBytes) return value;
    return boundedReportText(*text);
  }
  if (const PlistArray* array = value.asArray()) {
    PlistArray bounded;
    bounded.reserve(array->size());
    for (const PlistValue& element : *array) bounded.push_back(boundedReportValue(element));
    return bounded;
  }
  if (const PlistDictionary* dictionary = value.asDictionary()) {
    PlistDictionary bounded;
    for (const auto& [key, element] : *dictionary) {
      bounded.emplace(boundedReportText(key), boundedReportValue(element));
    }
    return bounded;
  }
  return value;
}

}  // namespace orvane
