#include "api/CollectionConsent.h"

#include "util/UserDefaultsProvider.h"

namespace orvane {
namespace {

ConsentState stateFrom(std::optional<int64_t> stored) {
  if (stored == static_cast<int64_t>(ConsentState::kGranted)) return ConsentState::kGranted;
  if (stored == static_cast<int64_t>(ConsentState::kDenied)) return ConsentState::kDenied;
  return ConsentState::kUnknown;
}

bool allows(ConsentState state, bool required) {
  return state == ConsentState::kGranted || (state == ConsentState::kUnknown && !required);
}

class GatedHttpTransport final : public HttpTransport {
 public:
  GatedHttpTransport(std::shared_ptr<HttpTransport> inner, const CollectionConsent& consent)
      : inner_(std::move(inner)), consent_(consent) {}

  void send(HttpRequest request, HttpCompletion completion) override {
    if (!consent_.allowed() || !inner_) return completion(std::nullopt, refusal());
    inner_->send(std::move(request), std::move(completion));
  }
  void download(DownloadRequest request, DownloadCompletion completion) override {
    if (!consent_.allowed() || !inner_) return completion(std::nullopt, std::nullopt, refusal());
    inner_->download(std::move(request), std::move(completion));
  }

 private:
  static PlatformError refusal() {
    return {kUrlErrorDomain, kCollectionNotAllowed,
            "Not sent: the user has not consented to collection."};
  }
  const std::shared_ptr<HttpTransport> inner_;
  const CollectionConsent& consent_;  // the engine owns both, the consent outlives the gate
};

}  // namespace

CollectionConsent::CollectionConsent(std::shared_ptr<UserDefaultsProvider> defaults)
    : defaults_(std::move(defaults)) {
  state_ = stateFrom(defaults_->integer(kStateKey));
  required_ = defaults_->boolean(kRequiredKey).value_or(false);
  if (!allowed()) defaults_->holdWrites();
}

bool CollectionConsent::allowed() const { return allows(state(), required()); }

CollectionConsent::Change CollectionConsent::setState(ConsentState state) {
  return change(state, required(), false);
}

CollectionConsent::Change CollectionConsent::setRequired(bool required) {
  const Change result = change(state(), required, true);
  defaults_->endEarlyWrites();
  return result;
}

CollectionConsent::Change CollectionConsent::change(ConsentState state, bool required,
                                                    bool takeBackEarlyWrites) {
  std::lock_guard<std::mutex> guard(changeMutex_);
  const Change change{allows(state_, required_), allows(state, required)};
  bool wrote = false;
  if (state != state_.load()) {
    wrote = defaults_->setInSuite(kStateKey, static_cast<int64_t>(state));
  }
  if (required != required_.load()) wrote |= defaults_->setInSuite(kRequiredKey, required);
  state_ = state;
  required_ = required;
  if (change.wasAllowed && !change.nowAllowed) defaults_->holdWrites(takeBackEarlyWrites);
  if (!change.wasAllowed && change.nowAllowed) {
    defaults_->releaseHeldWrites(true);  // synchronises
  } else if (wrote) {
    defaults_->synchronize();  // the choice must survive a crash right after it was made
  }
  return change;
}

std::vector<std::string> CollectionConsent::keysKeptOnErase() { return {kStateKey, kRequiredKey}; }

std::shared_ptr<HttpTransport> CollectionConsent::gate(std::shared_ptr<HttpTransport> inner) {
  return std::make_shared<GatedHttpTransport>(std::move(inner), *this);
}

}  // namespace orvane
