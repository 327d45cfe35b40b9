#include "models/CoreMLModelManager.h"

namespace orvane {

void CoreMLModelManager::setDecisionsEnabled(bool enabled) {
  decisionsEnabled_.store(enabled);
  modelInfoCache_.withLock([](ModelInfoCache& cache) { cache.clear(); });
}

}  // namespace orvane
