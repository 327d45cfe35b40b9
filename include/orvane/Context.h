// File: Context.h
// The answer to one request for a decision: whether to show the upsell now, and the record
// of what the user then did. Contexts are shared with the host (std::shared_ptr) and may be
// used from any thread; logs reach the log sender on the main queue.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "orvane/CustomSignal.h"
#include "orvane/Export.h"
#include "orvane/PlistValue.h"
#include "orvane/Revenue.h"
#include "orvane/Signal.h"

namespace orvane {

class Engine;
class Log;
class RawMotionCapture;
class SignalsManager;
class SystemLog;
struct CustomModelInfo;
struct ExtraModelExecutionInformation;

// What the user did after the decision.
enum class EventOutcome : int {
  kPositiveAdTapped = 4,
  kPositiveConverted = 3,
  kPositiveInteracted = 2,
  kPositive = 1,
  kSkipped = 0,
  kNegative = -1,
  kNegativeNotInteracted = -2,
  kNegativeDismissed = -3,
};

// None outside -3...4.
ORVANE_API std::optional<EventOutcome> eventOutcomeFromRawValue(int rawValue);
// "EventOutcome.positive" and the like.
ORVANE_API std::string_view description(EventOutcome outcome);

// The kind of a log record (signal 23).
enum class EventType : int {
  kCreation = 1,
  kOutcome = 2,
  kOutcomeFurther3 = 3,
  kOutcomeFurther4 = 4,
  kPageView = 10,
  kUserAction = 11,
  kTrackedEvent = 12,
  kFurther13 = 13,
};

// Which public path created a context (signal 25); decides whether it logs its creation.
enum class MethodUsed : int {
  kReserved = 0,
  kInstantContext = 1,
  kFetchContext = 2,
  kCalibrate = 3,
  kOptimize = 4,
  kTrackEvent = 7,
  kTrackPageView = 8,
  kTrackUserAction = 9,
  kFurther10 = 10,
  kFurther12 = 12,
  kFurther14 = 14,
  kPeriodicEvaluation = 15,
  kGoldenSignals = 16,
};

class ORVANE_API Context : public std::enable_shared_from_this<Context> {
 public:
  // Outcome numbers only the SDK itself logs.
  static constexpr int kTrackedEventOutcome = -100;
  static constexpr int kCreatedOutcome = -101;
  static constexpr int kAutomaticNegativeOutcome = -102;
  static constexpr int kGoldenSignalsOutcome = -104;

  ~Context();
  Context(const Context&) = delete;
  Context& operator=(const Context&) = delete;

  // The decision; fixed at creation.
  bool shouldUpsell() const noexcept { return internalShouldUpsell_; }
  // The yes was imposed (random chance or timing), not chosen by the model.
  bool wasForcedUpsell() const noexcept { return internalWasForcedUpsell_; }
  Date createdAt() const noexcept { return createdAt_; }
  // An outcome has been logged (the creation log does not count).
  bool alreadyLogged() const noexcept;
  const std::string& flowName() const noexcept { return flowName_; }
  const std::string& contextUUID() const noexcept { return contextUUID_; }

  // Sends a record of `outcome`; every call sends a new record.
  void log(EventOutcome outcome) noexcept;
  // Sends only while no outcome has been logged.
  void logIfNotLoggedYet(EventOutcome outcome) noexcept;
  // Entries replace earlier entries of the same id and go to the end, in the given order.
  void appendOutcomeMetadata(const CustomSignalList& metadata) noexcept;

  // A report for checking the integration on a device: support, model mode, number of
  // signals, flow name, motion data and SDK version, one finding per line. Only reads.
  std::string validate() const noexcept;

  // Revenue forms: append the purchase's metadata (replacing earlier entries of the same
  // keys), then log `outcome` as any outcome is logged. The IfNotLoggedYet forms do neither
  // once an outcome has been logged.
  void logRevenueOutcome(const StoreKit2Product& product, EventOutcome outcome) noexcept;
  void logRevenueOutcome(const RevenueEvent& event, EventOutcome outcome) noexcept;
  void logStoreKit1RevenueOutcome(const StoreKit1Product& product, EventOutcome outcome) noexcept;
  void logStoreKit1RevenueOutcome(const StoreKit1Transaction& transaction,
                                  const std::optional<StoreKit1Product>& product,
                                  EventOutcome outcome) noexcept;
  void logRevenueOutcomeIfNotLoggedYet(const StoreKit2Product& product,
                                       EventOutcome outcome) noexcept;
  void logRevenueOutcomeIfNotLoggedYet(const RevenueEvent& event, EventOutcome outcome) noexcept;
  void logStoreKit1RevenueOutcomeIfNotLoggedYet(const StoreKit1Product& product,
                                                EventOutcome outcome) noexcept;
  void logStoreKit1RevenueOutcomeIfNotLoggedYet(const StoreKit1Transaction& transaction,
                                                const std::optional<StoreKit1Product>& product,
                                                EventOutcome outcome) noexcept;

