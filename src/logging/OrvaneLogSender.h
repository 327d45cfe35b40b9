// File: OrvaneLogSender.h
// The upload queues: the main queue of finished logs and the queue of contexts that were
// never logged. This is the entry surface the manager and the logs use; persistence and
// upload live behind it.
#pragma once

#include <memory>
#include <mutex>
#include <vector>

namespace orvane {

class Log;

enum class UploadQueueKind { kMain, kUnloggedContexts };

class OrvaneLogSender {
 public:
  struct TriggerRequest {
    UploadQueueKind queue;
    bool force;
  };

  // Asks for an upload of one queue; `force` sends even below the batch size.
  void triggerUpload(UploadQueueKind queue, bool force);
  // Takes a finished log into the main queue.
  void enqueue(std::shared_ptr<Log> log);

  // What was asked of the queue so far, oldest first (diagnostics and tests).
  std::vector<TriggerRequest> triggerHistory() const;
  size_t queuedLogCount() const;

 private:
  mutable std::mutex mutex_;
  std::vector<TriggerRequest> triggers_;
  std::vector<std::shared_ptr<Log>> queued_;
};

}  // namespace orvane
