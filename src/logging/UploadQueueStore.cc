#include "logging/UploadQueueStore.h"

#include <algorithm>

#include "api/Engine.h"
#include "logging/OrvaneErrorReporting.h"
#include "util/UserDefaultsProvider.h"

namespace orvane {
namespace {

// The stored records to edit and write back. Copies share each record with the store, so this
// costs a pointer per record however large they are.
PlistArray editableQueue(const PlistValue* stored) {
  const PlistArray* array = stored ? stored->asArray() : nullptr;
  if (array == nullptr) return {};
  for (const PlistValue& item : *array) {
    if (item.asDictionary() == nullptr) return {};
  }
  return *array;
}

template <typename Sequence>
void keepNewest(Sequence& records) {
  if (records.size() <= UploadQueueStore::kMaximumRecords) return;
  records.erase(
      records.begin(),
      records.begin() + static_cast<ptrdiff_t>(records.size() - UploadQueueStore::kMaximumRecords));
}

constexpr const char* kUnavailableDetail = "the upload queue store is unavailable";
constexpr const char* kNotDurableMessage =
    "Upload queue store did not confirm a write as durable: retrying";

}  // namespace

bool UploadQueueStore::available(std::string_view operation) {
  if (owner_.userDefaultsProvider()->isAvailable()) return true;
  notice(operation, kUnavailableDetail);
  return false;
}

size_t UploadQueueStore::append(std::string_view key, PlistValue record,
                                std::string_view operation) {
  auto it = queues_.find(key);
  if (it == queues_.end()) it = queues_.emplace(std::string(key), QueueState{}).first;
  QueueState& state = it->second;
  state.addOperation = std::string(operation);
  state.held.push_back(std::move(record));
  keepNewest(state.held);
  size_t queued = state.held.size();
  if (available(operation)) {
    if (auto size = writeHeld(key, state)) queued = *size;
  }
  publishCount();
  return queued;
}

void UploadQueueStore::removeIf(std::string_view key,
                                const std::function<bool(const PlistDictionary&)>& matches,
                                std::string_view operation) {
  auto pick = [&](const PlistValue& record) {
    const PlistDictionary* fields = record.asDictionary();
    return fields && matches(*fields);
  };
  auto it = queues_.find(key);
  if (it != queues_.end()) std::erase_if(it->second.held, pick);
  if (available(operation)) {
    const auto& defaults = owner_.userDefaultsProvider();
    PlistArray queue = editableQueue(defaults->sharedObject(key).get());
    const size_t before = queue.size();
    std::erase_if(queue, pick);
    const size_t after = queue.size();
    if (after != before && defaults->set(key, std::move(queue))) {
      if (it != queues_.end()) it->second.notDurable = std::min(it->second.notDurable, after);
      unsynchronized_ = true;
    }
  }
  publishCount();
}

void UploadQueueStore::discard(std::string_view key) {
  if (auto it = queues_.find(key); it != queues_.end()) queues_.erase(it);
  owner_.userDefaultsProvider()->eraseKeys({std::string(key)});
  publishCount();
}

std::shared_ptr<const PlistValue> UploadQueueStore::stored(std::string_view key,
                                                           std::string_view operation) {
  return available(operation) ? owner_.userDefaultsProvider()->sharedObject(key) : nullptr;
}

bool UploadQueueStore::retry() {
  if (owner_.userDefaultsProvider()->isAvailable()) {
    for (auto& [key, state] : queues_) {
      if (!state.held.empty()) writeHeld(key, state);
    }
    synchronize();
  }
  publishCount();
  return !hasWaitingWork();
}

bool UploadQueueStore::hasWaitingWork() const {
  if (synchronizeFailed_) return true;
  return std::any_of(queues_.begin(), queues_.end(),
                     [](const auto& entry) { return !entry.second.held.empty(); });
}

std::optional<size_t> UploadQueueStore::writeHeld(std::string_view key, QueueState& state) {
  const auto& defaults = owner_.userDefaultsProvider();
  // Held records came after everything stored (earlier sessions, or before the suite failed).
  PlistArray queue = editableQueue(defaults->sharedObject(key).get());
  queue.insert(queue.end(), state.held.begin(), state.held.end());
  keepNewest(queue);
  const size_t written = std::min(state.held.size(), queue.size());
  const size_t size = queue.size();
  if (!defaults->set(key, std::move(queue))) {
    notice(state.addOperation, kUnavailableDetail);
    return std::nullopt;
  }
  state.held.clear();
  state.notDurable = std::min(state.notDurable + written, size);
  unsynchronized_ = true;
  return size;
}

void UploadQueueStore::synchronize() {
  if (!unsynchronized_ || !owner_.userDefaultsProvider()->isAvailable()) return;
  if (owner_.userDefaultsProvider()->synchronize()) {
    unsynchronized_ = false;
    synchronizeFailed_ = false;
    for (auto& [key, queue] : queues_) queue.notDurable = 0;
  } else {
    synchronizeFailed_ = true;
    notice(kNotDurableMessage, "");
  }
  publishCount();
}

void UploadQueueStore::notice(std::string_view message, std::string_view detail) {
  if (!noticed_.emplace(message).second) return;
  std::string line = "[Orvane] " + std::string(message);
  if (!detail.empty()) line += ": " + std::string(detail);
  owner_.platform().log->error(line);
  owner_.orvaneErrorReporting().reportError(std::string(message));
}

void UploadQueueStore::publishCount() {
  size_t waiting = 0;
  for (const auto& [key, state] : queues_) waiting += state.held.size() + state.notDurable;
  waitingCount_.store(waiting);
}

}  // namespace orvane
