// The development service as a separate process, driven over loopback HTTP.
#include <gtest/gtest.h>
#include <httplib.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <random>
#include <thread>

#include <nlohmann/json.hpp>

namespace {

namespace fs = std::filesystem;
using nlohmann::json;

// The service started with `arguments`; its port is read from the line it prints.
class Service {
 public:
  explicit Service(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), ORVANE_DEVSERVICE);
    std::vector<char*> argv;
    for (auto& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    int out[2];
    if (pipe(out) != 0) throw std::runtime_error("pipe");
    pid_ = fork();
    if (pid_ == 0) {
      dup2(out[1], STDOUT_FILENO);
      close(out[0]);
      execv(argv[0], argv.data());
      _exit(127);
    }
    close(out[1]);
    std::string line;
    char c;
    while (read(out[0], &c, 1) == 1 && c != '\n') line += c;
    close(out[0]);
    const std::string prefix = "listening on http://127.0.0.1:";
    if (line.starts_with(prefix)) port_ = std::stoi(line.substr(prefix.size()));
  }
  ~Service() {
    if (pid_ > 0 && !exitStatus_) {
      kill(pid_, SIGTERM);
      waitpid(pid_, nullptr, 0);
    }
  }

  int port() const { return port_; }
  httplib::Client client() const {
    httplib::Client client("127.0.0.1", port_);
    client.set_read_timeout(5);
    return client;
  }
  httplib::Result post(const std::string& path, const json& body) const {
    return client().Post(path.c_str(), body.dump(), "application/json");
  }
  json stored() const {
    auto res = client().Get("/stored");
    return res && res->status == 200 ? json::parse(res->body) : json();
  }
  // The exit status once the process has ended, waiting at most `seconds`.
  std::optional<int> exitStatus(double seconds) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (!exitStatus_ && std::chrono::steady_clock::now() < deadline) {
      int status = 0;
      if (waitpid(pid_, &status, WNOHANG) == pid_) {
        exitStatus_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
      } else {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
      }
    }
    return exitStatus_;
  }

 private:
  pid_t pid_ = -1;
  int port_ = 0;
  std::optional<int> exitStatus_;
};

class TempDir {
 public:
  TempDir()
      : path_(fs::temp_directory_path() /
              ("devservice-test-" + std::to_string(std::random_device()()))) {
    fs::create_directories(path_);
  }
  ~TempDir() { fs::remove_all(path_); }
  fs::path write(const std::string& name, const std::string& content) const {
    std::ofstream(path_ / name, std::ios::binary) << content;
    return path_ / name;
  }
  const fs::path& path() const { return path_; }

 private:
  fs::path path_;
};

json uploadOf(std::initializer_list<const char*> logIds) {
  json events = json::array();
  for (const char* id : logIds) {
    events.push_back({{"ctx_8", id}, {"ctx_3", 1}, {"ctx_20", "paywall"}, {"ctx_14", "s1"}});
  }
  return {{"events", events},     {"bundle_id", "com.example.app"},
          {"license_key", "key"}, {"sdk_version", "5.13.0"},
          {"last_ota_update", 3}, {"installation_uuid", "install-1"},
          {"platform", "ios_ads"}};
}

std::vector<json> column(const json& rows, const char* key) {
  std::vector<json> out;
  for (const json& row : rows) out.push_back(row[key]);
  return out;
}

TEST(DevService, StoresOneRowPerEventSoThatResentRecordsShowAsDuplicates) {
  TempDir dir;
  Service service({"--db", (dir.path() / "store.sqlite").string()});
  ASSERT_NE(service.port(), 0);

  auto first = service.post("/v3/queue/tech", uploadOf({"a", "b"}));
  ASSERT_TRUE(first);
  EXPECT_EQ(first->status, 200);
  EXPECT_EQ(first->body, "");  // no payload file
  ASSERT_TRUE(service.post("/v3/queue/tech", uploadOf({"b", "c"})));
  ASSERT_TRUE(service.post("/v3/queue/tech", uploadOf({})));
  ASSERT_TRUE(service.post("/v2/error-reporting", {{"message", "Failed to remove logs from queue"},
                                                   {"installation_uuid", "install-1"},
                                                   {"severity", "error"},
                                                   {"payload", {{"err", nullptr}}}}));
  auto unreadable = service.client().Post("/v3/queue/tech", "not json", "application/json");
  ASSERT_TRUE(unreadable);

  const json stored = service.stored();
  EXPECT_EQ(stored["counts"], json({{"uploads", 4}, {"events", 4}, {"error_reports", 1}}));
  EXPECT_EQ(stored["duplicates"], json({{"b", 2}}));
  const json& events = stored["events"];
  EXPECT_EQ(column(events, "log_id"), (std::vector<json>{"a", "b", "b", "c"}));
  EXPECT_EQ(column(events, "request_number"), (std::vector<json>{1, 1, 2, 2}));
  EXPECT_EQ(events[0]["outcome"], 1);
  EXPECT_EQ(events[0]["flow"], "paywall");
  EXPECT_EQ(events[0]["installation_uuid"], "install-1");
  EXPECT_EQ(events[0]["event"]["ctx_14"], "s1");
  const json& uploads = stored["uploads"];
  EXPECT_EQ(column(uploads, "event_count"), (std::vector<json>{2, 2, 0, 0}));
  EXPECT_EQ(uploads[0]["envelope"]["bundle_id"], "com.example.app");
  EXPECT_FALSE(uploads[0]["envelope"].contains("events"));
  EXPECT_EQ(uploads[3]["envelope"], "not json");
  EXPECT_TRUE(uploads[3]["problem"].is_string());
  EXPECT_EQ(stored["error_reports"][0]["message"], "Failed to remove logs from queue");
  EXPECT_EQ(stored["error_reports"][0]["body"]["payload"], json({{"err", nullptr}}));
}

