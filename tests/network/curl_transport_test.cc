#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>

#include "network/LoopbackServers.h"
#include "network/TransportCalls.h"
#include "orvane/platform/HttpTransport.h"
#include "orvane/platform/linux/LinuxPlatform.h"

namespace orvane {
namespace {

using LoopbackServer = testing::LoopbackServer<>;
using testing::Outcome;
using testing::sendAndWait;

// A port that was free a moment ago: bound, read back and closed again.
int unusedPort() {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
  socklen_t length = sizeof address;
  getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  close(fd);
  return ntohs(address.sin_port);
}

TEST(CurlTransportTest, PostsBodyAndHeadersAndReturnsTheAnswer) {
  LoopbackServer loopback;
  std::string receivedBody, receivedType, receivedMethod;
  loopback.server().Post("/v3/queue/tech",
                         [&](const httplib::Request& req, httplib::Response& res) {
                           receivedBody = req.body;
                           receivedType = req.get_header_value("Content-Type");
                           receivedMethod = req.method;
                           res.status = 202;
                           res.set_content("{\"ok\":true}", "application/json");
                         });
  auto transport = makeCurlHttpTransport();
  const std::string body = "{\"records\":[1,2,3]}";
  Outcome outcome = sendAndWait(*transport, HttpRequest{loopback.url("/v3/queue/tech"),
                                                        "POST",
                                                        {{"Content-Type", "application/json"}},
                                                        Bytes(body.begin(), body.end()),
                                                        60});
  ASSERT_TRUE(outcome.response) << outcome.error->description;
  EXPECT_FALSE(outcome.error);
  EXPECT_EQ(outcome.response->statusCode, 202);
  EXPECT_EQ(std::string(outcome.response->body.begin(), outcome.response->body.end()),
            "{\"ok\":true}");
  EXPECT_EQ(receivedBody, body);
  EXPECT_EQ(receivedType, "application/json");
  EXPECT_EQ(receivedMethod, "POST");
}

TEST(CurlTransportTest, FailuresCarryPortableDomainsAndCodes) {
  LoopbackServer loopback;
  loopback.server().Post("/slow", [](const httplib::Request&, httplib::Response& res) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    res.status = 200;
  });
  auto transport = makeCurlHttpTransport();
  auto failure = [&](std::string url, double timeout) {
    Outcome outcome = sendAndWait(*transport, HttpRequest{std::move(url), "POST", {}, {}, timeout});
    EXPECT_FALSE(outcome.response);
    return outcome.error.value_or(PlatformError{"none", 0, ""});
  };
  const PlatformError timedOut = failure(loopback.url("/slow"), 0.3);
  EXPECT_EQ(timedOut.domain, kUrlErrorDomain);
  EXPECT_EQ(timedOut.code, -1001);
  // A port nobody listens on: refused (POSIX 61, as mobile platforms number it).
  const PlatformError refused = failure("http://127.0.0.1:" + std::to_string(unusedPort()), 5);
  EXPECT_EQ(refused.domain, kPosixErrorDomain);
  EXPECT_EQ(refused.code, 61);
  EXPECT_EQ(failure("http://host.invalid/", 5).code, -1003);
  EXPECT_NE(failure("nothing://at all", 5).domain, "none");
}

TEST(CurlTransportTest, DownloadsIntoATemporaryFileThatIsRemovedAfterTheCompletion) {
  LoopbackServer loopback;
  const std::string payload(100000, 'm');
  loopback.server().Get("/model.mlmodel", [&](const httplib::Request&, httplib::Response& res) {
    res.set_content(payload, "application/octet-stream");
  });
  loopback.server().Get("/missing",
                        [](const httplib::Request&, httplib::Response& res) { res.status = 404; });
  auto transport = makeCurlHttpTransport();
  const std::string dir = ::testing::TempDir() + "orvane-downloads";

  auto fetch = [&](const std::string& path) {
    return testing::downloadAndWait(*transport, {loopback.url(path), dir, 10});
  };

  const Outcome ok = fetch("/model.mlmodel");
  ASSERT_TRUE(ok.response);
  EXPECT_EQ(ok.response->statusCode, 200);
  EXPECT_EQ(ok.fileContent, payload);
  // The transport removes the file once the completion returned; give its worker a moment.
  for (int i = 0; i < 100 && std::filesystem::exists(ok.filePath); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_FALSE(std::filesystem::exists(ok.filePath));

  const Outcome missing = fetch("/missing");
  ASSERT_TRUE(missing.response);
  EXPECT_EQ(missing.response->statusCode, 404);
}

}  // namespace
}  // namespace orvane
