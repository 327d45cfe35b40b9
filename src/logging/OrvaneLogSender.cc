#include "logging/OrvaneLogSender.h"

#include <algorithm>
#include <chrono>
#include <deque>
#include <future>
#include <utility>

#include "api/Engine.h"
#include "config/RemoteConfiguration.h"
#include "config/ServerPayload.h"
#include "generators/AppInstallationEnvironmentHelper.h"
#include "generators/GeoIPSignalGenerator.h"
#include "generators/InternetSignalsGenerator.h"
#include "logging/AnyEncodable.h"
#include "logging/Compression.h"
#include "logging/LogDictionaries.h"
#include "logging/OrvaneErrorReporting.h"
#include "models/CoreMLModelManager.h"
#include "orvane/Log.h"
#include "orvane/platform/HttpTransport.h"
#include "timing/TimingCoordinator.h"
#include "util/DateProvider.h"
#include "util/RetryAfter.h"
#include "util/URLText.h"
#include "util/UserDefaultsProvider.h"

namespace orvane {
namespace {

// A host's timeout as a wait: NaN and below zero wait not at all; anything beyond a year (an
// infinite one included) waits a year, as its count in clock ticks would overflow and end the
// wait at once.
std::chrono::nanoseconds flushWait(double seconds) {
  constexpr double kLongestS = 365.0 * 24 * 3600;
  if (!(seconds > 0)) return std::chrono::nanoseconds(0);
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
      std::chrono::duration<double>(std::min(seconds, kLongestS)));
}

constexpr const char* kInternalBundleIdentifiers[] = {"com.orvane.demo", "com.orvane.demo.dev",
                                                      "com.orvane.internal"};

// What each operation reports when the store is unavailable.
constexpr const char* kAddFailed = "Failed to add new log to queue";
constexpr const char* kAddUnloggedFailed = "Failed to add logs to unlogged queue";
constexpr const char* kRemoveUnloggedFailed = "Failed to remove logs from unlogged queue";
constexpr const char* kUploadFailed = "Failed to perform log upload";
constexpr const char* kRemoveSentFailed = "Failed to remove logs from queue";

const std::string* textAt(const PlistDictionary& record, const char* key) {
  auto it = record.find(key);
  return it == record.end() ? nullptr : it->second.asString();
}

std::vector<std::string> logIdsOf(std::span<const PlistDictionary* const> records) {
  std::vector<std::string> ids;
  for (const PlistDictionary* record : records) {
    if (const std::string* id = textAt(*record, "ctx_8")) ids.push_back(*id);
  }
  return ids;
}

bool isAccepted(const std::optional<HttpResponse>& response) {
  return response && response->statusCode >= 200 && response->statusCode <= 202;
}

}  // namespace

std::vector<PlistDictionary> readStoredQueue(const std::optional<PlistValue>& stored) {
  return readStoredQueue(stored ? &*stored : nullptr);
}

StoredQueueView viewStoredQueue(std::shared_ptr<const PlistValue> stored) {
  StoredQueueView view;
  const PlistArray* array = stored ? stored->asArray() : nullptr;
  if (array == nullptr) return view;
  view.records.reserve(array->size());
  for (const PlistValue& item : *array) {
    const PlistDictionary* record = item.asDictionary();
    if (record == nullptr) return {};
    view.records.push_back(record);
  }
  view.holder = std::move(stored);
  return view;
}

std::vector<PlistDictionary> readStoredQueue(const PlistValue* stored) {
  std::vector<PlistDictionary> records;
  const PlistArray* array = stored ? stored->asArray() : nullptr;
  if (array == nullptr) return records;
  records.reserve(array->size());
  for (const PlistValue& item : *array) {
    const PlistDictionary* record = item.asDictionary();
    if (record == nullptr) return {};
    records.push_back(*record);
  }
  return records;
}

struct OrvaneLogSender::Shared {
  std::mutex mutex;
  double currentBackoffS = 0;
  double lastSendingAttempt = 0;
  double retryAfterUntil = 0;  // no attempt before this date (a Retry-After answer)
  std::vector<TriggerRequest> triggers;
  bool alive = true;
  int uploadsInFlight = 0;
  std::weak_ptr<SerialQueue> queue;
};