TEST(DevService, AnswersWithThePayloadFileAndRereadsItWhenItChanges) {
  TempDir dir;
  const json first = {{"geoIpData", {{"country", "DE"}}}};
  const json second = {{"geoIpData", {{"country", "FR"}}},
                       {"updateData", {{"version", 3}, {"modelInfoPerFlow", json::object()}}}};
  const fs::path file = dir.write("payload.json", first.dump());
  Service service({"--payload", file.string()});

  auto answer = service.post("/v3/queue/tech", uploadOf({"a"}));
  ASSERT_TRUE(answer);
  EXPECT_EQ(json::parse(answer->body), first);

  dir.write("payload.json", second.dump());
  answer = service.post("/v3/queue/tech", uploadOf({"a"}));
  ASSERT_TRUE(answer);
  EXPECT_EQ(json::parse(answer->body), second);
  auto health = json::parse(service.client().Get("/health")->body);
  EXPECT_EQ(health["payload"], json({{"loads", 2}, {"problem", ""}}));

  // Served as written even though the SDK would reject it; the problem is reported.
  dir.write("payload.json", R"({"updateData": {"version": "three"}})");
  answer = service.post("/v3/queue/tech", uploadOf({"a"}));
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->body, R"({"updateData": {"version": "three"}})");
  health = json::parse(service.client().Get("/health")->body);
  EXPECT_NE(health["payload"]["problem"], "");
}

TEST(DevService, ScriptedFaultsAnswerTheNextUploadsInOrder) {
  Service service({"--faults", "500,timeout:0.2"});
  auto res = service.post("/v3/queue/tech", uploadOf({"a"}));
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 500);
  EXPECT_FALSE(service.post("/v3/queue/tech", uploadOf({"a"})));  // broken connection
  res = service.post("/v3/queue/tech", uploadOf({"a"}));
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 200);  // script used up

  res = service.client().Post("/control/faults", R"(["503", "202:0.3"])", "application/json");
  ASSERT_TRUE(res);
  EXPECT_EQ(json::parse(res->body)["faults"], json({"503", "202:0.3"}));
  EXPECT_EQ(service.post("/v3/queue/tech", uploadOf({"a"}))->status, 503);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(service.post("/v3/queue/tech", uploadOf({"a"}))->status, 202);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(300));

  res = service.client().Post("/control/faults", "500,oops", "text/plain");
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 400);
  const json stored = service.stored();
  EXPECT_EQ(column(stored["uploads"], "answered"),
            (std::vector<json>{500, nullptr, 200, 503, 202}));
  EXPECT_EQ(stored["duplicates"], json({{"a", 5}}));
}

TEST(DevService, ServesModelFiles) {
  TempDir dir;
  const std::string bytes("model\0bytes", 11);
  dir.write("home.mlmodel", bytes);
  Service service({"--models", dir.path().string()});
  auto res = service.client().Get("/models/home.mlmodel");
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 200);
  EXPECT_EQ(res->body, bytes);
  EXPECT_EQ(service.client().Get("/models/missing.mlmodel")->status, 404);
}

TEST(DevService, StopsByItselfAtTheTimeLimitAndRefusesBadArguments) {
  Service limited({"--time-limit", "1"});
  ASSERT_NE(limited.port(), 0);
  Service taken({"--port", std::to_string(limited.port())});
  EXPECT_EQ(taken.port(), 0);
  EXPECT_EQ(taken.exitStatus(5), 1);
  EXPECT_EQ(limited.exitStatus(5), 0);
  EXPECT_FALSE(limited.client().Get("/health"));

  Service bad({"--faults", "500,oops"});
  EXPECT_EQ(bad.port(), 0);
  EXPECT_EQ(bad.exitStatus(5), 1);
}

}  // namespace
