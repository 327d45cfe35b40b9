// File: Signal.h
// One measured fact about the moment: a catalogue id and a value of exactly one kind.
// Signals are small immutable values; the kind types below only construct them.
#pragma once

#include <cstdint>
#include <string>
#include <variant>
#include <vector>

#include "orvane/Decimal.h"
#include "orvane/Export.h"
#include "orvane/SignalEnum.h"

namespace orvane {

enum class SignalKind { kBool, kInt, kFloat, kDecimal, kString };

using SignalValue = std::variant<bool, int64_t, float, Decimal, std::string>;

class ORVANE_API Signal {
 public:
  SignalEnum id() const { return id_; }
  const SignalValue& value() const { return value_; }
  SignalKind kind() const { return static_cast<SignalKind>(value_.index()); }

  // "SignalInt(id: 25, value: 3)" and the like.
  std::string description() const;

  bool operator==(const Signal&) const = default;

 protected:
  Signal(SignalEnum id, SignalValue value) : id_(id), value_(std::move(value)) {}

 private:
  SignalEnum id_;
  SignalValue value_;
};

struct ORVANE_API SignalBool : Signal {
  SignalBool(SignalEnum id, bool value) : Signal(id, value) {}
};
struct ORVANE_API SignalInt : Signal {
  SignalInt(SignalEnum id, int64_t value) : Signal(id, value) {}
};
struct ORVANE_API SignalFloat : Signal {
  SignalFloat(SignalEnum id, float value) : Signal(id, value) {}
};
struct ORVANE_API SignalDecimal : Signal {
  SignalDecimal(SignalEnum id, Decimal value) : Signal(id, value) {}
};
struct ORVANE_API SignalString : Signal {
  SignalString(SignalEnum id, std::string value) : Signal(id, std::move(value)) {}
};

using SignalList = std::vector<Signal>;

// The shortest decimal text that reads back to the same float.
ORVANE_API std::string shortestFloatText(float value);

}  // namespace orvane
