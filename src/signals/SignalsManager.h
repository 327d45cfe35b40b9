// File: SignalsManager.h
// The ordered signal set of one context. Insertion order is kept; nothing sorts it.
// Duplicate ids are reported, never repaired, so signal(id:) then answers with the first.
#pragma once

#include <memory>
#include <optional>

#include "orvane/Signal.h"
#include "orvane/platform/SystemLog.h"

namespace orvane {

class SignalsManager {
 public:
  SignalsManager(SignalList signals, std::shared_ptr<SystemLog> log);

  const SignalList& signals() const { return signals_; }

  const Signal* signal(SignalEnum id) const;
  std::optional<int64_t> intValue(SignalEnum id) const;
  std::optional<bool> boolValue(SignalEnum id) const;

  void removeSignal(SignalEnum id);
  // Removes every signal with the new one's id and appends the new one.
  void replaceSignal(Signal signal);
  void append(Signal signal);
  void append(const SignalList& signals);

 private:
  // Reports when the list holds duplicate ids. Whether it does is tracked as signals come and
  // go, so the check after each append costs a scan for the new id, not a rebuilt set.
  void reportDuplicates() const;
  bool computeHasDuplicates() const;

  SignalList signals_;
  std::shared_ptr<SystemLog> log_;
  bool hasDuplicates_ = false;
};

}  // namespace orvane
