// File: RunRecord.h
// Everything the demo saw, as plain values: what the summary and the report are made from.
// Times are seconds since the start of the run.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace orvane::sim::demo {

// The magnitude of the user acceleration the device reported, in g.
struct MotionPoint {
  double t = 0;
  double magnitude = 0;
};

struct Span {
  double start = 0;
  double end = 0;
  std::string label;
};

struct Decision {
  double t = 0;
  std::string flow;
  std::string method;  // the request form
  bool upsell = false;
  bool forced = false;     // the yes was imposed by chance or by timing
  bool blocked = false;    // timing turned a yes into a no
  bool forcedAct = false;  // timing turned a no into a yes
  std::string decidedBy;   // a model version, or "control"
  std::optional<double> probability;
  double waited = 0;  // seconds from the request to the answer
};

struct Outcome {
  double t = 0;
  std::string flow;
  std::string outcome;  // "EventOutcome.positive" and the like
};

// One sample of the upload queue.
struct QueuePoint {
  double t = 0;
  size_t main = 0;
  size_t unlogged = 0;
  double backoff = 0;  // seconds the queue waits after a failed upload
};

// One HTTP exchange of the SDK with the service.
struct Exchange {
  enum class Kind { kUpload, kErrorReport, kModelDownload };
  Kind kind = Kind::kUpload;
  double start = 0;
  double end = 0;
  std::optional<int> status;  // none when the exchange failed without an answer
  std::string error;
  std::vector<std::string> logIds;       // uploads: the records in the batch
  std::optional<int64_t> updateVersion;  // uploads: the answer carried this update
  bool accepted() const { return status && *status >= 200 && *status <= 202; }
};

// Golden signals the app asked for to go with an ad bid.
struct GoldenBid {
  double t = 0;
  std::string flow;
  std::string bidID;
  size_t values = 0;  // entries of the dictionary, its "ctxId" included
};

// A model set the SDK switched to.
struct ModelChange {
  double t = 0;
  std::string generation;
  std::map<std::string, std::string> flows;  // flow -> how it is decided now
};

// A line of the timeline.
struct Note {
  double t = 0;
  std::string category;
  std::string text;
};

struct RunRecord {
  double length = 0;
  std::string installation;
  std::string serviceURL;
  std::string sdkVersion;
  std::vector<std::string> flowOrder;
  std::vector<MotionPoint> motion;
  std::vector<Span> postures;
  std::vector<Span> inactive;  // the app in the background
  std::vector<Span> outages;   // the service failing uploads on purpose
  std::vector<Decision> decisions;
  std::vector<Outcome> outcomes;
  std::vector<QueuePoint> queue;
  std::vector<Exchange> exchanges;
  std::vector<ModelChange> modelChanges;
  std::vector<GoldenBid> goldenBids;
  std::vector<Note> notes;
  std::optional<double> consentAt;         // when the user granted consent and collection started
  std::vector<std::string> queuedLogIds;   // every record handed to the upload queue
  std::vector<std::string> waitingLogIds;  // records in the queues at the end
  size_t sdkErrorLines = 0;
  std::optional<int64_t> serviceStoredEvents;  // as the service counts them, when it says
};

}  // namespace orvane::sim::demo
