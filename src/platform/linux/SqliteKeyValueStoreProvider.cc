// The provider of the SQLite suites: one file per suite in one folder, each suite opened once
// for the provider's life. A suite that cannot be opened for a caller that can wait
// (openSuiteOrRetry) is tried again on a thread of the provider's, on a back-off, until it
// opens: another process may hold the file, or the disk may refuse for a while.
#include <condition_variable>
#include <cstdio>
#include <map>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include "platform/linux/RetryBackoff.h"
#include "platform/linux/SqliteKeyValueStore.h"
#include "platform/linux/SqliteSuite.h"
#include "platform/linux/SqliteSupport.h"

namespace orvane {
namespace {

using Clock = std::chrono::steady_clock;

// The suite name becomes a file name inside the directory, never a path out of it.
bool isUsableSuiteName(std::string_view name) {
  return !name.empty() && name != "." && name != ".." &&
         name.find_first_of(std::string_view("/\0", 2)) == std::string_view::npos;
}

void writeToStandardError(std::string_view message) {
  std::string line = "[Orvane] ";
  line += message;
  line += '\n';
  std::fwrite(line.data(), 1, line.size(), stderr);
}

struct Attempt {
  std::shared_ptr<KeyValueStore> store;
  // False for failures no later attempt can mend: an unusable name, no folder.
  bool worthRetrying = false;
};

// A suite waiting for a later attempt, and who waits for it.
struct Waiting {
  std::vector<SuiteOpenedLater> callbacks;
  RetryBackoff backoff;
  std::chrono::steady_clock::time_point next;
};

// Everything the provider is; the retry thread holds it too, so that a callback dropping the
// last reference to the provider on that thread leaves the thread something to finish with.
class SuiteOpener : public std::enable_shared_from_this<SuiteOpener> {
 public:
  SuiteOpener(std::string directory, KeyValueStoreErrorSink sink, SqliteStoreOptions options)
      : directory_(std::move(directory)), sink_(std::move(sink)), options_(std::move(options)) {}

  // Ends the retries; returns the retry thread, if one was started, for the caller to join.
  std::thread stop() {
    std::lock_guard<std::mutex> guard(retryMutex_);
    stopping_ = true;
    retryWake_.notify_one();
    return std::move(retrier_);
  }

  std::shared_ptr<KeyValueStore> open(std::string_view suiteName, SuiteOpenedLater openedLater) {
    std::vector<std::string> problems;
    Attempt attempt;
    try {
      attempt = attemptOpen(suiteName, problems);
      if (attempt.store) {
        retryNowIfWaiting(suiteName);
      } else if (attempt.worthRetrying && openedLater) {
        waitForLaterOpen(suiteName, std::move(openedLater));
        problems.push_back("suite " + inQuotes(suiteName) + ": trying again in the background");
      }
    } catch (const std::exception& e) {
      // Out of memory or out of threads: callers were promised null, not an exception.
      problems.push_back("suite " + inQuotes(suiteName) + ": " + e.what());
    }
    report(problems);
    return attempt.store;
  }

 private:
  Attempt attemptOpen(std::string_view suiteName, std::vector<std::string>& problems) {
    std::lock_guard<std::mutex> guard(mutex_);
    // Suites stay open for the provider's lifetime: two live stores over one file would each
    // hold their own copy in memory and overwrite each other.
    if (auto it = suites_.find(suiteName); it != suites_.end()) return {it->second, false};

    const std::string name(suiteName);
    if (!isUsableSuiteName(name)) {
      problems.push_back("suite " + inQuotes(name) + ": not usable as a file name");
      return {};
    }
    if (directory_.empty()) {
      problems.push_back("suite " + inQuotes(name) + ": no directory to keep it in");
      return {};
    }
    std::error_code error;
    std::filesystem::create_directories(directory_, error);
    if (error) {
      problems.push_back("suite " + inQuotes(name) + ": cannot create directory " +
                         directory_.string() + ": " + error.message());
      return {nullptr, true};
    }
    auto store = openSqliteSuite(directory_ / (name + ".sqlite"), name, sink_, options_, problems);
    if (!store) return {nullptr, true};
    suites_.emplace(name, store);
    return {store, false};
  }

  void waitForLaterOpen(std::string_view suiteName, SuiteOpenedLater openedLater) {
    std::lock_guard<std::mutex> guard(retryMutex_);
    auto [it, added] = waiting_.try_emplace(
        std::string(suiteName),
        Waiting{{}, RetryBackoff(options_.firstRetryDelay, options_.retryDelayCap), {}});
    it->second.callbacks.push_back(std::move(openedLater));
    if (added) it->second.next = Clock::now() + it->second.backoff.afterFailure();
    if (!retrier_.joinable() && !stopping_) {
      retrier_ = std::thread([self = shared_from_this()] { self->runRetries(); });
    }
    retryWake_.notify_one();
  }

