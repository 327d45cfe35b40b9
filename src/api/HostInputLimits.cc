#include "api/HostInputLimits.h"

#include <utility>

namespace orvane {
namespace {

// The start of a long input, enough to find it in the host's code.
std::string quotedStart(std::string_view text) {
  constexpr size_t kShown = 40;
  std::string shown(utf8Prefix(text, kShown));
  return "\"" + shown + (shown.size() < text.size() ? "...\"" : "\"");
}

// A signal of the same type with the given id and value.
CustomSignal rebuilt(const CustomSignal& signal, std::string id) {
  return std::visit(
      [&](const auto& value) -> CustomSignal {
        using T = std::decay_t<decltype(value)>;
        if constexpr (std::is_same_v<T, bool>) return CustomSignalBool(std::move(id), value);
        if constexpr (std::is_same_v<T, int64_t>) return CustomSignalInt(std::move(id), value);
        if constexpr (std::is_same_v<T, float>) return CustomSignalFloat(std::move(id), value);
        if constexpr (std::is_same_v<T, Decimal>) return CustomSignalDecimal(std::move(id), value);
        if constexpr (std::is_same_v<T, std::string>) {
          return CustomSignalString(std::move(id), value);
        }
      },
      signal.value());
}

bool withinBounds(const CustomSignal& signal) {
  if (signal.id().size() > HostInputLimits::kMaximumSignalIdBytes) return false;
  const auto* text = std::get_if<std::string>(&signal.value());
  return text == nullptr || text->size() <= HostInputLimits::kMaximumTextValueBytes;
}

}  // namespace

std::string_view utf8Prefix(std::string_view text, size_t maximumBytes) {
  if (text.size() <= maximumBytes) return text;
  size_t end = maximumBytes;
  // Back off continuation bytes so that the cut lands before a sequence's lead byte.
  while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end;
  return text.substr(0, end);
}

std::optional<std::string> limitedName(std::string_view what, const std::string& name,
                                       size_t maximumBytes, SystemLog& log) {
  if (name.size() <= maximumBytes) return std::nullopt;
  log.error("[Orvane] The " + std::string(what) + " " + quotedStart(name) + " is " +
            std::to_string(name.size()) + " bytes long; only its first " +
            std::to_string(maximumBytes) + " bytes are used.");
  return std::string(utf8Prefix(name, maximumBytes));
}

CustomSignal limitedCustomSignal(const CustomSignal& signal, SystemLog& log) {
  if (withinBounds(signal)) return signal;
  std::string id = signal.id();
  if (auto shorter =
          limitedName("custom signal id", id, HostInputLimits::kMaximumSignalIdBytes, log))
    id = std::move(*shorter);
  const auto* text = std::get_if<std::string>(&signal.value());
  if (text == nullptr || text->size() <= HostInputLimits::kMaximumTextValueBytes) {
    return rebuilt(signal, std::move(id));
  }
  log.error("[Orvane] The text of custom signal " + quotedStart(id) + " is " +
            std::to_string(text->size()) + " bytes long; only its first " +
            std::to_string(HostInputLimits::kMaximumTextValueBytes) + " bytes are used.");
  return CustomSignalString(
      std::move(id), std::string(utf8Prefix(*text, HostInputLimits::kMaximumTextValueBytes)));
}

std::optional<CustomSignalList> limitedCustomSignals(const CustomSignalList& signals,
                                                     SystemLog& log) {
  bool fine = signals.size() <= HostInputLimits::kMaximumCustomSignals;
  for (size_t i = 0; fine && i < signals.size(); ++i) fine = withinBounds(signals[i]);
  if (fine) return std::nullopt;

  size_t kept = signals.size();
  if (kept > HostInputLimits::kMaximumCustomSignals) {
    kept = HostInputLimits::kMaximumCustomSignals;
    log.error("[Orvane] " + std::to_string(signals.size()) +
              " custom signals were passed with one request; only the first " +
              std::to_string(kept) + " are used.");
  }
  CustomSignalList limited;
  limited.reserve(kept);
  for (size_t i = 0; i < kept; ++i) limited.push_back(limitedCustomSignal(signals[i], log));
  return limited;
}

}  // namespace orvane
