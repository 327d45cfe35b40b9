// Files under the host's data folder. Every call goes through the error_code overloads so a
// full disk or a missing folder turns into a false or a none, never an exception.
#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>

#include "orvane/platform/FileSystem.h"

namespace orvane {
namespace {

namespace fs = std::filesystem;

bool writeAll(int fd, const uint8_t* data, size_t size) {
  while (size > 0) {
    const ssize_t n = ::write(fd, data, size);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

// Makes the rename itself durable; failure only weakens durability, not the write.
void syncDirectory(const fs::path& directory) {
  const int fd = ::open(directory.empty() ? "." : directory.c_str(), O_RDONLY | O_DIRECTORY);
  if (fd < 0) return;
  ::fsync(fd);
  ::close(fd);
}

class LocalFileSystem : public FileSystem {
 public:
  explicit LocalFileSystem(std::string dataDirectory)
      : dataDirectory_(std::move(dataDirectory)), temporaryDirectory_(makeTemporaryPath()) {}

  std::string applicationSupportDirectory() const override {
    const fs::path path = fs::path(dataDirectory_) / "Application Support";
    std::error_code ec;
    fs::create_directories(path, ec);
    return path.string();
  }

  std::string temporaryDirectory() const override {
    std::error_code ec;
    fs::create_directories(temporaryDirectory_, ec);
    return temporaryDirectory_;
  }

  bool exists(const std::string& path) const override {
    std::error_code ec;
    return fs::exists(path, ec);
  }

  bool isDirectory(const std::string& path) const override {
    std::error_code ec;
    return fs::is_directory(path, ec);
  }

  bool createDirectories(const std::string& path) override {
    std::error_code ec;
    fs::create_directories(path, ec);
    // An existing folder is success; an existing file in the way is not.
    return !ec && fs::is_directory(path, ec);
  }

  // Copy and move refuse to replace an existing destination: silently overwriting a model
  // file that another component has just put in place would hide a logic error.
  bool copy(const std::string& from, const std::string& to) override {
    std::error_code ec;
    if (!fs::exists(from, ec) || fs::exists(fs::symlink_status(to, ec))) return false;
    fs::copy(from, to, fs::copy_options::recursive | fs::copy_options::copy_symlinks, ec);
    return !ec;
  }

  bool move(const std::string& from, const std::string& to) override {
    std::error_code ec;
    if (!fs::exists(fs::symlink_status(from, ec)) || fs::exists(fs::symlink_status(to, ec))) {
      return false;
    }
    fs::rename(from, to, ec);
    if (!ec) return true;
    if (ec != std::errc::cross_device_link) return false;
    // Another volume: copy, then remove the original only once the copy is complete.
    if (!copy(from, to)) {
      fs::remove_all(to, ec);
      return false;
    }
    fs::remove_all(from, ec);
    return !ec;
  }

  bool remove(const std::string& path) override {
    std::error_code ec;
    const auto removed = fs::remove_all(path, ec);
    return !ec && removed > 0;
  }

  bool createHardLink(const std::string& existing, const std::string& link) override {
    std::error_code ec;
    if (!fs::is_directory(existing, ec)) {
      fs::create_hard_link(existing, link, ec);
      return !ec;
    }
    // Folders cannot be hard-linked: mirror the tree and link every file in it.
    if (fs::exists(fs::symlink_status(link, ec)) || !fs::create_directory(link, ec)) return false;
    fs::recursive_directory_iterator it(existing, ec);
    for (; !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
      const fs::path target = fs::path(link) / fs::relative(it->path(), existing, ec);
      if (ec) break;
      if (it->is_directory(ec)) {
        fs::create_directory(target, ec);
      } else {
        fs::create_hard_link(it->path(), target, ec);
      }
    }
    if (!ec) return true;
    fs::remove_all(link, ec);
    return false;
  }

  std::optional<double> modificationDate(const std::string& path) const override {
    std::error_code ec;
    const auto time = fs::last_write_time(path, ec);
    if (ec) return std::nullopt;
    const auto sys = std::chrono::file_clock::to_sys(time);
    return std::chrono::duration<double>(sys.time_since_epoch()).count();
  }

  bool setModificationDate(const std::string& path, double secondsSince1970) override {
    if (!std::isfinite(secondsSince1970)) return false;
    const auto sys = std::chrono::system_clock::time_point(
        std::chrono::duration_cast<std::chrono::system_clock::duration>(
            std::chrono::duration<double>(secondsSince1970)));
    std::error_code ec;
    fs::last_write_time(path, std::chrono::file_clock::from_sys(sys), ec);
    return !ec;
  }

  std::optional<std::vector<std::string>> list(const std::string& path) const override {
    std::error_code ec;
    fs::directory_iterator it(path, ec);
    if (ec) return std::nullopt;
    std::vector<std::string> names;
    for (const fs::directory_iterator end; it != end; it.increment(ec)) {
      names.push_back(it->path().filename().string());
    }
    if (ec) return std::nullopt;
    // Directory order is whatever the file system likes; callers get a stable one.
    std::sort(names.begin(), names.end());
    return names;
  }

  std::optional<std::vector<uint8_t>> readFile(const std::string& path) const override {
    std::error_code ec;
    if (!fs::is_regular_file(path, ec)) return std::nullopt;
    std::ifstream in(path, std::ios::binary);
    if (!in) return std::nullopt;
    std::vector<uint8_t> bytes;
    char buffer[64 * 1024];
    while (in.read(buffer, sizeof buffer) || in.gcount() > 0) {
      bytes.insert(bytes.end(), buffer, buffer + in.gcount());
    }
    if (in.bad()) return std::nullopt;
    return bytes;
  }

  bool writeFile(const std::string& path, const std::vector<uint8_t>& bytes) override {
    const fs::path target(path);
    if (!target.has_filename()) return false;
    // A unique name beside the target keeps the rename on one volume and lets concurrent
    // writers of the same file race only on the rename, where the last one wins whole.
    static std::atomic<uint64_t> counter{0};
    fs::path temp = target;
    temp.replace_filename("." + target.filename().string() + ".tmp." + std::to_string(::getpid()) +
                          "." + std::to_string(counter++));
    const int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    const bool written = writeAll(fd, bytes.data(), bytes.size()) && ::fsync(fd) == 0;
    const bool closed = ::close(fd) == 0;
    std::error_code ec;
    if (!written || !closed) {
      fs::remove(temp, ec);
      return false;
    }
    fs::rename(temp, target, ec);
    if (ec) {
      fs::remove(temp, ec);
      return false;
    }
    syncDirectory(target.parent_path());
    return true;
  }

  std::optional<uint64_t> availableCapacity(const std::string& path) const override {
    struct statvfs info {};
    if (::statvfs(path.c_str(), &info) != 0) return std::nullopt;
    // f_bavail rather than f_bfree: blocks reserved for root are not the app's to use.
    return static_cast<uint64_t>(info.f_bavail) * static_cast<uint64_t>(info.f_frsize);
  }

 private:
  static std::string makeTemporaryPath() {
    std::error_code ec;
    fs::path base = fs::temp_directory_path(ec);
    if (ec) base = "/tmp";
    return (base / ("orvane-" + std::to_string(::getpid()))).string();
  }

  const std::string dataDirectory_;
  const std::string temporaryDirectory_;
};

}  // namespace

std::shared_ptr<FileSystem> makeLocalFileSystem(std::string dataDirectory) {
  return std::make_shared<LocalFileSystem>(std::move(dataDirectory));
}

}  // namespace orvane
