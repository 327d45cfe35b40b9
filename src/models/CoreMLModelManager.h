// File: CoreMLModelManager.h
// The per-flow model store. The decisions switch turns every flow into a control flow; the
// model-information cache is emptied whenever the switch is set.
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <string>

#include "util/WrappingLock.h"

namespace orvane {

struct CustomModelInfo;

class CoreMLModelManager {
 public:
  void setDecisionsEnabled(bool enabled);
  bool decisionsEnabled() const { return decisionsEnabled_.load(); }

  using ModelInfoCache = std::map<std::string, std::shared_ptr<const CustomModelInfo>>;
  WrappingLock<ModelInfoCache>& modelInfoCache() { return modelInfoCache_; }

 private:
  // Written by the switches from any thread, read without a lock.
  std::atomic<bool> decisionsEnabled_{true};
  WrappingLock<ModelInfoCache> modelInfoCache_;
};

}  // namespace orvane
