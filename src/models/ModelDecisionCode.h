// File: ModelDecisionCode.h
// The model part's answer for one context, before timing has its say.
#pragma once

#include <cstdint>

namespace orvane {

enum class ModelDecisionCode : uint8_t {
  kNoUpsell = 0,
  // The model judged the moment good.
  kUpsell = 1,
  // The random chance (or the control rule) forced the upsell.
  kForcedUpsell = 2,
};

}  // namespace orvane