struct OrvaneLogSender::UploadRun {
  UploadQueueKind queue;
  std::string_view key;
  StoredQueueView stored;  // keeps the batch's records alive
  std::vector<const PlistDictionary*> batch;
  // What is still to send, as [begin, end) of `batch`, next first. A part refused as too large
  // is replaced by its halves.
  std::deque<std::pair<size_t, size_t>> parts;
  uint64_t attempt = 0;          // the answer waited for
  uint64_t eraseGeneration = 0;  // when the run began: its answers belong to that installation
  size_t bodyBytes = 0;          // of that request, as sent
  bool gzipped = false;          // whether that request's body was gzip-coded
  std::shared_ptr<Cancellable> guard;

  std::span<const PlistDictionary* const> nextPart() const {
    return {batch.data() + parts.front().first, parts.front().second - parts.front().first};
  }
};

OrvaneLogSender::OrvaneLogSender(Engine& owner)
    : owner_(owner),
      ownerHandle_(owner.weakHandle()),
      shared_(std::make_shared<Shared>()),
      dispatchQueue_(owner.platform().executors->makeSerialQueue("com.orvane.OrvaneLogSender")),
      store_(std::make_unique<UploadQueueStore>(owner)) {
  shared_->lastSendingAttempt = owner_.dateProvider()->currentDate().secondsSince1970;
  shared_->queue = dispatchQueue_;
}

OrvaneLogSender::~OrvaneLogSender() {
  {
    std::lock_guard<std::mutex> guard(shared_->mutex);
    shared_->alive = false;
  }
  // Only a task already running is waited for: no task waits for the network, and an answer
  // that arrives later finds the sender gone and is dropped.
  if (!dispatchQueue_->isCurrent()) dispatchQueue_->sync([] {});
  for (QueueUploads* uploads : {&mainUploads_, &unloggedUploads_}) {
    if (uploads->current && uploads->current->guard) uploads->current->guard->cancel();
  }
  if (storeRetry_) storeRetry_->cancel();
}

void OrvaneLogSender::postToQueue(const std::weak_ptr<Shared>& weak, OrvaneLogSender* sender,
                                  std::function<void(OrvaneLogSender&)> task) {
  std::shared_ptr<SerialQueue> queue;
  if (auto shared = weak.lock()) queue = shared->queue.lock();
  if (!queue) return;
  queue->async([weak, sender, task = std::move(task)] {
    auto shared = weak.lock();
    if (!shared) return;
    {
      std::lock_guard<std::mutex> guard(shared->mutex);
      if (!shared->alive) return;
    }
    // The destructor waits for a task that got this far, so the sender is still there.
    task(*sender);
  });
}

void OrvaneLogSender::onQueue(Task task) {
  // Changes queued before `task` are durable when it runs, as if each had synchronised.
  postToQueue(shared_, this, [task = std::move(task)](OrvaneLogSender& sender) {
    if (sender.store_->needsSynchronize()) sender.synchronizeStore();
    task();
  });
}

void OrvaneLogSender::runOnQueue(Task task) {
  postToQueue(shared_, this, [task = std::move(task)](OrvaneLogSender&) { task(); });
}

void OrvaneLogSender::changeStoreOnQueue(Task change) {
  ++queuedChanges_;
  runOnQueue([this, change = std::move(change)] {
    change();
    // The last change of a run makes them all durable with one disk flush; each waiting for
    // its own would let a steady stream of records fall behind on a busy disk.
    if (--queuedChanges_ == 0) synchronizeStore();
  });
}

// ---- Adding and removing ------------------------------------------------------------------

void OrvaneLogSender::addToQueue(const Log& log) {
  addRecord(kMainQueueKey, rawDictionaryWithStaticColumns(log), true);
}

void OrvaneLogSender::addToUnloggedQueue(const Log& log) {
  addRecord(kUnloggedQueueKey, rawDictionaryWithStaticColumns(log), false);
}

