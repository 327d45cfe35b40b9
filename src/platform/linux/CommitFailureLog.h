// File: CommitFailureLog.h
// What a SQLite suite says about writes it cannot commit. A full disk or a read-only folder
// fails every write until someone acts, so the store reports the first failure of each kind
// in its life and stays quiet about the rest; once a commit works again after a reported
// failure it says so, once.
#pragma once

#include <cstddef>
#include <optional>
#include <set>
#include <string>
#include <string_view>

namespace orvane {

enum class CommitFailureKind { kReadOnly, kDiskFull, kIoError, kLocked, kDamaged, kOther };

// The kind of an extended SQLite result code.
CommitFailureKind classifyCommitFailure(int code);

class CommitFailureLog {
 public:
  explicit CommitFailureLog(std::string reportPrefix) : prefix_(std::move(reportPrefix)) {}

  // The line to report for a failed commit; none when its kind was reported before.
  std::optional<std::string> failed(int code, std::string_view detail, size_t writesKept);
  // The line to report for a commit that worked; none unless a failure was reported since the
  // last one that worked.
  std::optional<std::string> committed();

 private:
  const std::string prefix_;
  std::set<CommitFailureKind> reported_;
  bool reportedSinceLastCommit_ = false;
};

}  // namespace orvane
