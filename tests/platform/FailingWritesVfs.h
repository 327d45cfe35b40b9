// File: FailingWritesVfs.h
// A SQLite VFS over the default one whose writes (or reads of one place) fail on demand with a
// chosen result code, as a full disk, a read-only file or a failing device make them fail. File
// permissions cannot stand in for this where tests run as root, which writes regardless of them.
#pragma once

#include <sqlite3.h>

#include <atomic>

namespace orvane::testing {

class FailingWritesVfs {
 public:
  static constexpr const char* kName = "orvane-failing-writes";

  // Registered with SQLite on first use, never unregistered.
  static FailingWritesVfs& instance() {
    static FailingWritesVfs* const vfs = new FailingWritesVfs();
    return *vfs;
  }

  // Every write and truncation through the VFS answers `code` from now on; SQLITE_OK lets them
  // through again.
  void failWritesWith(int code) { failure_.store(code); }

  // A read of the main file that covers byte `offset` answers `code` from now on, as a bad
  // sector would; SQLITE_OK lets such reads through again.
  void failReadsAt(sqlite3_int64 offset, int code) {
    readFailureOffset_.store(offset);
    readFailure_.store(code);
  }

 private:
  // The wrapper's file; the default VFS's file follows it in the same allocation.
  struct File {
    sqlite3_file base;
    sqlite3_file* real;
    bool mainFile;
  };

  FailingWritesVfs() {
    real_ = sqlite3_vfs_find(nullptr);
    vfs_ = *real_;
    vfs_.szOsFile = static_cast<int>(sizeof(File)) + real_->szOsFile;
    vfs_.zName = kName;
    vfs_.pNext = nullptr;
    vfs_.xOpen = &open;
    sqlite3_vfs_register(&vfs_, 0);
  }

  static sqlite3_file* real(sqlite3_file* file) { return reinterpret_cast<File*>(file)->real; }
  static int failure() { return instance().failure_.load(); }

  static int open(sqlite3_vfs*, const char* name, sqlite3_file* file, int flags, int* outFlags) {
    auto* wrapper = reinterpret_cast<File*>(file);
    wrapper->real = reinterpret_cast<sqlite3_file*>(wrapper + 1);
    wrapper->mainFile = (flags & SQLITE_OPEN_MAIN_DB) != 0;
    sqlite3_vfs* real = instance().real_;
    const int rc = real->xOpen(real, name, wrapper->real, flags, outFlags);
    wrapper->base.pMethods = wrapper->real->pMethods ? &kMethods : nullptr;
    return rc;
  }

  static int close(sqlite3_file* f) { return real(f)->pMethods->xClose(real(f)); }
  static int read(sqlite3_file* f, void* out, int amount, sqlite3_int64 offset) {
    const sqlite3_int64 bad = instance().readFailureOffset_.load();
    if (const int code = instance().readFailure_.load(); code != SQLITE_OK &&
                                                         reinterpret_cast<File*>(f)->mainFile &&
                                                         offset <= bad && bad < offset + amount) {
      return code;
    }
    return real(f)->pMethods->xRead(real(f), out, amount, offset);
  }
  static int write(sqlite3_file* f, const void* data, int amount, sqlite3_int64 offset) {
    if (const int code = failure(); code != SQLITE_OK) return code;
    return real(f)->pMethods->xWrite(real(f), data, amount, offset);
  }
  static int truncate(sqlite3_file* f, sqlite3_int64 size) {
    if (const int code = failure(); code != SQLITE_OK) return code;
    return real(f)->pMethods->xTruncate(real(f), size);
  }
  static int sync(sqlite3_file* f, int flags) { return real(f)->pMethods->xSync(real(f), flags); }
  static int fileSize(sqlite3_file* f, sqlite3_int64* size) {
    return real(f)->pMethods->xFileSize(real(f), size);
  }
  static int lock(sqlite3_file* f, int level) { return real(f)->pMethods->xLock(real(f), level); }
  static int unlock(sqlite3_file* f, int level) {
    return real(f)->pMethods->xUnlock(real(f), level);
  }
  static int checkReservedLock(sqlite3_file* f, int* out) {
    return real(f)->pMethods->xCheckReservedLock(real(f), out);
  }
  static int fileControl(sqlite3_file* f, int op, void* arg) {
    return real(f)->pMethods->xFileControl(real(f), op, arg);
  }
  static int sectorSize(sqlite3_file* f) { return real(f)->pMethods->xSectorSize(real(f)); }
  static int deviceCharacteristics(sqlite3_file* f) {
    return real(f)->pMethods->xDeviceCharacteristics(real(f));
  }
  static int shmMap(sqlite3_file* f, int region, int size, int extend, void volatile** out) {
    return real(f)->pMethods->xShmMap(real(f), region, size, extend, out);
  }
  static int shmLock(sqlite3_file* f, int offset, int n, int flags) {
    return real(f)->pMethods->xShmLock(real(f), offset, n, flags);
  }
  static void shmBarrier(sqlite3_file* f) { real(f)->pMethods->xShmBarrier(real(f)); }
  static int shmUnmap(sqlite3_file* f, int deleteFlag) {
    return real(f)->pMethods->xShmUnmap(real(f), deleteFlag);
  }
  static int fetch(sqlite3_file* f, sqlite3_int64 offset, int amount, void** out) {
    return real(f)->pMethods->xFetch(real(f), offset, amount, out);
  }
  static int unfetch(sqlite3_file* f, sqlite3_int64 offset, void* page) {
    return real(f)->pMethods->xUnfetch(real(f), offset, page);
  }

  static constexpr sqlite3_io_methods kMethods = {3,
                                                  &close,
                                                  &read,
                                                  &write,
                                                  &truncate,
                                                  &sync,
                                                  &fileSize,
                                                  &lock,
                                                  &unlock,
                                                  &checkReservedLock,
                                                  &fileControl,
                                                  &sectorSize,
                                                  &deviceCharacteristics,
                                                  &shmMap,
                                                  &shmLock,
                                                  &shmBarrier,
                                                  &shmUnmap,
                                                  &fetch,
                                                  &unfetch};

  sqlite3_vfs* real_ = nullptr;
  sqlite3_vfs vfs_{};
  std::atomic<int> failure_{SQLITE_OK};
  std::atomic<int> readFailure_{SQLITE_OK};
  std::atomic<sqlite3_int64> readFailureOffset_{0};
};

}  // namespace orvane::testing