void OrvaneLogSender::addRecord(std::string_view key, PlistDictionary record, bool mayStartUpload) {
  // Without consent a record is not kept: it never reaches the disk and is never sent later.
  if (!owner_.collectionAllowed()) return;
  changeStoreOnQueue([this, key, record = std::move(record), mayStartUpload]() mutable {
    const size_t queued = store_->append(key, PlistValue(std::move(record)),
                                         key == kMainQueueKey ? kAddFailed : kAddUnloggedFailed);
    if (!mayStartUpload || !shouldUploadNow(queued)) return;
    // Through the manager's handle: the sender may be gone by the time the main queue runs
    // this, and the manager's destruction waits for a hold to end.
    owner_.platform().executors->mainQueue()->async([handle = ownerHandle_] {
      if (auto engine = Engine::hold(handle)) {
        engine->orvaneLogSender().triggerUpload(UploadQueueKind::kMain, false);
      }
    });
  });
}

void OrvaneLogSender::discardQueues(std::function<void()> done) {
  runOnQueue([this, done = std::move(done)] {
    for (std::string_view key : {kMainQueueKey, kUnloggedQueueKey}) store_->discard(key);
    // An upload in flight finds nothing to remove when its answer comes.
    if (done) done();
  });
}

void OrvaneLogSender::synchronizeStore() {
  store_->synchronize();
  scheduleStoreRetry();
}

void OrvaneLogSender::scheduleStoreRetry() {
  if (storeRetry_ || !store_->hasWaitingWork()) return;
  std::weak_ptr<Shared> weak = shared_;
  storeRetry_ = dispatchQueue_->asyncAfter(storeRetryDelayS_, [weak, this] {
    postToQueue(weak, this, [](OrvaneLogSender& sender) {
      sender.storeRetry_.reset();
      sender.storeRetryDelayS_ =
          sender.store_->retry() ? kStoreRetryFirstDelayS
                                 : std::min(sender.storeRetryDelayS_ * 2, kStoreRetryLongestDelayS);
      sender.scheduleStoreRetry();
    });
  });
}

bool OrvaneLogSender::shouldUploadNow(size_t queueSize) const {
  const BundleInfo& bundle = owner_.platform().bundle;
  if (AppInstallationEnvironmentHelper::current(bundle) != 0) return true;
  for (const char* internal : kInternalBundleIdentifiers) {
    if (owner_.bundleIdentifier() == internal) return true;
  }
  if (owner_.numberOfAppLaunches() <= owner_.numberOfInitialSessionsToAlwaysSendData()) {
    return true;
  }
  return queueSize >= kBatchSizeThatUploads;
}

void OrvaneLogSender::removeUnloggedEventFromQueue(const std::string& contextUUID) {
  changeStoreOnQueue([this, contextUUID] {
    store_->removeIf(
        kUnloggedQueueKey,
        [&](const PlistDictionary& record) {
          const std::string* uuid = textAt(record, "ctx_29");
          return uuid && *uuid == contextUUID;
        },
        kRemoveUnloggedFailed);
  });
}

void OrvaneLogSender::removeLogsFromQueue(std::string_view key,
                                          const std::vector<std::string>& sent) {
  // The store reads the queue again: records added while the batch was in flight stay.
  store_->removeIf(
      key,
      [&](const PlistDictionary& record) {
        const std::string* id = textAt(record, "ctx_8");
        return id && std::find(sent.begin(), sent.end(), *id) != sent.end();
      },
      kRemoveSentFailed);
  if (queuedChanges_ == 0) synchronizeStore();  // else the last queued change does
}

std::optional<std::string> OrvaneLogSender::encodeUploadBody(
    std::span<const PlistDictionary* const> batch, const UploadBodyFields& fields) {
  std::string body = "{\"events\":[";
  body.reserve(batch.size() * 8192 + 512);  // a record is ~7 kB of JSON
  std::optional<PlatformError> encodingError;
  for (size_t i = 0; i < batch.size(); ++i) {
    if (i > 0) body.push_back(',');
    appendJsonObject(body, *batch[i], encodingError);
  }
  if (encodingError) return std::nullopt;
  body.push_back(']');
  auto field = [&body](const char* name, std::string_view text) {
    body += ",\"";
    body += name;
    body += "\":";
    appendJsonString(body, text);
  };
  field("bundle_id", fields.bundleId);
  field("license_key", fields.licenseKey);
  field("sdk_version", fields.sdkVersion);
  body += ",\"last_ota_update\":" + std::to_string(fields.lastOtaUpdate);
  field("installation_uuid", fields.installationUUID);
  field("platform", kPlatform);
  body += "}";
  return body;
}

