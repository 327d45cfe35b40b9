// The transport's size caps against servers that send too much: exact at the boundary,
// counted after decoding, and the same for downloads, which leave no file.
#include <gtest/gtest.h>

#include <algorithm>

#include "network/LoopbackServers.h"
#include "network/TransportCalls.h"
#include "orvane/platform/linux/LinuxPlatform.h"

namespace orvane {
namespace {

using testing::Outcome;
using testing::RawExchange;
using testing::RawServer;
using testing::sendAndWait;

constexpr uint64_t kCap = 64 * 1024;

HttpRequest get(const std::string& url, uint64_t cap = kCap) {
  HttpRequest request;
  request.url = url;
  request.method = "GET";
  request.timeoutSeconds = 30;
  request.maximumResponseBytes = cap;
  return request;
}

// Answers every request with `body`, with a Content-Length or chunked.
RawServer answering(std::string body, bool declareLength, std::string encoding = "") {
  return RawServer([body = std::move(body), declareLength, encoding](RawExchange& exchange) {
    std::string head = "HTTP/1.1 200 OK\r\nConnection: close\r\n";
    if (!encoding.empty()) head += "Content-Encoding: " + encoding + "\r\n";
    if (declareLength) {
      exchange.write(head + "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body);
    } else {
      exchange.write(head + "Transfer-Encoding: chunked\r\n\r\n");
      testing::writeChunk(exchange, body);
      exchange.write("0\r\n\r\n");
    }
  });
}

TEST(ResponseLimitsTest, AnAnswerOfExactlyTheCapArrivesAndOneByteMoreFails) {
  auto transport = makeCurlHttpTransport();
  for (const bool declared : {true, false}) {
    RawServer exact = answering(std::string(kCap, 'a'), declared);
    const Outcome fits = sendAndWait(*transport, get(exact.url("/")));
    ASSERT_TRUE(fits.response) << fits.error->description;
    EXPECT_EQ(fits.response->body.size(), kCap);

    RawServer over = answering(std::string(kCap + 1, 'a'), declared);
    const Outcome refused = sendAndWait(*transport, get(over.url("/")));
    ASSERT_TRUE(refused.error) << "declared: " << declared;
    EXPECT_EQ(refused.errorCode(), kResourceExceedsMaximumSize) << "declared: " << declared;
    EXPECT_EQ(refused.error->domain, kUrlErrorDomain);
    EXPECT_NE(refused.error->description.find(std::to_string(kCap)), std::string::npos)
        << refused.error->description;
  }
}

TEST(ResponseLimitsTest, TheCapCountsDecodedBytes) {
  auto transport = makeCurlHttpTransport();
  // Four MiB of zeros are four KiB of gzip: small on the wire, far above the cap decoded.
  const testing::GzipZeros zeros(4);
  ASSERT_LT(zeros.encodedSize(), kCap);
  RawServer bomb = answering(zeros.bytes(), true, "gzip");
  const Outcome refused = sendAndWait(*transport, get(bomb.url("/")));
  EXPECT_EQ(refused.errorCode(), kResourceExceedsMaximumSize);

  // The same answer under a larger cap is decoded whole: decoding still happens.
  const Outcome decoded = sendAndWait(*transport, get(bomb.url("/"), uint64_t{8} << 20));
  ASSERT_TRUE(decoded.response) << decoded.error->description;
  EXPECT_EQ(decoded.response->body.size(), size_t{4} << 20);
  EXPECT_EQ(std::count(decoded.response->body.begin(), decoded.response->body.end(), 0),
            size_t{4} << 20);
}

TEST(ResponseLimitsTest, DownloadsStopAtTheirCapAndLeaveNoFile) {
  auto transport = makeCurlHttpTransport();
  const std::string dir = ::testing::TempDir() + "orvane-capped-downloads";
  std::filesystem::remove_all(dir);
  RawServer endless([](RawExchange& exchange) { testing::streamZeros(exchange, 1024, false); });
  const Outcome refused = testing::downloadAndWait(*transport, {endless.url("/m"), dir, 30, kCap});
  EXPECT_EQ(refused.errorCode(), kResourceExceedsMaximumSize);
  EXPECT_FALSE(refused.fileContent);
  EXPECT_LT(endless.bytesSent(), uint64_t{64} << 20);
  EXPECT_EQ(testing::entriesIn(dir), 0u);

  RawServer exact = answering(std::string(kCap, 'm'), false);
  const Outcome fits = testing::downloadAndWait(*transport, {exact.url("/m"), dir, 30, kCap});
  ASSERT_TRUE(fits.fileContent) << fits.error->description;
  EXPECT_EQ(fits.fileContent->size(), kCap);
}

}  // namespace
}  // namespace orvane
