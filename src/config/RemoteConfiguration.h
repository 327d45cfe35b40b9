// File: RemoteConfiguration.h
// The service's settings merged over built-in defaults, persisted, and served to every
// component that reads them. Updates run on the object's own serial queue; reads come from
// any thread and see either the record before an update or the one after it, never a mix.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>
#include <vector>

#include "config/ConfigurationData.h"
#include "logging/ErrorReporter.h"
#include "motion/ActivityType.h"
#include "orvane/platform/Executors.h"
#include "util/EraseGeneration.h"
#include "util/UserDefaultsProvider.h"

namespace orvane {

// True when `version` matches ^\d+(\.\d+)+$ (ASCII digits, nothing before or after).
bool isValidActivityTaggerVersion(std::string_view version);

class RemoteConfiguration {
 public:
  static constexpr std::string_view kLatestConfigurationKey = "remote_config_latest_data";

  // `defaults` may be null or wrap no store; then updates are ignored and reads give the
  // defaults. Without `updateQueue` updates apply on the caller's thread. `errorReporter` is
  // called only when there is something to report, so the reporter can be
  // created lazily.
  RemoteConfiguration(std::shared_ptr<UserDefaultsProvider> defaults,
                      std::function<ErrorReporter&()> errorReporter,
                      std::shared_ptr<SerialQueue> updateQueue);
  RemoteConfiguration(const RemoteConfiguration&) = delete;
  RemoteConfiguration& operator=(const RemoteConfiguration&) = delete;

  // Queues the merge of `update` over the defaults (none at all means "back to defaults"),
  // its storage and its adoption as the current record. With `erasures`, an update queued
  // behind an erase of a later generation than `generation` is dropped.
  void applyConfigurationUpdate(std::optional<ServerConfiguration> update,
                                std::shared_ptr<EraseGeneration> erasures = nullptr,
                                uint64_t generation = 0);

  ConfigurationData getConfiguration() const;
  // Drops the configuration read from the suite; the next read loads it again (after an
  // erase: the defaults).
  void forgetStored();
  static ConfigurationData getDefaultConfiguration();
  // The configured activities that this build knows, in configured order; unknown names are
  // reported and skipped.
  std::vector<ActivityType> parsedActivities() const;

  // Each field of `update` that is present, else the default.
  static ConfigurationData merge(const std::optional<ServerConfiguration>& update);

 private:
  // Shared with queued work so an update already posted completes even if this object goes
  // away first.
  struct State {
    std::shared_ptr<UserDefaultsProvider> defaults;
    std::function<ErrorReporter&()> errorReporter;
    mutable std::mutex mutex;
    std::shared_ptr<const ConfigurationData> latest;  // guarded by mutex

    bool hasStore() const { return defaults && defaults->isAvailable(); }
    std::shared_ptr<const ConfigurationData> current();
    void apply(const std::optional<ServerConfiguration>& update);
  };

  std::shared_ptr<State> state_;
  std::shared_ptr<SerialQueue> updateQueue_;
};

}  // namespace orvane
