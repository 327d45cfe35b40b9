#include "DevService.h"
#include "orvane/platform/linux/LinuxPlatform.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <vector>

namespace orvane::sim::demo {
namespace fs = std::filesystem;

std::string findDevService(const std::string& simExecutable) {
  const fs::path dir = fs::path(simExecutable).parent_path();
  for (const fs::path& candidate :
       {dir / "orvane-devservice", dir / ".." / "devservice" / "orvane-devservice"}) {
    std::error_code error;
    if (fs::is_regular_file(candidate, error)) return fs::weakly_canonical(candidate).string();
  }
  return "";
}

std::unique_ptr<DevService> DevService::start(const DevServiceOptions& options,
                                              std::string* error) {
  std::vector<std::string> arguments = {
      options.program,     "--port",       std::to_string(options.port),     "--payload",
      options.payloadFile, "--time-limit", std::to_string(options.timeLimit)};
  if (!options.modelsDir.empty())
    arguments.insert(arguments.end(), {"--models", options.modelsDir});
  if (!options.controlPayloadFile.empty()) {
    arguments.insert(arguments.end(), {"--control-payload", options.controlPayloadFile,
                                       "--control-share", std::to_string(options.controlShare)});
  }
  if (!options.database.empty()) arguments.insert(arguments.end(), {"--db", options.database});
  std::vector<char*> argv;
  argv.reserve(arguments.size() + 1);
  for (auto& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);

  int out[2];
  if (pipe(out) != 0) {
    *error = "cannot create a pipe";
    return nullptr;
  }
  const pid_t parent = getpid();
  const pid_t pid = fork();
  if (pid == 0) {
    // The service goes when the demo goes, however it ends.
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent) _exit(1);
    dup2(out[1], STDOUT_FILENO);
    close(out[0]);
    close(out[1]);
    const int log = open(options.logFile.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    if (log >= 0) dup2(log, STDERR_FILENO);
    execv(argv[0], argv.data());
    _exit(127);
  }
  close(out[1]);
  if (pid < 0) {
    close(out[0]);
    *error = "cannot start " + options.program;
    return nullptr;
  }

  // The service prints its address once it accepts requests.
  std::string line;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(15);
  while (std::chrono::steady_clock::now() < deadline) {
    pollfd ready{out[0], POLLIN, 0};
    if (poll(&ready, 1, 100) <= 0) continue;
    char c;
    if (read(out[0], &c, 1) != 1 || c == '\n') break;
    line += c;
  }
  close(out[0]);
  const std::string prefix = "listening on ";
  if (!line.starts_with(prefix)) {
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
    *error = options.program + " did not start (see " + options.logFile + ")";
    return nullptr;
  }
  return std::unique_ptr<DevService>(new DevService(pid, line.substr(prefix.size())));
}

DevService::~DevService() {
  kill(pid_, SIGTERM);
  waitpid(pid_, nullptr, 0);
}

ServiceClient::ServiceClient(std::string url)
    : url_(std::move(url)), http_(makeCurlHttpTransport(1)) {}

std::optional<HttpResponse> ServiceClient::exchange(HttpRequest request) {
  request.timeoutSeconds = 5;
  auto answer = std::make_shared<std::promise<std::optional<HttpResponse>>>();
  auto future = answer->get_future();
  http_->send(std::move(request),
              [answer](std::optional<HttpResponse> response, const std::optional<PlatformError>&) {
                answer->set_value(std::move(response));
              });
  return future.get();
}

bool ServiceClient::scriptFaults(const nlohmann::json& steps) {
  HttpRequest request;
  request.url = url_ + "/control/faults";
  request.headers = {{"Content-Type", "application/json"}};
  const std::string body = steps.dump();
  request.body.assign(body.begin(), body.end());
  auto response = exchange(std::move(request));
  return response && response->statusCode == 200;
}

std::optional<nlohmann::json> ServiceClient::stored() {
  HttpRequest request;
  request.method = "GET";
  request.url = url_ + "/stored";
  // Everything the development service stored in this run: it grows past a service answer.
  request.maximumResponseBytes = uint64_t{64} << 20;
  auto response = exchange(std::move(request));
  if (!response || response->statusCode != 200) return std::nullopt;
  auto listing = nlohmann::json::parse(response->body.begin(), response->body.end(), nullptr,
                                       /*allow_exceptions=*/false);
  if (listing.is_discarded()) return std::nullopt;
  return listing;
}

bool writePayloadFile(const std::string& path, const nlohmann::json& payload) {
  const std::string temporary = path + ".new";
  {
    std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
    out << payload.dump(2);
    if (!out) return false;
  }
  std::error_code error;
  fs::rename(temporary, path, error);
  return !error;
}

}  // namespace orvane::sim::demo
