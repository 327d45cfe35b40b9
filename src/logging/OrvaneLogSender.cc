#include "logging/OrvaneLogSender.h"

namespace orvane {

void OrvaneLogSender::triggerUpload(UploadQueueKind queue, bool force) {
  std::lock_guard<std::mutex> guard(mutex_);
  triggers_.push_back({queue, force});
}

void OrvaneLogSender::enqueue(std::shared_ptr<Log> log) {
  std::lock_guard<std::mutex> guard(mutex_);
  queued_.push_back(std::move(log));
}

std::vector<OrvaneLogSender::TriggerRequest> OrvaneLogSender::triggerHistory() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return triggers_;
}

size_t OrvaneLogSender::queuedLogCount() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return queued_.size();
}

}  // namespace orvane
