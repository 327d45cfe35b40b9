// File: OrvaneLogSender.h
// The upload queues: the main queue of finished logs and the queue of contexts that were
// never logged. This is the surface the manager and the logs use; persistence and upload
// live behind it.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "orvane/PlistValue.h"

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
  // The queues keep the log's flat form, never the log object.
  void addToQueue(const Log& log);
  void addToUnloggedQueue(const Log& log);
  void removeUnloggedEventFromQueue(const std::string& contextUUID);

  // What was asked of the queues so far, oldest first (diagnostics and tests).
  std::vector<TriggerRequest> triggerHistory() const;
  std::vector<PlistDictionary> mainQueue() const;
  std::vector<PlistDictionary> unloggedQueue() const;
  std::vector<std::string> removedContextUUIDs() const;

 private:
  mutable std::mutex mutex_;
  std::vector<TriggerRequest> triggers_;
  std::vector<PlistDictionary> main_;
  std::vector<PlistDictionary> unlogged_;
  std::vector<std::string> removed_;
};

}  // namespace orvane