// ---- Uploading ----------------------------------------------------------------------------

void OrvaneLogSender::triggerUpload(UploadQueueKind queue, bool force) {
  {
    std::lock_guard<std::mutex> guard(shared_->mutex);
    shared_->triggers.push_back({queue, force});
  }
  const auto& application = owner_.platform().application;
  if (!application || application->applicationState() != ApplicationState::kActive) return;
  runOnQueue([this, queue, force] { requestUpload(queue, {force, force}); });
}

bool OrvaneLogSender::flush(double timeoutSeconds) {
  if (dispatchQueue_->isCurrent()) return false;
  auto done = std::make_shared<std::promise<void>>();
  std::future<void> finished = done->get_future();
  runOnQueue([this, done] {
    FlushWaiter waiter;
    waiter.unloggedRun = requestUpload(UploadQueueKind::kUnloggedContexts, {false, true});
    waiter.mainRun = requestUpload(UploadQueueKind::kMain, {false, true});
    if (mainUploads_.runsEnded >= waiter.mainRun &&
        unloggedUploads_.runsEnded >= waiter.unloggedRun) {
      done->set_value();
      return;
    }
    waiter.done = [done] { done->set_value(); };
    flushWaiters_.push_back(std::move(waiter));
  });
  if (finished.wait_for(flushWait(timeoutSeconds)) != std::future_status::ready) return false;
  return mainQueue().empty();
}

OrvaneLogSender::QueueUploads& OrvaneLogSender::uploadsOf(UploadQueueKind queue) {
  return queue == UploadQueueKind::kMain ? mainUploads_ : unloggedUploads_;
}

uint64_t OrvaneLogSender::requestUpload(UploadQueueKind queue, UploadFlags flags) {
  QueueUploads& uploads = uploadsOf(queue);
  if (uploads.current) {
    // Assigned, not emplaced: clang 14 does not see the member initialisers' type as
    // constructible from nothing inside the enclosing class.
    if (!uploads.pending) uploads.pending = UploadFlags{};
    UploadFlags& pending = *uploads.pending;
    pending.forceSend |= flags.forceSend;
    pending.ignoreBackoff |= flags.ignoreBackoff;
    return uploads.runsStarted + 1;
  }
  startRun(queue, flags);
  return uploads.runsStarted;
}

void OrvaneLogSender::startRun(UploadQueueKind queue, UploadFlags flags) {
  ++uploadsOf(queue).runsStarted;
  if (!beginUpload(queue, flags)) endRun(queue);
}

bool OrvaneLogSender::beginUpload(UploadQueueKind queue, UploadFlags flags) {
  if (!owner_.collectionAllowed()) return false;
  auto run = std::make_shared<UploadRun>();
  run->queue = queue;
  run->eraseGeneration = owner_.erasures().current();
  run->key = queue == UploadQueueKind::kMain ? kMainQueueKey : kUnloggedQueueKey;
  // Read in place: the stored queue is large and the upload only reads it.
  run->stored = viewStoredQueue(store_->stored(run->key, kUploadFailed));
  run->batch = run->stored.records;
  if (queue == UploadQueueKind::kUnloggedContexts) {
    // Contexts of the running session may still be logged: they are not "unlogged" yet.
    const std::string session = owner_.currentSessionId();
    std::erase_if(run->batch, [&](const PlistDictionary* record) {
      const std::string* id = textAt(*record, "ctx_14");
      return id && *id == session;
    });
  }
  if (run->batch.empty() && !flags.forceSend) return false;

  const double now = owner_.dateProvider()->currentDate().secondsSince1970;
  {
    std::lock_guard<std::mutex> guard(shared_->mutex);
    if (shared_->currentBackoffS > now - shared_->lastSendingAttempt && !flags.forceSend &&
        !flags.ignoreBackoff) {
      return false;
    }
    if (now < shared_->retryAfterUntil) return false;
    shared_->lastSendingAttempt = now;
  }
  if (!parsesAsURL(owner_.serviceBaseURL() + std::string(kPath)) || !owner_.platform().http) {
    return false;
  }
  run->parts.emplace_back(0, run->batch.size());
  uploadsOf(queue).current = run;
  {
    std::lock_guard<std::mutex> guard(shared_->mutex);
    ++shared_->uploadsInFlight;
  }
  sendPart(run);
  return true;
}

