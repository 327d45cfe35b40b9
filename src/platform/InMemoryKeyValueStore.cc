// Suites kept in memory for the provider's lifetime: for tests, and for hosts that want
// nothing written to disk.
#include <map>
#include <mutex>

#include "orvane/platform/KeyValueStore.h"

namespace orvane {
namespace {

class InMemoryKeyValueStore : public KeyValueStore {
 public:
  std::optional<PlistValue> get(std::string_view key) const override {
    std::lock_guard<std::mutex> guard(mutex_);
    auto it = values_.find(key);
    if (it == values_.end()) return std::nullopt;
    return it->second;
  }
  void set(std::string_view key, PlistValue value) override {
    std::lock_guard<std::mutex> guard(mutex_);
    values_.insert_or_assign(std::string(key), std::move(value));
  }
  void remove(std::string_view key) override {
    std::lock_guard<std::mutex> guard(mutex_);
    auto it = values_.find(key);
    if (it != values_.end()) values_.erase(it);
  }
  std::vector<std::string> keys() const override {
    std::lock_guard<std::mutex> guard(mutex_);
    std::vector<std::string> out;
    for (const auto& [key, value] : values_) out.push_back(key);
    return out;
  }
  bool synchronize() override { return true; }

 private:
  mutable std::mutex mutex_;
  std::map<std::string, PlistValue, std::less<>> values_;
};

class InMemoryProvider : public KeyValueStoreProvider {
 public:
  std::shared_ptr<KeyValueStore> openSuite(std::string_view suiteName) override {
    std::lock_guard<std::mutex> guard(mutex_);
    auto& suite = suites_[std::string(suiteName)];
    if (!suite) suite = std::make_shared<InMemoryKeyValueStore>();
    return suite;
  }

 private:
  std::mutex mutex_;
  std::map<std::string, std::shared_ptr<KeyValueStore>> suites_;
};

}  // namespace

std::shared_ptr<KeyValueStoreProvider> makeInMemoryKeyValueStoreProvider() {
  return std::make_shared<InMemoryProvider>();
}

}  // namespace orvane
