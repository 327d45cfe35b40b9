#include "api/PeriodicContextEvaluator.h"

#include <algorithm>
#include <exception>
#include <functional>
#include <map>
#include <optional>
#include <vector>

#include "config/RemoteConfiguration.h"
#include "orvane/Context.h"

namespace orvane {
namespace {

// Queued work and host observers must not take the queue's thread down with them.
template <typename Fn>
void guarded(SystemLog* log, const char* operation, Fn&& fn) noexcept {
  try {
    fn();
  } catch (const std::exception& e) {
    if (log) log->error(std::string("[Orvane] Internal error in ") + operation + ": " + e.what());
  } catch (...) {
    if (log) log->error(std::string("[Orvane] Internal error in ") + operation);
  }
}

// One flow's request within a round. It reports to the round exactly once: with the decision
// when the context arrives, or as unanswered when the request is dropped without one (its
// flow cancelled, or the sensor gone with the manager). A report only posts to the
// evaluator's queue, so it may come from under the sensor's lock.
class PendingEvaluation {
 public:
  using Report = std::function<void(bool fired)>;

  PendingEvaluation(std::weak_ptr<void> evaluator, Report report, Engine::ContextCallback observer,
                    std::shared_ptr<SystemLog> log)
      : evaluator_(std::move(evaluator)),
        report_(std::move(report)),
        observer_(std::move(observer)),
        log_(std::move(log)) {}
  PendingEvaluation(const PendingEvaluation&) = delete;
  PendingEvaluation& operator=(const PendingEvaluation&) = delete;

  ~PendingEvaluation() {
    if (!answered_) guarded(log_.get(), "periodic evaluation", [&] { report_(false); });
  }

  // On the main queue, where the context was created.
  void answer(const std::shared_ptr<Context>& context) {
    answered_ = true;
    const bool fired = context && context->shouldUpsell() && !evaluator_.expired();
    if (fired && observer_) guarded(log_.get(), "context observer", [&] { observer_(context); });
    report_(fired);
  }

 private:
  std::weak_ptr<void> evaluator_;
  Report report_;
  Engine::ContextCallback observer_;
  std::shared_ptr<SystemLog> log_;
  bool answered_ = false;
};

// One pass over the flows that had an observer when it began. Kept out of Core: nested, its
// default member initializers are parsed only once Core is complete, and clang records it as
// not default-constructible when the std::optional member is declared before then.
struct PeriodicRound {
  std::vector<std::string> flows;
  size_t current = 0;
  uint64_t step = 0;  // the request the round waits for
};

}  // namespace

struct PeriodicContextEvaluator::Core : std::enable_shared_from_this<Core> {
  using Work = std::function<void(Core&)>;

  using Round = PeriodicRound;

  Core(Engine& manager, std::shared_ptr<SerialQueue> queue)
      : owner(manager),
        ownerAlive(manager.weakHandle()),
        dispatchQueue(std::move(queue)),
        log(manager.platform().log) {}

  Engine& owner;
  std::weak_ptr<Engine> ownerAlive;
  const std::shared_ptr<SerialQueue> dispatchQueue;
  const std::shared_ptr<SystemLog> log;

  // Touched only on dispatchQueue.
  std::map<std::string, Observer> registeredCallbacks;
  std::shared_ptr<Cancellable> nextEvaluation;
  bool appActive = false;
  std::optional<Round> round;
  std::vector<Work> heldBack;  // posted while a round waits, in posting order
  uint64_t lastStep = 0;

  void post(Work work) {
    std::weak_ptr<Core> weak = weak_from_this();
    dispatchQueue->async([weak, work = std::move(work)] {
      if (auto core = weak.lock()) core->runOrHold(work);
    });
  }

  void runOrHold(const Work& work) {
    if (round) {
      heldBack.push_back(work);
      return;
    }
    guarded(log.get(), "periodic evaluation", [&] { work(*this); });
  }

  void cancelNextEvaluation() {
    if (nextEvaluation) nextEvaluation->cancel();
    nextEvaluation.reset();
  }