void OrvaneLogSender::sendPart(const std::shared_ptr<UploadRun>& run) {
  const auto& defaults = owner_.userDefaultsProvider();
  UploadBodyFields fields;
  fields.bundleId = owner_.bundleIdentifier();
  fields.licenseKey = owner_.licenseKey().value_or("");
  fields.sdkVersion = ContextManager::sdkVersion();
  fields.lastOtaUpdate = defaults->integer(CoreMLModelManager::kLastAppliedVersion).value_or(0);
  fields.installationUUID = owner_.installationUUID();
  std::optional<std::string> body = encodeUploadBody(run->nextPart(), fields);
  if (!body && dropUnencodableRecords(*run) && !run->nextPart().empty()) {
    body = encodeUploadBody(run->nextPart(), fields);  // the rest of the part still goes
  }
  if (!body) {
    // A record that cannot be written would block the queue forever: drop the part.
    removeLogsFromQueue(run->key, logIdsOf(run->nextPart()));
    run->parts.pop_front();
    if (run->parts.empty()) {
      endRun(run->queue);
    } else {
      sendPart(run);
    }
    return;
  }

  HttpRequest request = uploadRequest(*body, *run);
  body.reset();
  const uint64_t attempt = run->attempt = ++attempts_;

  // The answer and the guard hold the run weakly: once the run has ended, whichever comes
  // second finds nothing, and neither keeps the batch alive.
  std::weak_ptr<UploadRun> weakRun = run;
  auto answer = [weakRun, attempt](OrvaneLogSender& sender,
                                   const std::optional<HttpResponse>& response,
                                   const std::optional<PlatformError>& error) {
    auto current = weakRun.lock();
    if (!current || current->attempt != attempt ||
        sender.uploadsOf(current->queue).current != current) {
      return;  // the guard gave up on this attempt, or its answer came already
    }
    sender.handleAnswer(current, response, error);
  };
  std::weak_ptr<Shared> weak = shared_;
  run->guard = dispatchQueue_->asyncAfter(kCompletionGuardSeconds, [weak, this, answer] {
    postToQueue(weak, this,
                [answer](OrvaneLogSender& sender) { answer(sender, std::nullopt, std::nullopt); });
  });
  owner_.platform().http->send(
      std::move(request), [weak, this, answer](std::optional<HttpResponse> response,
                                               const std::optional<PlatformError>& error) {
        postToQueue(weak, this,
                    [answer, response = std::move(response), error](OrvaneLogSender& sender) {
                      answer(sender, response, error);
                    });
      });
}

HttpRequest OrvaneLogSender::uploadRequest(const std::string& body, UploadRun& run) const {
  HttpRequest request;
  request.url = owner_.serviceBaseURL() + std::string(kPath);
  request.headers = {{"Content-Type", "application/json"}};
  request.timeoutSeconds = kRequestTimeoutSeconds;
  run.gzipped = false;
  if (!gzipRefused_ &&
      owner_.remoteConfiguration().getConfiguration().uploadContentEncoding == "gzip") {
    if (auto packed =
            gzipCompress(std::span(reinterpret_cast<const uint8_t*>(body.data()), body.size()))) {
      request.headers.emplace_back("Content-Encoding", "gzip");
      request.body = std::move(*packed);
      run.gzipped = true;
    }
  }
  if (!run.gzipped) request.body.assign(body.begin(), body.end());
  run.bodyBytes = request.body.size();
  return request;
}

