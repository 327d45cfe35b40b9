#include "logging/OrvaneLogSender.h"

#include "orvane/Log.h"

namespace orvane {

void OrvaneLogSender::triggerUpload(UploadQueueKind queue, bool force) {
  std::lock_guard<std::mutex> guard(mutex_);
  triggers_.push_back({queue, force});
}

void OrvaneLogSender::addToQueue(const Log& log) {
  PlistDictionary record = log.rawDictionaryWithStaticColumns();
  std::lock_guard<std::mutex> guard(mutex_);
  main_.push_back(std::move(record));
}

void OrvaneLogSender::addToUnloggedQueue(const Log& log) {
  PlistDictionary record = log.rawDictionaryWithStaticColumns();
  std::lock_guard<std::mutex> guard(mutex_);
  unlogged_.push_back(std::move(record));
}

void OrvaneLogSender::removeUnloggedEventFromQueue(const std::string& contextUUID) {
  std::lock_guard<std::mutex> guard(mutex_);
  removed_.push_back(contextUUID);
  std::erase_if(unlogged_, [&](const PlistDictionary& record) {
    auto it = record.find("ctx_29");
    return it != record.end() && it->second.asString() && *it->second.asString() == contextUUID;
  });
}

std::vector<OrvaneLogSender::TriggerRequest> OrvaneLogSender::triggerHistory() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return triggers_;
}

std::vector<PlistDictionary> OrvaneLogSender::mainQueue() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return main_;
}

std::vector<PlistDictionary> OrvaneLogSender::unloggedQueue() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return unlogged_;
}

std::vector<std::string> OrvaneLogSender::removedContextUUIDs() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return removed_;
}

}  // namespace orvane
