// The platform an application gets when it installs none: the one a platform library
// registered (the Linux services), else the portable services of the core. Tests build their
// own Platform from fakes.
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "orvane/platform/Platform.h"

namespace orvane {
namespace {

std::optional<std::string> environment(const char* name) {
  const char* value = std::getenv(name);
  if (value == nullptr || *value == '\0') return std::nullopt;
  return std::string(value);
}

std::mutex& resourceDirectoryMutex() {
  static std::mutex mutex;
  return mutex;
}
std::string& chosenResourceDirectory() {
  static std::string path;
  return path;
}

bool holdsBundle(const std::filesystem::path& folder) {
  std::error_code ec;
  return std::filesystem::is_directory(folder / "Orvane.bundle", ec);
}

std::mutex& factoryMutex() {
  static std::mutex mutex;
  return mutex;
}
Platform::Factory& registeredFactory() {
  static Platform::Factory factory = nullptr;
  return factory;
}

// Without a transport of the host's, every request fails at once with a reason a developer
// can act on; uploads keep their records and back off as for any network failure. Like any
// transport it completes on a thread of its own, never inside the caller's call.
class UnavailableHttpTransport final : public HttpTransport {
 public:
  void send(HttpRequest, HttpCompletion completion) override {
    if (!completion) return;
    queue_->async([completion = std::move(completion)] { completion(std::nullopt, error()); });
  }
  void download(DownloadRequest, DownloadCompletion completion) override {
    if (!completion) return;
    queue_->async(
        [completion = std::move(completion)] { completion(std::nullopt, std::nullopt, error()); });
  }

 private:
  std::shared_ptr<SerialQueue> queue_ = makeThreadSerialQueue("com.orvane.UnavailableHttp");

  static PlatformError error() {
    return PlatformError{"NSURLErrorDomain", -1004,
                         "no HTTP transport: install a platform whose `http` is set"};
  }
};

std::mutex& motionTraceMutex() {
  static std::mutex mutex;
  return mutex;
}
std::string& chosenMotionTrace() {
  static std::string path;
  return path;
}

// A trace that cannot be read is named in the log and the device lies still instead: a host
// must start even with a wrong path.
std::shared_ptr<MotionService> makeDefaultMotionService(const std::shared_ptr<Clock>& clock,
                                                        SystemLog& log) {
  std::string path;
  {
    std::lock_guard<std::mutex> guard(motionTraceMutex());
    path = chosenMotionTrace();
  }
  if (path.empty()) path = environment("ORVANE_MOTION_TRACE").value_or("");
  if (path.empty()) return makeStillMotionService(clock);
  std::string error;
  if (auto service = makeTraceMotionService(clock, path, &error)) return service;
  log.error("[Orvane] Cannot replay the motion trace " + path + ": " + error);
  return makeStillMotionService(clock);
}

}  // namespace

void Platform::setDefaultMotionTrace(std::string path) {
  std::lock_guard<std::mutex> guard(motionTraceMutex());
  chosenMotionTrace() = std::move(path);
}

void Platform::setDefaultResourceDirectory(std::string path) {
  std::lock_guard<std::mutex> guard(resourceDirectoryMutex());
  chosenResourceDirectory() = std::move(path);
}

std::string Platform::defaultResourceDirectory() {
  {
    std::lock_guard<std::mutex> guard(resourceDirectoryMutex());
    if (!chosenResourceDirectory().empty()) return chosenResourceDirectory();
  }
  if (auto dir = environment("ORVANE_RESOURCE_DIR")) return *dir;
  std::error_code ec;
  const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe", ec);
  std::vector<std::filesystem::path> candidates;
  if (!ec) {
    candidates.push_back(program.parent_path());
    candidates.push_back(program.parent_path().parent_path() / "share" / "orvane");
  }
#ifdef ORVANE_SOURCE_RESOURCE_DIR
  candidates.emplace_back(ORVANE_SOURCE_RESOURCE_DIR);
#endif
  for (const auto& folder : candidates) {
    if (holdsBundle(folder)) return folder.string();
  }
  return "";
}

std::string Platform::defaultDataDirectory() {
  if (auto dir = environment("ORVANE_DATA_DIR")) return *dir;
  if (auto dir = environment("XDG_DATA_HOME")) return *dir + "/orvane";
  if (auto home = environment("HOME")) return *home + "/.local/share/orvane";
  // No home at all (a bare service account): still somewhere writable.
  return "/tmp/orvane";
}

std::shared_ptr<HttpTransport> makeUnavailableHttpTransport() {
  return std::make_shared<UnavailableHttpTransport>();
}

void Platform::setDefaultFactory(Factory factory) {
  std::lock_guard<std::mutex> guard(factoryMutex());
  registeredFactory() = factory;
}

Platform Platform::defaultPlatform() {
  Factory factory = nullptr;
  {
    std::lock_guard<std::mutex> guard(factoryMutex());
    factory = registeredFactory();
  }
  return factory ? factory() : portablePlatform(defaultDataDirectory());
}

Platform Platform::portablePlatform(const std::string& dataDirectory) {
  Platform platform;
  platform.clock = makeSystemClock();
  platform.calendar = makeSystemCalendar();
  platform.random = makeSystemRandomSource();
  platform.keyValueStores = makeInMemoryKeyValueStoreProvider();
  platform.fileSystem = makeLocalFileSystem(dataDirectory);
  platform.log = makeStderrLog();
  platform.executors = makeThreadExecutors();
  platform.crypto = makePortableCrypto();
  platform.application = std::make_shared<HostApplicationService>(platform.executors->mainQueue(),
                                                                  ApplicationState::kInactive);
  platform.http = makeUnavailableHttpTransport();
  platform.modelRuntime = makePortableModelRuntime();
  platform.motion = makeDefaultMotionService(platform.clock, *platform.log);
  platform.device = std::make_shared<HostDeviceService>();
  platform.network = std::make_shared<HostNetworkPathService>();
  platform.notifications = std::make_shared<HostNotificationSettingsService>();
  platform.bundle.bundleIdentifier = environment("ORVANE_BUNDLE_ID");
  platform.bundle.sdkResourceDirectory = defaultResourceDirectory();
  return platform;
}

}  // namespace orvane