void OrvaneLogSender::handleAnswer(const std::shared_ptr<UploadRun>& run,
                                   const std::optional<HttpResponse>& response,
                                   const std::optional<PlatformError>& error) {
  if (run->guard) run->guard->cancel();
  if (auto failure = UploadFailureNotes::describe(response, error)) {
    failureNotes_.noteFailure(*owner_.platform().log, *failure, owner_.currentSessionId());
    if (error && error->code == kResourceExceedsMaximumSize) {
      // Rare and a sign of a service gone wrong: not thinned out by the sampling rate.
      owner_.orvaneErrorReporting().reportError("Upload answer exceeded the size limit", *error,
                                                true, std::nullopt);
    }
  }
  if (response && response->statusCode == 415 && run->gzipped) {
    // The coding the service announced is not taken after all: the same part goes plain.
    gzipRefused_ = true;
    owner_.platform().log->info(
        "[Orvane] The service refused a gzip upload body (415); uploads are sent as plain JSON "
        "for the rest of the session.");
    sendPart(run);
    return;
  }
  const auto [begin, end] = run->parts.front();
  const bool tooLarge = response && response->statusCode == 413 && end > begin;
  if (tooLarge && end - begin > 1) {
    // Halves at once: the service is answering, and only the record at fault must go.
    const size_t middle = begin + (end - begin) / 2;
    run->parts.pop_front();
    run->parts.emplace_front(middle, end);
    run->parts.emplace_front(begin, middle);
    sendPart(run);
    return;
  }
  if (tooLarge) {
    dropRefusedRecord(*run);
  } else if (completeUpload(response, run->eraseGeneration)) {
    removeLogsFromQueue(run->key, logIdsOf(run->nextPart()));
  } else {
    UploadFailureNotes::noteBackoff(
        *owner_.platform().log, currentBackoffSeconds(),
        viewStoredQueue(store_->stored(run->key, kUploadFailed)).records.size());
    endRun(run->queue);  // backing off; what was not sent waits for the next attempt
    return;
  }
  run->parts.pop_front();
  if (run->parts.empty()) {
    endRun(run->queue);
  } else {
    sendPart(run);
  }
}

void OrvaneLogSender::dropRefusedRecord(const UploadRun& run) {
  const PlistDictionary& record = *run.nextPart().front();
  const std::string* id = textAt(record, "ctx_8");
  const std::string logId = id ? *id : "";
  owner_.platform().log->error("[Orvane] The service refused log " + logId + " as too large (" +
                               std::to_string(run.bodyBytes) + " bytes); dropped it");
  owner_.orvaneErrorReporting().reportError(
      "Upload refused a record as too large; dropped it", std::nullopt, false,
      PlistDictionary{{"log_id", logId}, {"size", static_cast<int64_t>(run.bodyBytes)}});
  if (id) removeLogsFromQueue(run.key, {logId});
}

bool OrvaneLogSender::dropUnencodableRecords(UploadRun& run) {
  auto& [begin, end] = run.parts.front();
  std::vector<std::string> ids;
  size_t dropped = 0;
  std::string scratch;
  for (size_t i = begin; i < end;) {
    std::optional<PlatformError> error;
    scratch.clear();
    appendJsonObject(scratch, *run.batch[i], error);
    if (!error) {
      ++i;
      continue;
    }
    if (const std::string* id = textAt(*run.batch[i], "ctx_8")) ids.push_back(*id);
    run.batch.erase(run.batch.begin() + static_cast<ptrdiff_t>(i));
    --end;
    ++dropped;
  }
  if (dropped == 0) return false;
  // The parts behind this one index the batch further on.
  for (auto it = std::next(run.parts.begin()); it != run.parts.end(); ++it) {
    it->first -= dropped;
    it->second -= dropped;
  }
  const std::string first = ids.empty() ? "" : ids.front();
  owner_.platform().log->error("[Orvane] " + std::to_string(dropped) +
                               " queued log(s) could not be written as JSON (first: " + first +
                               "); dropped them");
  owner_.orvaneErrorReporting().reportError(
      "Upload dropped records that could not be encoded", std::nullopt, false,
      PlistDictionary{{"log_id", first}, {"count", static_cast<int64_t>(dropped)}});
  removeLogsFromQueue(run.key, ids);
  return true;
}

void OrvaneLogSender::endRun(UploadQueueKind queue) {
  QueueUploads& uploads = uploadsOf(queue);
  if (uploads.current) {
    uploads.current.reset();
    std::lock_guard<std::mutex> guard(shared_->mutex);
    --shared_->uploadsInFlight;
  }
  ++uploads.runsEnded;
  std::vector<FlushWaiter> finished;
  std::erase_if(flushWaiters_, [&](FlushWaiter& waiter) {
    if (mainUploads_.runsEnded < waiter.mainRun ||
        unloggedUploads_.runsEnded < waiter.unloggedRun) {
      return false;
    }
    finished.push_back(std::move(waiter));
    return true;
  });
  for (FlushWaiter& waiter : finished) waiter.done();
  if (auto pending = std::exchange(uploads.pending, std::nullopt)) startRun(queue, *pending);
}

