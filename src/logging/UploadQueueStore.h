// File: UploadQueueStore.h
// Where the upload queues keep their records: the defaults suite, or the sender's memory while
// the suite is unavailable (at most kMaximumRecords per queue, oldest dropped; written out
// once the suite opens). Changes are written at once and made durable by synchronize(), which
// the owner calls once behind a run of changes (one disk flush for all of them); a write
// counts as durable only once the suite confirmed it, and retry() tries again after a
// failure. An operation that meets an unavailable suite logs and reports its own message
// (the `operation` of each call, e.g. "Failed to add new log to queue"), once per message;
// a write not confirmed as durable likewise. Used on the sender's serial queue only, except
// recordsWaitingInMemory().
#pragma once

#include <atomic>
#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "orvane/PlistValue.h"

namespace orvane {

class Engine;

class UploadQueueStore {
 public:
  static constexpr size_t kMaximumRecords = 100;

  explicit UploadQueueStore(Engine& owner) : owner_(owner) {}

  // Appends `record` to the queue `key`; returns how many records the queue holds now, in the
  // suite and in memory.
  size_t append(std::string_view key, PlistValue record, std::string_view operation);
  // Removes the records `matches` picks, from the suite and from memory.
  void removeIf(std::string_view key, const std::function<bool(const PlistDictionary&)>& matches,
                std::string_view operation);
  // Deletes the queue `key`: what waits in memory and what the suite holds.
  void discard(std::string_view key);
  // The queue as stored, read in place; empty while the suite is unavailable (records in
  // memory are never uploaded).
  std::shared_ptr<const PlistValue> stored(std::string_view key, std::string_view operation);
  // Makes every change so far durable; a failure is retried by the next call.
  void synchronize();
  bool needsSynchronize() const { return unsynchronized_; }
  // Writes what waits in memory and synchronises again after a failure. True when nothing
  // waits any more.
  bool retry();
  // Records held in memory, or a synchronize that failed: retry() has work.
  bool hasWaitingWork() const;
  // Records not durable yet: held in memory, or written but not confirmed by synchronize().
  // Any thread.
  size_t recordsWaitingInMemory() const { return waitingCount_.load(); }

 private:
  struct QueueState {
    std::deque<PlistValue> held;  // oldest first, not in the suite yet
    size_t notDurable = 0;        // records written since the last confirmed synchronize
    std::string addOperation;     // what a refused write of the held records reports
  };

  bool available(std::string_view operation);
  // Writes the held records of `key` behind the stored ones; returns the queue's size, none
  // when the suite refused the write.
  std::optional<size_t> writeHeld(std::string_view key, QueueState& state);
  // Logs and reports `message` the first time it occurs.
  void notice(std::string_view message, std::string_view detail);
  void publishCount();

  Engine& owner_;  // not owned; the manager outlives its components
  std::map<std::string, QueueState, std::less<>> queues_;
  bool unsynchronized_ = false;     // written since the last confirmed synchronize
  bool synchronizeFailed_ = false;  // and the last attempt failed
  std::set<std::string, std::less<>> noticed_;
  std::atomic<size_t> waitingCount_{0};
};

}  // namespace orvane
