#include "platform/linux/CommitFailureLog.h"

#include <sqlite3.h>

#include <utility>

#include "platform/linux/SqliteSupport.h"

namespace orvane {
namespace {

const char* describe(CommitFailureKind kind) {
  switch (kind) {
    case CommitFailureKind::kReadOnly:
      return "the file is read-only";
    case CommitFailureKind::kDiskFull:
      return "the disk is full";
    case CommitFailureKind::kIoError:
      return "I/O error";
    case CommitFailureKind::kLocked:
      return "another connection holds the file";
    case CommitFailureKind::kDamaged:
      return "the file is damaged";
    case CommitFailureKind::kOther:
      break;
  }
  return "error";
}

}  // namespace

CommitFailureKind classifyCommitFailure(int code) {
  if (isDamageCode(code)) return CommitFailureKind::kDamaged;
  if (isLockCode(code)) return CommitFailureKind::kLocked;
  switch (code & 0xFF) {
    case SQLITE_READONLY:
    case SQLITE_PERM:
    case SQLITE_AUTH:
      return CommitFailureKind::kReadOnly;
    case SQLITE_FULL:
      return CommitFailureKind::kDiskFull;
    case SQLITE_IOERR:
    case SQLITE_CANTOPEN:
      return CommitFailureKind::kIoError;
    default:
      return CommitFailureKind::kOther;
  }
}

std::optional<std::string> CommitFailureLog::failed(int code, std::string_view detail,
                                                    size_t writesKept) {
  const CommitFailureKind kind = classifyCommitFailure(code);
  if (!reported_.insert(kind).second) return std::nullopt;
  reportedSinceLastCommit_ = true;
  return prefix_ + "cannot commit writes, " + describe(kind) + " (" + std::string(detail) +
         "); keeping " + std::to_string(writesKept) +
         " write(s) in memory and retrying; further failures of this kind are not reported";
}

std::optional<std::string> CommitFailureLog::committed() {
  if (!std::exchange(reportedSinceLastCommit_, false)) return std::nullopt;
  return prefix_ + "writing again: the writes kept in memory are committed";
}

}  // namespace orvane
