// File: OrvaneLogSender.h
// The durable upload queues. Finished logs wait in the main queue ("orvane_log"), creation
// records of contexts whose outcome was never logged in the unlogged queue
// ("orvane_unlogged"); both live in the defaults suite, oldest first, at most 100 records,
// written back and synchronised on every change (UploadQueueStore). Uploads post a batch and
// remove exactly the records that were sent once the service accepted them; failures back off,
// a Retry-After of 429 and 503 sets a floor, and a batch refused as too large (413) is split
// until the record at fault is found and dropped. Every accepted upload also brings the
// service's state back: geo-IP data, model updates, timing rules.
//
// All queue work runs on one serial queue, which never waits for the network: an upload reads
// its batch there and sends it, and the answer is handled back on the queue. Each queue has at
// most one upload in flight; a request meanwhile runs once that upload has ended.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "logging/UploadFailureNotes.h"
#include "logging/UploadQueueStore.h"
#include "orvane/PlistValue.h"
#include "orvane/platform/Executors.h"

namespace orvane {

class Engine;
class Log;
struct HttpResponse;
struct ServerPayload;

enum class UploadQueueKind { kMain, kUnloggedContexts };

class OrvaneLogSender {
 public:
  static constexpr std::string_view kMainQueueKey = "orvane_log";
  static constexpr std::string_view kUnloggedQueueKey = "orvane_unlogged";
  static constexpr std::string_view kPath = "/v3/queue/tech";
  static constexpr std::string_view kPlatform = "ios_ads";
  static constexpr double kMaximumBackoffS = 3600;
  static constexpr double kInitialBackoffS = 30;
  static constexpr double kBackoffGrowth = 1.2;
  static constexpr size_t kMaximumSignalsToStore = UploadQueueStore::kMaximumRecords;
  static constexpr size_t kBatchSizeThatUploads = 50;
  // The request's own time limit, and the guard against a transport that never answers: past
  // it the attempt counts as failed and a late answer is ignored.
  static constexpr double kRequestTimeoutSeconds = 60;
  static constexpr double kCompletionGuardSeconds = kRequestTimeoutSeconds + 120;
  // Records the store could not take yet are written again after this, doubling up to the
  // longest delay.
  static constexpr double kStoreRetryFirstDelayS = 1;
  static constexpr double kStoreRetryLongestDelayS = 60;

  // What an upload says about the installation besides its records.
  struct UploadBodyFields {
    std::string bundleId;
    std::string licenseKey;
    std::string sdkVersion;
    int64_t lastOtaUpdate = 0;
    std::string installationUUID;
  };
  // The JSON body of an upload of `batch`; none when a record cannot be written as JSON.
  static std::optional<std::string> encodeUploadBody(std::span<const PlistDictionary* const> batch,
                                                     const UploadBodyFields& fields);

  struct TriggerRequest {
    UploadQueueKind queue;
    bool force;
  };

  explicit OrvaneLogSender(Engine& owner);
  ~OrvaneLogSender();
  OrvaneLogSender(const OrvaneLogSender&) = delete;
  OrvaneLogSender& operator=(const OrvaneLogSender&) = delete;

  // Call on the main queue: starts an upload of `queue` on the sender's queue while the app is
  // active; does nothing otherwise. `force` posts even an empty batch and ignores back-off.
  void triggerUpload(UploadQueueKind queue, bool force);
  // The queues keep the log's flat form, never the log object. These return at once.
  void addToQueue(const Log& log);
  void addToUnloggedQueue(const Log& log);
  void removeUnloggedEventFromQueue(const std::string& contextUUID);

  // Reads from the store (empty without one). Diagnostics and tests.
  std::vector<PlistDictionary> mainQueue() const;
  std::vector<PlistDictionary> unloggedQueue() const;
  std::vector<TriggerRequest> triggerHistory() const;
  double currentBackoffSeconds() const;
  // Any thread.
  bool uploadInFlight() const;
  size_t recordsWaitingInMemory() const;
  // Runs `task` on the sender's queue after everything queued before it, once the records
  // written so far are durable.
  void onQueue(Task task);
  // Uploads both queues now, whatever the app state and the back-off (a Retry-After floor
  // still holds), and waits at most `timeoutSeconds` for those uploads to end, behind any
  // already in flight. True when the main queue is empty then. False at once when called on
  // the sender's own queue.
  bool flush(double timeoutSeconds);
  // Deletes both queues, on disk and in memory, behind every change queued before it; then
  // calls `done` on the sender's queue.
  void discardQueues(std::function<void()> done);