  void scheduleNextRoundIfRequired() {
    if (nextEvaluation || registeredCallbacks.empty() || !appActive) return;
    const auto alive = Engine::hold(ownerAlive);  // held: the manager cannot go while we use it
    if (!alive) return;
    const double configured = static_cast<double>(
        owner.remoteConfiguration().getConfiguration().automaticEntryPointPollingIntervalSeconds);
    std::weak_ptr<Core> weak = weak_from_this();
    nextEvaluation =
        dispatchQueue->asyncAfter(std::max(configured, kMinimumIntervalSeconds), [weak] {
          if (auto core = weak.lock()) {
            guarded(core->log.get(), "periodic evaluation", [&] { core->startRound(); });
          }
        });
  }

  void startRound() {
    if (round) return;
    round.emplace();
    for (const auto& [flow, observer] : registeredCallbacks) round->flows.push_back(flow);
    evaluateCurrentFlow();
  }

  void evaluateCurrentFlow();
  void stepAnswered(uint64_t step, bool fired);

  void finishRound() {
    round.reset();
    nextEvaluation.reset();
    scheduleNextRoundIfRequired();
    std::vector<Work> waiting = std::move(heldBack);
    heldBack.clear();
    for (const Work& work : waiting) runOrHold(work);
  }
};

void PeriodicContextEvaluator::Core::evaluateCurrentFlow() {
  while (round->current < round->flows.size()) {
    const std::string& flow = round->flows[round->current];
    auto it = registeredCallbacks.find(flow);
    const auto alive = Engine::hold(ownerAlive);
    if (it == registeredCallbacks.end() || !alive) {
      ++round->current;
      continue;
    }
    round->step = ++lastStep;
    std::weak_ptr<Core> weak = weak_from_this();
    auto report = [weak, queue = dispatchQueue, step = round->step](bool fired) {
      queue->async([weak, step, fired] {
        if (auto core = weak.lock()) {
          guarded(core->log.get(), "periodic evaluation", [&] { core->stepAnswered(step, fired); });
        }
      });
    };
    auto pending = std::make_shared<PendingEvaluation>(weak, std::move(report), it->second, log);
    owner.requestFetchContext(
        flow, kEvaluationDuration, {},
        [pending](std::shared_ptr<Context> context) { pending->answer(context); },
        MethodUsed::kPeriodicEvaluation);
    return;
  }
  finishRound();
}

void PeriodicContextEvaluator::Core::stepAnswered(uint64_t step, bool fired) {
  if (!round || round->step != step) return;
  if (fired) {
    // Each observer fires once; the rest of the flows wait for the next round.
    registeredCallbacks.erase(round->flows[round->current]);
    finishRound();
    return;
  }
  ++round->current;
  evaluateCurrentFlow();
}

// ---- The evaluator ------------------------------------------------------------------------

PeriodicContextEvaluator::PeriodicContextEvaluator(Engine& owner)
    : core_(
          std::make_shared<Core>(owner, owner.platform().executors->makeSerialQueue(kQueueName))) {}

// Queued work and a waiting request hold the state weakly: they find it gone and stop.
PeriodicContextEvaluator::~PeriodicContextEvaluator() = default;

void PeriodicContextEvaluator::setCallback(const std::string& flowName,
                                           Observer callbackOnFirstGoodMoment) {
  core_->post([flowName, observer = std::move(callbackOnFirstGoodMoment)](Core& core) {
    core.registeredCallbacks[flowName] = observer;
    core.scheduleNextRoundIfRequired();
  });
}

void PeriodicContextEvaluator::removeCallback(const std::string& flowName) {
  core_->post([flowName](Core& core) {
    core.registeredCallbacks.erase(flowName);
    if (core.registeredCallbacks.empty()) core.cancelNextEvaluation();
  });
}

void PeriodicContextEvaluator::appDidBecomeActive() {
  core_->post([](Core& core) {
    core.appActive = true;
    core.scheduleNextRoundIfRequired();
  });
}

void PeriodicContextEvaluator::appWillResign() {
  core_->post([](Core& core) {
    core.appActive = false;
    core.cancelNextEvaluation();
  });
}

}  // namespace orvane
