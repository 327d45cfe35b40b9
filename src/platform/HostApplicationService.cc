// The application state as the host reports it. Observers hear only about real transitions
// into and out of the active state, as the platform's notifications work: a second
// becomeActive() while active says nothing new.
#include <vector>

#include "orvane/platform/ApplicationService.h"

namespace orvane {

HostApplicationService::HostApplicationService(std::shared_ptr<SerialQueue> mainQueue,
                                               ApplicationState initialState)
    : mainQueue_(std::move(mainQueue)), state_(initialState) {}

ApplicationState HostApplicationService::applicationState() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return state_;
}

BackgroundRefreshStatus HostApplicationService::backgroundRefreshStatus() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return refreshStatus_;
}

bool HostApplicationService::isProtectedDataAvailable() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return protectedDataAvailable_;
}

int HostApplicationService::addObserver(LifecycleObserver observer) {
  std::lock_guard<std::mutex> guard(mutex_);
  const int token = nextToken_++;
  observers_.emplace(token, std::move(observer));
  return token;
}

void HostApplicationService::removeObserver(int token) {
  LifecycleObserver removed;
  std::lock_guard<std::mutex> guard(mutex_);
  auto it = observers_.find(token);
  if (it == observers_.end()) return;
  // Destroyed after the lock is released: the callbacks may own objects that call back in.
  removed = std::move(it->second);
  observers_.erase(it);
}

void HostApplicationService::becomeActive() {
  ApplicationState previous;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    previous = state_;
    state_ = ApplicationState::kActive;
  }
  if (previous != ApplicationState::kActive) post(true);
}

void HostApplicationService::resignActive() {
  ApplicationState previous;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    previous = state_;
    state_ = ApplicationState::kInactive;
  }
  if (previous == ApplicationState::kActive) post(false);
}

void HostApplicationService::enterBackground() {
  ApplicationState previous;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    previous = state_;
    state_ = ApplicationState::kBackground;
  }
  // Going straight from active to background passes through resigning.
  if (previous == ApplicationState::kActive) post(false);
}

void HostApplicationService::setBackgroundRefreshStatus(BackgroundRefreshStatus status) {
  std::lock_guard<std::mutex> guard(mutex_);
  refreshStatus_ = status;
}

void HostApplicationService::setProtectedDataAvailable(bool available) {
  std::lock_guard<std::mutex> guard(mutex_);
  protectedDataAvailable_ = available;
}

void HostApplicationService::post(bool becameActive) {
  // The observer list is read when the notification is delivered, not when it is posted, so
  // an observer removed in between is not called: its owner may already be gone.
  std::weak_ptr<HostApplicationService> weak = weak_from_this();
  // A service not owned by a shared_ptr has to outlive its queued notifications itself.
  HostApplicationService* unowned = weak.expired() ? this : nullptr;
  auto deliver = [weak, unowned, becameActive] {
    const std::shared_ptr<HostApplicationService> owner = weak.lock();
    HostApplicationService* self = owner ? owner.get() : unowned;
    if (self == nullptr) return;
    std::vector<int> tokens;
    {
      std::lock_guard<std::mutex> guard(self->mutex_);
      tokens.reserve(self->observers_.size());
      for (const auto& [token, observer] : self->observers_) tokens.push_back(token);
    }
    for (const int token : tokens) {
      std::function<void()> callback;
      {
        std::lock_guard<std::mutex> guard(self->mutex_);
        // An observer may remove another (or itself) from its callback.
        auto it = self->observers_.find(token);
        if (it == self->observers_.end()) continue;
        callback = becameActive ? it->second.didBecomeActive : it->second.willResignActive;
      }
      if (callback) callback();
    }
  };
  if (mainQueue_) {
    mainQueue_->async(std::move(deliver));
  } else {
    deliver();
  }
}

}  // namespace orvane
