// File: DateProvider.h
// The clock of every time-dependent component.
#pragma once

#include <atomic>
#include <memory>

#include "orvane/PlistValue.h"
#include "orvane/platform/Clock.h"

namespace orvane {

class DateProvider {
 public:
  virtual ~DateProvider() = default;
  virtual Date currentDate() const = 0;
};

// Now, from the platform clock.
class DefaultDateProvider : public DateProvider {
 public:
  explicit DefaultDateProvider(std::shared_ptr<Clock> clock) : clock_(std::move(clock)) {}
  Date currentDate() const override { return Date{clock_->now()}; }

 private:
  std::shared_ptr<Clock> clock_;
};

// A fixed date that the owner moves by hand; for deterministic runs.
class StubDateProvider : public DateProvider {
 public:
  explicit StubDateProvider(Date stubDate) : stubDate_(stubDate.secondsSince1970) {}
  Date currentDate() const override { return Date{stubDate_.load()}; }
  void setStubDate(Date date) { stubDate_.store(date.secondsSince1970); }

 private:
  std::atomic<double> stubDate_;
};

}  // namespace orvane
