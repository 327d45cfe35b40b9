// Whatever the service sends, the host's memory stays bounded: each case runs in a child
// process against a loopback fault server with the transport's default caps, and the child's
// peak resident memory (VmHWM, which starts at what the child inherited) is checked.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <string>

#include "models/ModelDownloader.h"
#include "network/LoopbackServers.h"
#include "network/TransportCalls.h"
#include "orvane/platform/linux/LinuxPlatform.h"

namespace orvane {
namespace {

using testing::RawExchange;
using testing::RawServer;

constexpr uint64_t kMemoryBoundBytes = 150'000'000;
constexpr uint64_t kHugeMebibytes = 500;

// Shadow memory and quarantine inflate the figures; ThreadSanitizer refuses the child's
// threads, the parent having a server thread.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
#else
constexpr bool kSanitized = false;
#endif

uint64_t statusBytes(const char* field) {
  std::ifstream in("/proc/self/status");
  for (std::string line; std::getline(in, line);) {
    if (line.rfind(field, 0) == 0) return std::stoull(line.substr(std::strlen(field))) * 1024;
  }
  return 0;
}

struct ChildRun {
  bool finished = false;
  int64_t result = 0;  // what the case returned: an error code, or a size
  uint64_t startBytes = 0;
  uint64_t peakBytes = 0;
};

// Runs `scenario` in a child process and reports its peak resident memory. Not under a
// sanitizer: its figures mean nothing there, and a child forked from a threaded parent can
// find the sanitizer's allocator locked for good.
ChildRun runInChild(const std::function<int64_t()>& scenario) {
  int channel[2];
  if (pipe(channel) != 0) return {};
  const pid_t pid = fork();
  if (pid == 0) {
    close(channel[0]);
    const uint64_t start = statusBytes("VmRSS:");
    const int64_t result = scenario();
    const std::string report = std::to_string(result) + " " + std::to_string(start) + " " +
                               std::to_string(statusBytes("VmHWM:"));
    const ssize_t written = write(channel[1], report.data(), report.size());
    _exit(written == static_cast<ssize_t>(report.size()) ? 0 : 1);
  }
  close(channel[1]);
  std::string report;
  char buffer[256];
  for (ssize_t n; (n = read(channel[0], buffer, sizeof buffer)) > 0;) {
    report.append(buffer, static_cast<size_t>(n));
  }
  close(channel[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  ChildRun run;
  unsigned long long start = 0, peak = 0;
  long long result = 0;
  run.finished = WIFEXITED(status) && WEXITSTATUS(status) == 0 &&
                 std::sscanf(report.c_str(), "%lld %llu %llu", &result, &start, &peak) == 3;
  run.result = result;
  run.startBytes = start;
  run.peakBytes = peak;
  return run;
}

void expectBounded(const char* name, const ChildRun& run) {
  ASSERT_TRUE(run.finished) << name;
  std::cout << "[ peak     ] " << name << ": " << run.peakBytes / 1e6 << " MB (the child began at "
            << run.startBytes / 1e6 << " MB)" << std::endl;
  EXPECT_LT(run.peakBytes, kMemoryBoundBytes) << name;
}

class PeakMemoryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (kSanitized) GTEST_SKIP() << "memory figures need a build without sanitizers";
  }
};

// A POST as uploads make them, under the default answer cap.
int64_t upload(const std::string& url) {
  auto transport = makeCurlHttpTransport();
  HttpRequest request;
  request.url = url;
  request.headers = {{"Content-Type", "application/json"}};
  const std::string body = R"({"records":[]})";
  request.body.assign(body.begin(), body.end());
  request.timeoutSeconds = 60;
  const auto outcome = testing::sendAndWait(*transport, std::move(request));
  return outcome.error ? outcome.errorCode() : static_cast<int64_t>(outcome.response->body.size());
}

TEST_F(PeakMemoryTest, AGzipBombAnswer) {
  RawServer bomb([](RawExchange& exchange) { testing::streamZeros(exchange, 1024, true); });
  const ChildRun run = runInChild([&] { return upload(bomb.url("/v3/queue/tech")); });
  EXPECT_EQ(run.result, kResourceExceedsMaximumSize);
  std::cout << "[ peak     ] (the bomb: " << testing::GzipZeros(1024).encodedSize()
            << " bytes of gzip for 1 GiB)" << std::endl;
  expectBounded("gzip bomb, 1 GiB decoded", run);
}

TEST_F(PeakMemoryTest, AHugePlainAnswer) {
  RawServer huge(
      [](RawExchange& exchange) { testing::streamZeros(exchange, kHugeMebibytes, false); });
  const ChildRun run = runInChild([&] { return upload(huge.url("/v3/queue/tech")); });
  EXPECT_EQ(run.result, kResourceExceedsMaximumSize);
  expectBounded("500 MB plain body", run);
}

TEST_F(PeakMemoryTest, AnswersWhoseLengthLies) {
  // Declares 2 GiB and sends none of it: refused on the declaration, without waiting for the
  // server to give up.
  RawServer overstated([](RawExchange& exchange) {
    exchange.write("HTTP/1.1 200 OK\r\nContent-Length: 2147483648\r\n\r\n");
    exchange.waitForClose(20);
  });
  const auto start = std::chrono::steady_clock::now();
  const ChildRun over = runInChild([&] { return upload(overstated.url("/v3/queue/tech")); });
  EXPECT_EQ(over.result, kResourceExceedsMaximumSize);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
  expectBounded("Content-Length 2 GiB", over);

  // Declares a kilobyte and keeps sending: only the declared kilobyte is read.
  RawServer understated([](RawExchange& exchange) {
    if (!exchange.write("HTTP/1.1 200 OK\r\nContent-Length: 1024\r\n\r\n")) return;
    const std::string zeros(1 << 20, '\0');
    for (uint64_t i = 0; i < kHugeMebibytes && exchange.write(zeros); ++i) {
    }
  });
  const ChildRun under = runInChild([&] { return upload(understated.url("/v3/queue/tech")); });
  EXPECT_EQ(under.result, 1024);
  expectBounded("Content-Length 1 KiB, 500 MB sent", under);
}

// Fetches a model file through the model downloader, as the model store does.
int64_t fetchModel(const std::string& url, const std::string& dir) {
  auto downloader =
      std::make_shared<ModelDownloader>(makeCurlHttpTransport(), makePortableModelRuntime(), dir);
  auto result = downloader->downloadAndCompileModel(url);
  return result ? 0 : result.error().code;
}

TEST_F(PeakMemoryTest, AHugeModelFile) {
  const std::string dir = ::testing::TempDir() + "orvane-huge-model";
  std::filesystem::remove_all(dir);
  RawServer huge([](RawExchange& exchange) { testing::streamZeros(exchange, 1024, false); });
  const ChildRun run = runInChild([&] { return fetchModel(huge.url("/flow.mlmodel"), dir); });
  EXPECT_EQ(run.result, kResourceExceedsMaximumSize);
  EXPECT_EQ(testing::entriesIn(dir), 0u) << "the partial download is removed";
  expectBounded("1 GiB model file", run);
}

// A model file just under the download cap made of empty tree nodes: two bytes each in the
// file, a hundred parsed. Streamed, so the server holds none of it.
void serveNodeBomb(RawExchange& exchange, uint64_t nodes) {
  auto varint = [](uint64_t value) {
    std::string out;
    for (; value >= 0x80; value >>= 7) out.push_back(static_cast<char>(value | 0x80));
    out.push_back(static_cast<char>(value));
    return out;
  };
  const uint64_t ensembleBytes = 2 * nodes;
  const std::string classifierHead = "\x0a" + varint(ensembleBytes);  // treeEnsemble = 1
  const std::string modelHead = std::string("\x08\x01", 2) +          // specificationVersion 1
                                varint((402 << 3) | 2) +              // treeEnsembleClassifier
                                varint(classifierHead.size() + ensembleBytes) + classifierHead;
  const uint64_t total = modelHead.size() + ensembleBytes;
  if (!exchange.write("HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(total) + "\r\n\r\n" +
                      modelHead)) {
    return;
  }
  std::string emptyNodes;
  for (int i = 0; i < 32768; ++i) emptyNodes += std::string("\x0a\x00", 2);  // nodes = 1
  for (uint64_t sent = 0; sent < nodes; sent += 32768) {
    const uint64_t count = std::min<uint64_t>(32768, nodes - sent);
    if (!exchange.write(std::string_view(emptyNodes.data(), 2 * count))) return;
  }
}

TEST_F(PeakMemoryTest, AModelFileThatExpandsWhenParsed) {
  const std::string dir = ::testing::TempDir() + "orvane-node-bomb";
  std::filesystem::remove_all(dir);
  const uint64_t nodes = (kDefaultMaximumDownloadBytes - 64) / 2;
  RawServer server([&](RawExchange& exchange) { serveNodeBomb(exchange, nodes); });
  const ChildRun run = runInChild([&] { return fetchModel(server.url("/flow.mlmodel"), dir); });
  EXPECT_EQ(run.result, DownloadError::kCompilationFailed);
  expectBounded("16 MiB model of empty tree nodes", run);
}

}  // namespace
}  // namespace orvane