 private:
  struct Shared;
  struct UploadRun;
  // `forceSend` posts even an empty batch and ignores the back-off; `ignoreBackoff` only the
  // latter. Neither overrides a Retry-After floor.
  struct UploadFlags {
    bool forceSend = false;
    bool ignoreBackoff = false;
  };
  // Per queue, on the sender's queue only.
  struct QueueUploads {
    std::shared_ptr<UploadRun> current;  // the upload in flight
    std::optional<UploadFlags> pending;  // requested meanwhile; runs once `current` ends
    uint64_t runsStarted = 0;
    uint64_t runsEnded = 0;
  };
  // A flush waiting for one run of each queue to end.
  struct FlushWaiter {
    uint64_t mainRun;
    uint64_t unloggedRun;
    std::function<void()> done;
  };

  // Runs `task` on the sender's queue while the sender exists; any thread, also from a
  // transport's completion after the sender has gone.
  static void postToQueue(const std::weak_ptr<Shared>& weak, OrvaneLogSender* sender,
                          std::function<void(OrvaneLogSender&)> task);
  void addRecord(std::string_view key, PlistDictionary record, bool mayStartUpload);
  void runOnQueue(Task task);
  // Runs a change of the stored queues on the sender's queue; the last of a run of queued
  // changes synchronises the store.
  void changeStoreOnQueue(Task change);
  void synchronizeStore();
  // Writes what the store holds back later, with a growing delay, while it has any.
  void scheduleStoreRetry();
  // Starts an upload of `queue` or remembers it behind the one in flight. Returns the number
  // of the run that will serve the request.
  uint64_t requestUpload(UploadQueueKind queue, UploadFlags flags);
  void startRun(UploadQueueKind queue, UploadFlags flags);
  // Reads the batch and sends its first part; false when nothing is sent.
  bool beginUpload(UploadQueueKind queue, UploadFlags flags);
  void sendPart(const std::shared_ptr<UploadRun>& run);
  // The request for one upload body: gzip-coded when the service takes it.
  HttpRequest uploadRequest(const std::string& body, UploadRun& run) const;
  void handleAnswer(const std::shared_ptr<UploadRun>& run,
                    const std::optional<HttpResponse>& response,
                    const std::optional<PlatformError>& error);
  void dropRefusedRecord(const UploadRun& run);
  // Takes the records of the part about to be sent that cannot be written as JSON out of the
  // run and the queue, logged and reported; false when there were none.
  bool dropUnencodableRecords(UploadRun& run);
  void endRun(UploadQueueKind queue);
  QueueUploads& uploadsOf(UploadQueueKind queue);
  // Removes the records whose log id ("ctx_8") is in `sentIds`.
  void removeLogsFromQueue(std::string_view key, const std::vector<std::string>& sentIds);
  bool shouldUploadNow(size_t queueSize) const;
  // Applies the payload unless the data was erased since `generation`.
  void applyServerPayload(const ServerPayload& payload, uint64_t generation);
  // Applies an answer to the back-off and, when accepted, its payload; true when accepted.
  bool completeUpload(const std::optional<HttpResponse>& response, uint64_t generation);

  Engine& owner_;
  // Taken once here: the manager's destruction resets its own handle, which a task on our
  // queue must not be reading at that moment.
  const std::weak_ptr<Engine> ownerHandle_;
  std::shared_ptr<Shared> shared_;
  std::atomic<int> queuedChanges_{0};  // posted by changeStoreOnQueue, not run yet
  std::shared_ptr<SerialQueue> dispatchQueue_;
  // The rest is touched only on the sender's queue.
  std::unique_ptr<UploadQueueStore> store_;
  QueueUploads mainUploads_;
  QueueUploads unloggedUploads_;
  std::vector<FlushWaiter> flushWaiters_;
  uint64_t attempts_ = 0;
  // A service that announced gzip bodies and then refused one (415) gets plain JSON for the
  // rest of the session.
  bool gzipRefused_ = false;
  UploadFailureNotes failureNotes_;
  std::shared_ptr<Cancellable> storeRetry_;
  double storeRetryDelayS_ = kStoreRetryFirstDelayS;
};

// Reads a stored queue: an array of text-keyed maps, anything else as empty.
std::vector<PlistDictionary> readStoredQueue(const std::optional<PlistValue>& stored);
std::vector<PlistDictionary> readStoredQueue(const PlistValue* stored);

// The records of a stored queue read in place: `records` point into `holder`, which keeps the
// stored value alive. Empty under the same rule as readStoredQueue.
struct StoredQueueView {
  std::shared_ptr<const PlistValue> holder;
  std::vector<const PlistDictionary*> records;
};
StoredQueueView viewStoredQueue(std::shared_ptr<const PlistValue> stored);

}  // namespace orvane
