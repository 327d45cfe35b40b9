#include "logging/OrvaneLogSender.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>

#include "api/Engine.h"
#include "config/ServerPayload.h"
#include "generators/AppInstallationEnvironmentHelper.h"
#include "generators/GeoIPSignalGenerator.h"
#include "generators/InternetSignalsGenerator.h"
#include "logging/AnyEncodable.h"
#include "logging/LogDictionaries.h"
#include "logging/OrvaneErrorReporting.h"
#include "models/CoreMLModelManager.h"
#include "orvane/Log.h"
#include "orvane/platform/HttpTransport.h"
#include "timing/TimingCoordinator.h"
#include "util/DateProvider.h"
#include "util/URLText.h"
#include "util/UserDefaultsProvider.h"

namespace orvane {
namespace {

constexpr const char* kInternalBundleIdentifiers[] = {"com.orvane.demo", "com.orvane.demo.dev",
                                                      "com.orvane.internal"};
// An upload waits for its completion; this is only a guard against a transport that never
// answers, far beyond the request's own time limit.
constexpr double kRequestTimeoutSeconds = 60;
constexpr double kCompletionGuardSeconds = kRequestTimeoutSeconds + 120;

const std::string* textAt(const PlistDictionary& record, const char* key) {
  auto it = record.find(key);
  return it == record.end() ? nullptr : it->second.asString();
}

const std::string* textAt(const PlistValue& record, const char* key) {
  return textAt(*record.asDictionary(), key);
}

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
  std::vector<TriggerRequest> triggers;
  bool alive = true;
};

OrvaneLogSender::OrvaneLogSender(Engine& owner)
    : owner_(owner),
      shared_(std::make_shared<Shared>()),
      dispatchQueue_(owner.platform().executors->makeSerialQueue("com.orvane.OrvaneLogSender")) {
  shared_->lastSendingAttempt = owner_.dateProvider()->currentDate().secondsSince1970;
}

OrvaneLogSender::~OrvaneLogSender() {
  {
    std::lock_guard<std::mutex> guard(shared_->mutex);
    shared_->alive = false;
  }
  // An upload already running finishes before the sender goes away.
  if (!dispatchQueue_->isCurrent()) dispatchQueue_->sync([] {});
}

void OrvaneLogSender::onQueue(Task task) {
  std::weak_ptr<Shared> weak = shared_;
  dispatchQueue_->async([weak, task = std::move(task)] {
    auto shared = weak.lock();
    if (!shared) return;
    {
      std::lock_guard<std::mutex> guard(shared->mutex);
      if (!shared->alive) return;
    }
    task();
  });
}

// ---- Adding and removing ------------------------------------------------------------------

void OrvaneLogSender::addToQueue(const Log& log) {
  addRecord(kMainQueueKey, rawDictionaryWithStaticColumns(log), "Failed to add new log to queue",
            true);
}

void OrvaneLogSender::addToUnloggedQueue(const Log& log) {
  addRecord(kUnloggedQueueKey, rawDictionaryWithStaticColumns(log),
            "Failed to add logs to unlogged queue", false);
}

void OrvaneLogSender::addRecord(std::string_view key, PlistDictionary record,
                                const char* failureMessage, bool mayStartUpload) {
  onQueue([this, key, record = std::move(record), failureMessage, mayStartUpload]() mutable {
    const auto& defaults = owner_.userDefaultsProvider();
    if (!defaults->isAvailable()) {
      owner_.orvaneErrorReporting().reportError(failureMessage);
      return;
    }
    PlistArray queue = editableQueue(defaults->sharedObject(key).get());
    queue.emplace_back(std::move(record));
    if (queue.size() > kMaximumSignalsToStore) {
      queue.erase(queue.begin(),
                  queue.begin() + static_cast<ptrdiff_t>(queue.size() - kMaximumSignalsToStore));
    }
    const size_t queued = queue.size();
    defaults->set(key, std::move(queue));
    defaults->synchronize();
    if (!mayStartUpload || !shouldUploadNow(queued)) return;
    std::weak_ptr<Shared> weak = shared_;
    owner_.platform().executors->mainQueue()->async([this, weak] {
      if (auto alive = weak.lock()) triggerUpload(UploadQueueKind::kMain, false);
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
  onQueue([this, contextUUID] {
    const auto& defaults = owner_.userDefaultsProvider();
    if (!defaults->isAvailable()) {
      owner_.orvaneErrorReporting().reportError("Failed to remove logs from unlogged queue");
      return;
    }
    PlistArray queue = editableQueue(defaults->sharedObject(kUnloggedQueueKey).get());
    std::erase_if(queue, [&](const PlistValue& record) {
      const std::string* uuid = textAt(record, "ctx_29");
      return uuid && *uuid == contextUUID;
    });
    defaults->set(kUnloggedQueueKey, std::move(queue));
    defaults->synchronize();
  });
}

void OrvaneLogSender::removeLogsFromQueue(std::string_view key,
                                          const std::vector<std::string>& sent) {
  const auto& defaults = owner_.userDefaultsProvider();
  if (!defaults->isAvailable()) {
    owner_.orvaneErrorReporting().reportError("Failed to remove logs from queue");
    return;
  }
  // Read again: records added while the batch was in flight must stay.
  PlistArray queue = editableQueue(defaults->sharedObject(key).get());
  std::erase_if(queue, [&](const PlistValue& record) {
    const std::string* id = textAt(record, "ctx_8");
    return id && std::find(sent.begin(), sent.end(), *id) != sent.end();
  });
  defaults->set(key, std::move(queue));
  defaults->synchronize();
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
  const std::string_view key = queue == UploadQueueKind::kMain ? kMainQueueKey : kUnloggedQueueKey;
  onQueue([this, key, force] { upload(key, force); });
}

bool OrvaneLogSender::flush(double timeoutSeconds) {
  if (dispatchQueue_->isCurrent()) return false;
  auto done = std::make_shared<std::promise<void>>();
  std::future<void> finished = done->get_future();
  onQueue([this] { upload(kUnloggedQueueKey, false, true); });
  onQueue([this] { upload(kMainQueueKey, false, true); });
  onQueue([done] { done->set_value(); });
  const auto wait = std::chrono::duration<double>(std::max(0.0, timeoutSeconds));
  if (finished.wait_for(wait) != std::future_status::ready) return false;
  return mainQueue().empty();
}

void OrvaneLogSender::upload(std::string_view key, bool forceSend, bool ignoreBackoff) {
  const auto& defaults = owner_.userDefaultsProvider();
  if (!defaults->isAvailable()) {
    owner_.orvaneErrorReporting().reportError("Failed to perform log upload");
    return;
  }
  // Read in place: the stored queue is large and the upload only reads it.
  const StoredQueueView stored = viewStoredQueue(defaults->sharedObject(key));
  std::vector<const PlistDictionary*> batch = stored.records;
  if (key == kUnloggedQueueKey) {
    // Contexts of the running session may still be logged: they are not "unlogged" yet.
    const std::string session = owner_.currentSessionId();
    std::erase_if(batch, [&](const PlistDictionary* record) {
      const std::string* id = textAt(*record, "ctx_14");
      return id && *id == session;
    });
  }
  std::vector<std::string> sentIds;
  for (const PlistDictionary* record : batch) {
    if (const std::string* id = textAt(*record, "ctx_8")) sentIds.push_back(*id);
  }
  if (batch.empty() && !forceSend) return;

  const double now = owner_.dateProvider()->currentDate().secondsSince1970;
  {
    std::lock_guard<std::mutex> guard(shared_->mutex);
    if (shared_->currentBackoffS > now - shared_->lastSendingAttempt && !forceSend &&
        !ignoreBackoff) {
      return;
    }
    shared_->lastSendingAttempt = now;
  }
  const std::string url = owner_.serviceBaseURL() + std::string(kPath);
  const auto& http = owner_.platform().http;
  if (!parsesAsURL(url) || !http) return;

  UploadBodyFields fields;
  fields.bundleId = owner_.bundleIdentifier();
  fields.licenseKey = owner_.licenseKey().value_or("");
  fields.sdkVersion = ContextManager::sdkVersion();
  fields.lastOtaUpdate = defaults->integer(CoreMLModelManager::kLastAppliedVersion).value_or(0);
  fields.installationUUID = owner_.installationUUID();
  std::optional<std::string> body = encodeUploadBody(batch, fields);
  if (!body) {
    // A record that cannot be written would block the queue forever: drop the batch.
    removeLogsFromQueue(key, sentIds);
    return;
  }

  HttpRequest request;
  request.url = url;
  request.headers = {{"Content-Type", "application/json"}};
  request.body.assign(body->begin(), body->end());
  request.timeoutSeconds = kRequestTimeoutSeconds;

  auto done = std::make_shared<std::promise<bool>>();
  auto answered = std::make_shared<std::atomic<bool>>(false);
  std::future<bool> success = done->get_future();
  std::weak_ptr<Shared> weak = shared_;
  http->send(std::move(request),
             [this, weak, done, answered](const std::optional<HttpResponse>& response,
                                          const std::optional<PlatformError>&) {
               // After the guard gave up, a late completion must not touch a gone sender.
               if (answered->exchange(true) || !weak.lock()) return;
               done->set_value(completeUpload(response));
             });
  bool accepted = false;
  if (success.wait_for(std::chrono::duration<double>(kCompletionGuardSeconds)) ==
      std::future_status::ready) {
    accepted = success.get();
  } else if (!answered->exchange(true)) {
    completeUpload(std::nullopt);  // no answer in time: a failed attempt
  } else {
    accepted = success.get();  // the completion won the race with the guard
  }
  if (accepted) removeLogsFromQueue(key, sentIds);
}

bool OrvaneLogSender::completeUpload(const std::optional<HttpResponse>& response) {
  if (response && response->statusCode >= 200 && response->statusCode <= 202) {
    {
      std::lock_guard<std::mutex> guard(shared_->mutex);
      shared_->currentBackoffS = 0;
    }
    if (!response->body.empty()) {
      const std::string text(response->body.begin(), response->body.end());
      std::string error;
      if (auto payload = decodeServerPayload(text, &error)) {
        applyServerPayload(*payload);
      } else {
        owner_.orvaneErrorReporting().reportError(
            "Failed to parse V3 JSON returned by server.",
            PlatformError{kDecodingErrorDomain, 0, error}, false,
            PlistDictionary{{"serverData", repairedUtf8(text)}});
      }
    }
    return true;
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
  return false;
}

void OrvaneLogSender::applyServerPayload(const ServerPayload& payload) {
  owner_.geoIPSignalGenerator().updateGeoIPData(payload.geoIpData);
  if (!payload.updateData) return;
  // Model files are large: in low-data mode they wait for a later answer.
  if (owner_.internetSignalsGenerator().isConstrained() != true) {
    owner_.coreMLModelManager().applyModelUpdates(payload.updateData);
  }
  owner_.timingCoordinator().applyLatestConfiguration(payload.updateData->modelInfoPerFlow);
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

}  // namespace orvane