bool OrvaneLogSender::completeUpload(const std::optional<HttpResponse>& response,
                                     uint64_t generation) {
  if (isAccepted(response)) {
    {
      std::lock_guard<std::mutex> guard(shared_->mutex);
      shared_->currentBackoffS = 0;
      shared_->retryAfterUntil = 0;
    }
    if (!response->body.empty()) {
      const std::string text(response->body.begin(), response->body.end());
      std::string error;
      if (auto payload = decodeServerPayload(text, &error)) {
        applyServerPayload(*payload, generation);
      } else {
        owner_.orvaneErrorReporting().reportError(
            "Failed to parse V3 JSON returned by server.",
            PlatformError{kDecodingErrorDomain, 0, error}, false,
            PlistDictionary{{"serverData", repairedUtf8(text)}});
      }
    }
    return true;
  }
  const double now = owner_.dateProvider()->currentDate().secondsSince1970;
  std::optional<double> retryAfter;
  if (response && (response->statusCode == 429 || response->statusCode == 503)) {
    retryAfter = retryAfterSeconds(response->headers, now);
  }
  RandomSource& random = *owner_.platform().random;
  std::lock_guard<std::mutex> guard(shared_->mutex);
  double& backoff = shared_->currentBackoffS;
  if (backoff <= 0) {
    backoff = kInitialBackoffS + std::min(random.uniformDouble(), 0.999999);
  } else {
    backoff =
        std::min(backoff * (kBackoffGrowth + 0.1 * std::min(random.uniformDouble(), 0.999999)),
                 kMaximumBackoffS);
  }
  // The service's own floor for the next attempt, within the longest back-off.
  if (retryAfter) shared_->retryAfterUntil = now + std::min(*retryAfter, kMaximumBackoffS);
  return false;
}

void OrvaneLogSender::applyServerPayload(const ServerPayload& payload, uint64_t generation) {
  const bool applied = owner_.erasures().whileCurrent(generation, [&] {
    owner_.geoIPSignalGenerator().updateGeoIPData(payload.geoIpData);
    if (!payload.updateData) return;
    // Model files are large: in low-data mode they wait for a later answer.
    if (owner_.internetSignalsGenerator().isConstrained() != true) {
      owner_.coreMLModelManager().applyModelUpdates(payload.updateData, generation);
    }
    owner_.timingCoordinator().applyLatestConfiguration(payload.updateData->modelInfoPerFlow);
  });
  if (!applied) {
    owner_.platform().log->write(
        LogLevel::kDebug,
        "[Orvane] An upload answer came after an erase; its service state was dropped.");
  }
}

// ---- Diagnostics --------------------------------------------------------------------------

std::vector<PlistDictionary> OrvaneLogSender::mainQueue() const {
  const auto& defaults = owner_.userDefaultsProvider();
  return defaults->isAvailable() ? readStoredQueue(defaults->sharedObject(kMainQueueKey).get())
                                 : std::vector<PlistDictionary>{};
}

std::vector<PlistDictionary> OrvaneLogSender::unloggedQueue() const {
  const auto& defaults = owner_.userDefaultsProvider();
  return defaults->isAvailable() ? readStoredQueue(defaults->sharedObject(kUnloggedQueueKey).get())
                                 : std::vector<PlistDictionary>{};
}

std::vector<OrvaneLogSender::TriggerRequest> OrvaneLogSender::triggerHistory() const {
  std::lock_guard<std::mutex> guard(shared_->mutex);
  return shared_->triggers;
}

double OrvaneLogSender::currentBackoffSeconds() const {
  std::lock_guard<std::mutex> guard(shared_->mutex);
  return shared_->currentBackoffS;
}

bool OrvaneLogSender::uploadInFlight() const {
  std::lock_guard<std::mutex> guard(shared_->mutex);
  return shared_->uploadsInFlight > 0;
}

size_t OrvaneLogSender::recordsWaitingInMemory() const { return store_->recordsWaitingInMemory(); }

}  // namespace orvane
