#include "models/RefusedModelVersions.h"

#include <algorithm>

namespace orvane {

bool RefusedModelVersions::isRefused(const std::string& flowName,
                                     const std::string& modelVersion) const {
  if (!available()) return false;
  const auto stored = defaults_->array(kKeyPrefix + flowName);
  if (!stored) return false;
  return std::any_of(stored->begin(), stored->end(), [&](const PlistValue& v) {
    const std::string* text = v.asString();
    return text && *text == modelVersion;
  });
}

void RefusedModelVersions::remember(const std::string& flowName, const std::string& modelVersion) {
  if (!available()) return;
  std::lock_guard<std::mutex> guard(writing_);
  const std::string key = kKeyPrefix + flowName;
  PlistArray versions;
  // Anything but a list of texts under the key is replaced.
  if (auto stored = defaults_->array(key)) {
    for (const PlistValue& v : *stored) {
      const std::string* text = v.asString();
      if (text && *text != modelVersion) versions.emplace_back(*text);
    }
  }
  versions.emplace_back(modelVersion);
  if (versions.size() > kKeptPerFlow) {
    versions.erase(versions.begin(),
                   versions.begin() + static_cast<std::ptrdiff_t>(versions.size() - kKeptPerFlow));
  }
  defaults_->set(key, std::move(versions));
}

}  // namespace orvane
