// File: CustomModel.h
// How the host names a custom model of its own when it asks for a decision.
#pragma once

#include <optional>
#include <string_view>

namespace orvane {

enum class CustomModel {
  // Decide without a custom model of the host's.
  kDoNotUse,
};

constexpr std::string_view rawValue(CustomModel model) {
  switch (model) {
    case CustomModel::kDoNotUse:
      return "doNotUse";
  }
  return "doNotUse";
}

constexpr std::optional<CustomModel> customModelFromRawValue(std::string_view raw) {
  if (raw == "doNotUse") return CustomModel::kDoNotUse;
  return std::nullopt;
}

}  // namespace orvane
