// File: CustomSignal.h
// A fact the host app supplies itself, under a text id of its own choosing.
#pragma once

#include <cstdint>
#include <string>
#include <variant>
#include <vector>

#include "orvane/Decimal.h"
#include "orvane/Export.h"

namespace orvane {

using CustomSignalValue = std::variant<bool, int64_t, float, Decimal, std::string>;

class ORVANE_API CustomSignal {
 public:
  const std::string& id() const { return id_; }
  const CustomSignalValue& value() const { return value_; }

  // "CustomSignalString(id: a, value: \"b\")" and the like; the id is printed bare.
  std::string description() const;

  // Equal ids and values of the same type that compare equal.
  bool operator==(const CustomSignal&) const = default;

 protected:
  CustomSignal(std::string id, CustomSignalValue value)
      : id_(std::move(id)), value_(std::move(value)) {}

 private:
  std::string id_;
  CustomSignalValue value_;
};

struct ORVANE_API CustomSignalBool : CustomSignal {
  CustomSignalBool(std::string id, bool value) : CustomSignal(std::move(id), value) {}
};
struct ORVANE_API CustomSignalInt : CustomSignal {
  CustomSignalInt(std::string id, int64_t value) : CustomSignal(std::move(id), value) {}
};
struct ORVANE_API CustomSignalFloat : CustomSignal {
  CustomSignalFloat(std::string id, float value) : CustomSignal(std::move(id), value) {}
};
struct ORVANE_API CustomSignalDecimal : CustomSignal {
  CustomSignalDecimal(std::string id, Decimal value) : CustomSignal(std::move(id), value) {}
};
struct ORVANE_API CustomSignalString : CustomSignal {
  CustomSignalString(std::string id, std::string value)
      : CustomSignal(std::move(id), std::move(value)) {}
};

using CustomSignalList = std::vector<CustomSignal>;

// Same length and, read as maps from id to value, the same ids with equal values; order
// does not matter. Lists that repeat an id compare as different unless both repeat it alike.
ORVANE_API bool containSameElements(const CustomSignalList& a, const CustomSignalList& b);

}  // namespace orvane
