#include "signals/SignalsManager.h"

#include <algorithm>
#include <vector>

namespace orvane {

SignalsManager::SignalsManager(SignalList signals, std::shared_ptr<SystemLog> log)
    : signals_(std::move(signals)), log_(std::move(log)), hasDuplicates_(computeHasDuplicates()) {}

const Signal* SignalsManager::signal(SignalEnum id) const {
  auto it = std::find_if(signals_.begin(), signals_.end(),
                         [id](const Signal& s) { return s.id() == id; });
  return it == signals_.end() ? nullptr : &*it;
}

std::optional<int64_t> SignalsManager::intValue(SignalEnum id) const {
  const Signal* s = signal(id);
  if (s == nullptr || s->kind() != SignalKind::kInt) return std::nullopt;
  return std::get<int64_t>(s->value());
}

std::optional<bool> SignalsManager::boolValue(SignalEnum id) const {
  const Signal* s = signal(id);
  if (s == nullptr || s->kind() != SignalKind::kBool) return std::nullopt;
  return std::get<bool>(s->value());
}

void SignalsManager::removeSignal(SignalEnum id) {
  std::erase_if(signals_, [id](const Signal& s) { return s.id() == id; });
  if (hasDuplicates_) hasDuplicates_ = computeHasDuplicates();
}

void SignalsManager::replaceSignal(Signal signal) {
  removeSignal(signal.id());
  append(std::move(signal));
}

void SignalsManager::append(Signal signal) {
  if (!hasDuplicates_) hasDuplicates_ = this->signal(signal.id()) != nullptr;
  signals_.push_back(std::move(signal));
  reportDuplicates();
}

void SignalsManager::append(const SignalList& signals) {
  signals_.insert(signals_.end(), signals.begin(), signals.end());
  hasDuplicates_ = computeHasDuplicates();
  reportDuplicates();
}

bool SignalsManager::computeHasDuplicates() const {
  std::vector<uint16_t> ids;
  ids.reserve(signals_.size());
  for (const auto& s : signals_) ids.push_back(s.id().rawValue());
  std::sort(ids.begin(), ids.end());
  return std::adjacent_find(ids.begin(), ids.end()) != ids.end();
}

void SignalsManager::reportDuplicates() const {
  if (hasDuplicates_ && log_) log_->error("[Orvane] SignalsManager: Duplicate signal ids found");
}

}  // namespace orvane
