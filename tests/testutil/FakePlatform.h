// File: FakePlatform.h
// Deterministic stand-ins for the platform services: a hand-moved clock, scripted randomness,
// a capturing log, queues that run only when a test drains them, and a recording error
// reporter.
#pragma once

#include <algorithm>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "logging/ErrorReporter.h"
#include "orvane/Signal.h"
#include "orvane/platform/Platform.h"
#include "testutil/SignalReaders.h"

namespace orvane::testing {

// The doubles are shared between a test and the SDK's threads: every access takes the lock.
class Locked {
 protected:
  template <typename F>
  auto withLock(F f) const {
    std::lock_guard<std::mutex> guard(mutex_);
    return f();
  }

 private:
  mutable std::mutex mutex_;
};

class FakeClock : public Clock, Locked {
 public:
  explicit FakeClock(double now = 1'700'000'000.0, double uptime = 1000.0)
      : now_(now), uptime_(uptime) {}
  double now() const override {
    return withLock([&] { return now_; });
  }
  double uptime() const override {
    return withLock([&] { return uptime_; });
  }
  // Uptime moves along with the wall clock.
  void set(double now) {
    withLock([&] { uptime_ += now - std::exchange(now_, now); });
  }
  void advance(double seconds) { set(now() + seconds); }

 private:
  double now_;
  double uptime_;
};

// Uniform draws come from a script (then repeat its last value; 0.5 when empty); secure bytes
// come from a counter, or fail, or are all 0xFF, as the test chooses.
class FakeRandomSource : public RandomSource, Locked {
 public:
  enum class SecureMode { kCounter, kFail, kAllOnes };
  float uniformFloat() override { return static_cast<float>(next()); }
  double uniformDouble() override { return next(); }
  int64_t uniformInt(int64_t lower, int64_t upper) override;
  bool secureBytes(std::span<uint8_t> out) override;

  void scriptUniform(std::vector<double> values) {
    withLock([&] { script_.assign(values.begin(), values.end()); });
  }
  void setSecureMode(SecureMode mode) {
    withLock([&] { mode_ = mode; });
  }

 private:
  double next();
  std::deque<double> script_;
  double last_ = 0.5;
  SecureMode mode_ = SecureMode::kCounter;
  uint8_t counter_ = 0;
};

struct CapturedLine {
  LogLevel level;
  std::string text;
};

class CapturingLog : public SystemLog, Locked {
 public:
  void write(LogLevel level, std::string_view line) override {
    withLock([&] { lines_.push_back({level, std::string(line)}); });
  }
  std::vector<CapturedLine> lines() const {
    return withLock([&] { return lines_; });
  }
  // How many lines equal `text` exactly.
  size_t count(std::string_view text) const {
    return countIf([&](const std::string& line) { return line == text; });
  }
  // How many lines contain `fragment`.
  size_t countContaining(std::string_view fragment) const {
    return countIf([&](const std::string& line) { return line.find(fragment) != line.npos; });
  }
  void clear() {
    withLock([&] { lines_.clear(); });
  }

 private:
  size_t countIf(const std::function<bool(const std::string&)>& match) const;
  std::vector<CapturedLine> lines_;
};

// Queues that run only when the test drains them. Delayed work and timers follow the
// FakeClock: ManualExecutors::advance moves it and runs what falls due, in due order.
class ManualExecutors : public Executors, public std::enable_shared_from_this<ManualExecutors> {
 public:
  explicit ManualExecutors(std::shared_ptr<FakeClock> clock) : clock_(std::move(clock)) {}
  std::shared_ptr<SerialQueue> mainQueue() override;
  std::shared_ptr<SerialQueue> makeSerialQueue(const std::string& name) override;

  // Runs every task that is due now, including tasks those tasks post. Returns how many ran.
  size_t runUntilIdle();
  // Moves the clock forward by `seconds`, running due work at each due time on the way.
  void advance(double seconds);
  // Tasks waiting, due or not (repeating timers count once).
  size_t pendingCount() const;

