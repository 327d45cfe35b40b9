// File: OrvaneLogSender.h
// The durable upload queues. Finished logs wait in the main queue ("orvane_log"), creation
// records of contexts whose outcome was never logged in the unlogged queue
// ("orvane_unlogged"); both live in the defaults suite, oldest first, at most 100 records,
// written back and synchronised on every change. Uploads post a batch and remove exactly the
// records that were sent once the service accepted them; failures back off. Every accepted
// upload also brings the service's state back: geo-IP data, model updates, timing rules.
//
// All queue work runs on one serial queue, which an upload blocks until its HTTP completion
// has run: one upload in flight, and later queue changes wait behind it.
#pragma once

#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "orvane/PlistValue.h"
#include "orvane/platform/Executors.h"

namespace orvane {

class Engine;
class Log;
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
  static constexpr size_t kMaximumSignalsToStore = 100;
  static constexpr size_t kBatchSizeThatUploads = 50;

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
  // Runs `task` on the sender's queue after everything queued before it.
  void onQueue(Task task);
  // Uploads both queues now, whatever the app state and the back-off, and waits at most
  // `timeoutSeconds` for the uploads to end. True when the main queue is empty then. False at
  // once when called on the sender's own queue.
  bool flush(double timeoutSeconds);

 private:
  struct Shared;
  // `forceSend` posts even an empty batch and ignores the back-off; `ignoreBackoff` only the
  // latter.
  void upload(std::string_view key, bool forceSend, bool ignoreBackoff = false);
  void addRecord(std::string_view key, PlistDictionary record, const char* failureMessage,
                 bool mayStartUpload);
  // Removes the records whose log id ("ctx_8") is in `sentIds`.
  void removeLogsFromQueue(std::string_view key, const std::vector<std::string>& sentIds);
  bool shouldUploadNow(size_t queueSize) const;
  void applyServerPayload(const ServerPayload& payload);
  bool completeUpload(const std::optional<struct HttpResponse>& response);

  Engine& owner_;
  std::shared_ptr<Shared> shared_;
  std::shared_ptr<SerialQueue> dispatchQueue_;
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
