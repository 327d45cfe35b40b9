#include "FaultScript.h"

#include <charconv>
#include <cmath>
#include <stdexcept>

namespace devservice {
namespace {

constexpr double kDefaultHoldSeconds = 60;

template <typename Number>
bool readNumber(std::string_view text, Number& out) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), out);
  return error == std::errc() && end == text.data() + text.size();
}

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
  while (!text.empty() && text.back() == ' ') text.remove_suffix(1);
  return text;
}

}  // namespace

std::string FaultStep::text() const {
  std::string out = status ? std::to_string(*status) : "timeout";
  if (delaySeconds > 0 || !status) {
    char number[32];
    const auto end = std::to_chars(number, number + sizeof number, delaySeconds).ptr;
    out += ":" + std::string(number, end);
  }
  return out;
}

FaultStep parseFaultStep(std::string_view text) {
  text = trimmed(text);
  const auto colon = text.find(':');
  const std::string_view head = text.substr(0, colon);
  FaultStep step;
  bool ok = true;
  if (head == "timeout") {
    step.delaySeconds = kDefaultHoldSeconds;
  } else {
    int status = 0;
    ok = readNumber(head, status) && status >= 100 && status <= 599;
    step.status = status;
  }
  if (ok && colon != std::string_view::npos) {
    ok = readNumber(text.substr(colon + 1), step.delaySeconds) &&
         std::isfinite(step.delaySeconds) && step.delaySeconds >= 0;
  }
  if (!ok) {
    throw std::invalid_argument("bad fault step \"" + std::string(text) +
                                "\" (expected STATUS, STATUS:SECONDS, timeout or timeout:SECONDS)");
  }
  return step;
}

std::vector<FaultStep> parseFaultList(std::string_view text) {
  std::vector<FaultStep> steps;
  while (!text.empty()) {
    const auto comma = text.find(',');
    const std::string_view item = trimmed(text.substr(0, comma));
    if (!item.empty()) steps.push_back(parseFaultStep(item));
    text = comma == std::string_view::npos ? std::string_view() : text.substr(comma + 1);
  }
  return steps;
}

void FaultScript::replace(std::vector<FaultStep> steps) {
  std::lock_guard<std::mutex> guard(mutex_);
  steps_.assign(steps.begin(), steps.end());
}

std::optional<FaultStep> FaultScript::next() {
  std::lock_guard<std::mutex> guard(mutex_);
  if (steps_.empty()) return std::nullopt;
  FaultStep step = steps_.front();
  steps_.pop_front();
  return step;
}

std::vector<std::string> FaultScript::remaining() {
  std::lock_guard<std::mutex> guard(mutex_);
  std::vector<std::string> out;
  for (const FaultStep& step : steps_) out.push_back(step.text());
  return out;
}

}  // namespace devservice