  // ---- What the SDK recorded ------------------------------------------------------------
  // A copy of the context's current signals.
  SignalList signals() const;
  CustomSignalList outcomeMetadata() const;
  // Seconds from creation to the decision.
  double secondsBetweenCreatedAndShouldUpsellChecked() const noexcept { return secondsToDecision_; }
  // -3 unsupported device, -1 no, 1 yes (signal 11).
  int modelResult() const noexcept { return modelResult_; }

 private:
  friend struct ContextAccess;  // the SDK's own paths (src/api/ContextAccess.h)

  // Sends a record with any outcome number and event type.
  void logWithArbitraryOutcome(int outcome, EventType eventType) noexcept;
  // Adds signals after creation; a repeated id is reported, as at creation.
  void appendSignals(const SignalList& signals);
  const CustomModelInfo& modelInfo() const { return *modelInfo_; }
  // Marks the context as handed out again (signal 27).
  void markReturnedAgain();
  // Creates a context and runs its decision: model information from the store, identity
  // signals, timing, the model or control rule, the creation log for the methods that have
  // one. Registers it as the flow's most recent context. `rawMotion`, when the request
  // captured one, goes into the logs that carry the raw-motion record.
  static std::shared_ptr<Context> create(Engine& manager, SignalList requestSignals,
                                         std::string flowName, CustomSignalList customSignals,
                                         MethodUsed methodUsed,
                                         const ExtraModelExecutionInformation& extra,
                                         std::shared_ptr<const RawMotionCapture> rawMotion);

  Context(Engine& manager, SignalList requestSignals, std::string flowName,
          CustomSignalList customSignals);
  void decide(Engine& owner, MethodUsed methodUsed, const ExtraModelExecutionInformation& extra);
  void registerAsRecent(Engine& owner);
  std::optional<bool> signal21() const;
  // Observer contexts refuse a skipped outcome (logged).
  bool refusesSkipped(EventOutcome outcome) const;
  void logOutcome(int outcome, EventType eventType, bool onlyIfNotLogged) noexcept;
  // Builds the metadata (only when it will be used) and logs it with `outcome`.
  template <typename MakeMetadata>
  void logRevenue(MakeMetadata&& makeMetadata, EventOutcome outcome, bool onlyIfNotLogged) noexcept;
  // Replaces the per-log signals and builds the record. Null with `failure` set when the
  // record cannot be encoded; null alone when `onlyIfNotLogged` and an outcome was logged.
  std::shared_ptr<Log> createLog(Engine& owner, int outcome, EventType eventType,
                                 bool onlyIfNotLogged, std::string& failure);
  // The manager while it lives; null, with a line in the log naming `call`, once it is gone.
  std::shared_ptr<Engine> ownerFor(const char* call) const;

  // A context may outlive the manager that made it (an embedded one): it reaches the manager
  // through a handle that expires, and keeps the log to say so.
  const std::weak_ptr<Engine> owner_;
  const std::shared_ptr<SystemLog> log_;
  const std::string flowName_;
  const CustomSignalList customSignals_;
  const std::string contextUUID_;
  const Date createdAt_;
  double secondsToDecision_ = -1.0;
  bool internalShouldUpsell_ = true;
  bool internalWasForcedUpsell_ = false;
  int modelResult_ = 1;
  std::shared_ptr<const CustomModelInfo> modelInfo_;
  std::shared_ptr<const RawMotionCapture> rawMotion_;

  // Guards what logging from several threads changes.
  mutable std::mutex mutex_;
  std::unique_ptr<SignalsManager> signalsManager_;
  std::optional<Date> lastLoggedAt_;
  std::optional<CustomSignalList> lastLoggedOutcomeMetadata_;
  CustomSignalList outcomeMetadata_;
};

}  // namespace orvane
