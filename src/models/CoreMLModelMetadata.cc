#include "models/ModelExecutionInformation.h"
#include "util/JsonReader.h"

namespace orvane {

Result<CoreMLModelMetadata> decodeCoreMLModelMetadata(std::string_view text) {
  std::string parseError;
  auto json = parseJson(text, &parseError);
  if (!json) return PlatformError{kDecodingErrorDomain, 0, parseError};
  JsonReader root(*json);
  CoreMLModelMetadata metadata;
  if (root.expectObject()) {
    metadata.supportedDuration = root.requiredInt64("supportedDuration").value_or(0);
    metadata.useInstantContext = root.requiredBool("useInstantContext").value_or(false);
    if (auto mappings = root.optional("mappings")) {
      metadata.mappings = mappings->asMap<std::vector<std::string>>([](const JsonReader& list) {
        return list.asArray<std::string>([](const JsonReader& item) { return item.asString(); });
      });
    }
  }
  if (!root.ok()) return PlatformError{kDecodingErrorDomain, 0, root.error()};
  return metadata;
}

}  // namespace orvane