  struct Entry {
    uint64_t sequence;
    double due;
    double interval;  // > 0 for repeating timers
    // Repeating timers fall due at origin + n * interval; adding the interval run after run
    // would drift by a rounding error each time and miss the last run of an advance().
    double origin;
    uint64_t runs;
    SerialQueue* queue;
    Task task;
    std::shared_ptr<bool> cancelled;
  };
  std::shared_ptr<Cancellable> enqueue(SerialQueue* queue, double delay, double interval,
                                       Task task);

 private:
  bool runOne(double upTo);

  std::shared_ptr<FakeClock> clock_;
  mutable std::mutex mutex_;
  std::vector<Entry> entries_;
  uint64_t nextSequence_ = 0;
  std::shared_ptr<SerialQueue> main_;
  std::vector<std::shared_ptr<SerialQueue>> queues_;  // entries point at them
};

struct RecordedReport {
  std::string message;
  std::optional<PlatformError> error;
  bool usingDefaultConfiguration;
  std::optional<PlistDictionary> additionalData;
};

class RecordingErrorReporter : public ErrorReporter, Locked {
 public:
  using ErrorReporter::reportError;
  void reportError(std::string_view message, const std::optional<PlatformError>& error,
                   bool usingDefaultConfiguration,
                   const std::optional<PlistDictionary>& additionalData) override {
    withLock([&] {
      reports_.push_back({std::string(message), error, usingDefaultConfiguration, additionalData});
    });
  }
  std::vector<RecordedReport> reports() const {
    return withLock([&] { return reports_; });
  }
  size_t count(std::string_view message) const {
    return withLock([&] {
      return static_cast<size_t>(std::count_if(
          reports_.begin(), reports_.end(), [&](const auto& r) { return r.message == message; }));
    });
  }
  void clear() {
    withLock([&] { reports_.clear(); });
  }

 private:
  std::vector<RecordedReport> reports_;
};

// A Platform of fakes with an in-memory key-value store, plus typed handles on the fakes.
struct FakePlatform {
  FakePlatform();
  Platform platform;
  std::shared_ptr<FakeClock> clock;
  std::shared_ptr<FakeRandomSource> random;
  std::shared_ptr<CapturingLog> log;
  std::shared_ptr<ManualExecutors> executors;
  std::shared_ptr<HostApplicationService> application;
  // A phone with its facts set; tests change them with device->update().
  std::shared_ptr<HostDeviceService> device;
  // Motion updates come only when a test pushes them.
  std::shared_ptr<ManualMotionService> motion;
  // No path and no notification settings until a test states them.
  std::shared_ptr<HostNetworkPathService> network;
  std::shared_ptr<HostNotificationSettingsService> notifications;
  // Moves the clock and drains every queue.
  void advance(double seconds) { executors->advance(seconds); }
  // `count` samples at 100 Hz lying flat, the i-th with user acceleration (x(i), y, 0); each
  // is delivered, and what it posts runs, before the next.
  void feedMotion(size_t count, double xStep, size_t xPeriod, double y = 0);
  size_t drain() { return executors->runUntilIdle(); }
};

// A provider whose suites can never be opened.
std::shared_ptr<KeyValueStoreProvider> makeUnavailableKeyValueStoreProvider();

// A provider whose suite opens only when the test hands it over, as one another process held
// at start does: openSuiteOrRetry answers null and keeps the caller's callback.
class LateKeyValueStoreProvider : public KeyValueStoreProvider {
 public:
  std::shared_ptr<KeyValueStore> openSuite(std::string_view) override { return nullptr; }
  std::shared_ptr<KeyValueStore> openSuiteOrRetry(std::string_view,
                                                  SuiteOpenedLater openedLater) override {
    openedLater_ = std::move(openedLater);
    return nullptr;
  }
  // Hands `store` to the latest caller of openSuiteOrRetry.
  void open(std::shared_ptr<KeyValueStore> store) { openedLater_(std::move(store)); }

 private:
  SuiteOpenedLater openedLater_;
};

}  // namespace orvane::testing