  // A suite opened for one caller is handed to those waiting for it without waiting for their
  // next attempt.
  void retryNowIfWaiting(std::string_view suiteName) {
    std::lock_guard<std::mutex> guard(retryMutex_);
    if (auto it = waiting_.find(suiteName); it != waiting_.end()) {
      it->second.next = Clock::now();
      retryWake_.notify_one();
    }
  }

  void runRetries() {
    std::unique_lock<std::mutex> lock(retryMutex_);
    while (!stopping_) {
      auto due = waiting_.begin();
      for (auto it = waiting_.begin(); it != waiting_.end(); ++it) {
        if (it->second.next < due->second.next) due = it;
      }
      if (due == waiting_.end()) {
        retryWake_.wait(lock, [&] { return stopping_ || !waiting_.empty(); });
        continue;
      }
      if (Clock::now() < due->second.next) {
        // Woken early by a new waiter, a suite opened elsewhere or the provider closing.
        retryWake_.wait_until(lock, due->second.next);
        continue;
      }
      const std::string name = due->first;
      lock.unlock();
      std::vector<std::string> problems;
      Attempt attempt;
      try {
        attempt = attemptOpen(name, problems);
      } catch (const std::exception& e) {
        problems = {"suite " + inQuotes(name) + ": " + e.what()};
      }
      lock.lock();
      auto it = waiting_.find(name);
      if (!attempt.store) {
        // Failures were reported at the first attempt; the same again would only be noise.
        it->second.next = Clock::now() + it->second.backoff.afterFailure();
        continue;
      }
      std::vector<SuiteOpenedLater> callbacks = std::move(it->second.callbacks);
      waiting_.erase(it);
      if (stopping_) return;
      lock.unlock();
      problems.push_back("suite " + inQuotes(name) + ": opened on a later attempt");
      report(problems);
      for (SuiteOpenedLater& callback : callbacks) {
        try {
          if (callback) callback(attempt.store);
        } catch (...) {
          // On this thread an exception would end the process; the caller loses only the
          // hand-over, the suite stays open for its next openSuite.
        }
      }
      lock.lock();
    }
  }

  // Outside every lock, so a sink may call back in.
  void report(const std::vector<std::string>& lines) const noexcept {
    if (!sink_) return;
    try {
      for (const std::string& line : lines) sink_(line);
    } catch (...) {
      // Reporting must not cost the caller its store, nor the retry thread the process.
    }
  }

  const std::filesystem::path directory_;
  const KeyValueStoreErrorSink sink_;
  const SqliteStoreOptions options_;
  std::mutex mutex_;
  std::map<std::string, std::shared_ptr<KeyValueStore>, std::less<>> suites_;

  std::mutex retryMutex_;
  std::condition_variable retryWake_;
  std::map<std::string, Waiting, std::less<>> waiting_;
  bool stopping_ = false;
  std::thread retrier_;
};

class SqliteKeyValueStoreProvider final : public KeyValueStoreProvider {
 public:
  SqliteKeyValueStoreProvider(std::string directory, KeyValueStoreErrorSink sink,
                              SqliteStoreOptions options)
      : opener_(std::make_shared<SuiteOpener>(std::move(directory), std::move(sink),
                                              std::move(options))) {}

  ~SqliteKeyValueStoreProvider() override {
    std::thread retrier = opener_->stop();
    if (!retrier.joinable()) return;
    if (retrier.get_id() == std::this_thread::get_id()) {
      retrier.detach();  // a callback dropped the last reference; the thread ends on its own
    } else {
      retrier.join();
    }
  }

  std::shared_ptr<KeyValueStore> openSuite(std::string_view suiteName) override {
    return opener_->open(suiteName, nullptr);
  }

  std::shared_ptr<KeyValueStore> openSuiteOrRetry(std::string_view suiteName,
                                                  SuiteOpenedLater openedLater) override {
    return opener_->open(suiteName, std::move(openedLater));
  }

 private:
  std::shared_ptr<SuiteOpener> opener_;
};

}  // namespace

std::shared_ptr<KeyValueStoreProvider> makeSqliteKeyValueStoreProvider(
    std::string directory, KeyValueStoreErrorSink errorSink, SqliteStoreOptions options) {
  return std::make_shared<SqliteKeyValueStoreProvider>(std::move(directory), std::move(errorSink),
                                                       std::move(options));
}

std::shared_ptr<KeyValueStoreProvider> makeSqliteKeyValueStoreProvider(std::string directory) {
  return makeSqliteKeyValueStoreProvider(std::move(directory), writeToStandardError);
}

}  // namespace orvane
