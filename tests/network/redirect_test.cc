// Redirects: never from https to anything else (the body, app key included, would go out in
// clear), while http -> http and https -> https keep working. TLS runs against a loopback
// server with a certificate made for the test, which only this transport trusts.
#include <gtest/gtest.h>

#include <atomic>

#include "network/LoopbackServers.h"
#include "network/TransportCalls.h"
#include "orvane/platform/linux/LinuxPlatform.h"
#include "platform/linux/CurlHttpTransport.h"

namespace orvane {
namespace {

using testing::Outcome;
using testing::sendAndWait;
using PlainServer = testing::LoopbackServer<httplib::Server>;
using TlsServer = testing::LoopbackServer<httplib::SSLServer>;

TEST(RedirectTest, OnlyRedirectsThatStayOnHttpsMayBeFollowedFromHttps) {
  struct Case {
    const char* from;
    const char* location;
    bool follow;
  };
  const Case cases[] = {
      {"https://a.example/x", "https://b.example/y", true},
      {"https://a.example/x", "/relative/path", true},
      {"https://a.example/x", "next?q=1", true},
      {"https://a.example/x", "//b.example/scheme-relative", true},
      {"HTTPS://a.example/x", "HtTpS://b.example/y", true},
      {"https://a.example/x", "http://b.example/y", false},
      {"https://a.example/x", "HTTP://b.example/y", false},
      {"https://a.example/x", "http:relative", false},
      {"https://a.example/x", "ftp://b.example/y", false},
      {"http://a.example/x", "http://b.example/y", true},
      {"http://a.example/x", "https://b.example/y", true},
      {"http://a.example/x", "/relative", true},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(mayFollowRedirect(c.from, c.location), c.follow) << c.from << " -> " << c.location;
  }
}

HttpRequest post(const std::string& url, const std::string& body) {
  return HttpRequest{
      url, "POST", {{"Content-Type", "application/json"}}, Bytes(body.begin(), body.end()), 10};
}

TEST(RedirectTest, PlainHttpRedirectsAreFollowedAndOnlyTheLastAnswerIsKept) {
  PlainServer plain;
  std::string landedBody;
  plain.server().Post("/start", [&](const httplib::Request&, httplib::Response& res) {
    res.status = 307;  // keeps the method and the body
    res.set_header("Location", plain.url("/landing"));
    res.set_header("X-Hop", "first");
    res.set_content("moved", "text/plain");
  });
  plain.server().Post("/landing", [&](const httplib::Request& req, httplib::Response& res) {
    landedBody = req.body;
    res.set_header("X-Final", "yes");
    res.set_content("{\"ok\":true}", "application/json");
  });
  auto transport = makeCurlHttpTransport();
  const Outcome outcome = sendAndWait(*transport, post(plain.url("/start"), "{\"records\":[1]}"));
  ASSERT_TRUE(outcome.response) << outcome.error->description;
  EXPECT_EQ(outcome.response->statusCode, 200);
  EXPECT_EQ(outcome.body(), "{\"ok\":true}");
  EXPECT_EQ(landedBody, "{\"records\":[1]}");
  bool final = false, hop = false;
  for (const auto& [name, value] : outcome.response->headers) {
    final |= name == "X-Final";
    hop |= name == "X-Hop";
  }
  EXPECT_TRUE(final);
  EXPECT_FALSE(hop) << "headers of a redirect hop are not the answer's";
}

class TlsRedirectTest : public ::testing::Test {
 protected:
  testing::TestCertificate certificate;
  TlsServer tls{certificate.certificate(), certificate.key()};
  PlainServer plain;
  std::atomic<int> plainHits{0};
  std::string tlsLandedBody;
  std::shared_ptr<HttpTransport> transport = makeCurlHttpTransportTrusting(certificate.pem());

  void SetUp() override {
    ASSERT_TRUE(tls.server().is_valid());
    plain.server().Post("/landing", [this](const httplib::Request&, httplib::Response& res) {
      ++plainHits;
      res.set_content("{}", "application/json");
    });
    tls.server().Post("/landing", [this](const httplib::Request& req, httplib::Response& res) {
      tlsLandedBody = req.body;
      res.set_content("{\"secure\":true}", "application/json");
    });
  }
  // `from` on `server` answers 307 to `location`.
  template <typename Server>
  void redirect(Server& server, const std::string& from, std::string location) {
    server.server().Post(from, [location](const httplib::Request&, httplib::Response& res) {
      res.status = 307;
      res.set_header("Location", location);
    });
  }
};

TEST_F(TlsRedirectTest, HttpsToHttpsIsFollowed) {
  redirect(tls, "/absolute", tls.url("/landing"));
  redirect(tls, "/relative", "/landing");
  for (const char* path : {"/absolute", "/relative"}) {
    const Outcome outcome = sendAndWait(*transport, post(tls.url(path), "{\"key\":\"app\"}"));
    ASSERT_TRUE(outcome.response) << path << ": " << outcome.error->description;
    EXPECT_EQ(outcome.body(), "{\"secure\":true}");
    EXPECT_EQ(tlsLandedBody, "{\"key\":\"app\"}");
  }
}

TEST_F(TlsRedirectTest, HttpsToHttpIsRefusedBeforeAnythingIsSentInClear) {
  redirect(tls, "/start", plain.url("/landing"));
  const Outcome outcome = sendAndWait(*transport, post(tls.url("/start"), "{\"key\":\"app\"}"));
  ASSERT_TRUE(outcome.error) << "followed";
  EXPECT_EQ(outcome.errorCode(), kRedirectLeavesSecureConnection);
  EXPECT_EQ(outcome.error->domain, kUrlErrorDomain);
  EXPECT_NE(outcome.error->description.find(plain.url("/landing")), std::string::npos)
      << outcome.error->description;
  EXPECT_EQ(plainHits, 0);
}

TEST_F(TlsRedirectTest, AChainThatReturnsToHttpIsRefusedAtThatHop) {
  // http -> https is an upgrade and is followed; the next hop back to http is not.
  redirect(plain, "/start", tls.url("/middle"));
  redirect(tls, "/middle", plain.url("/landing"));
  const Outcome outcome = sendAndWait(*transport, post(plain.url("/start"), "{\"key\":\"app\"}"));
  EXPECT_EQ(outcome.errorCode(), kRedirectLeavesSecureConnection);
  EXPECT_EQ(plainHits, 0);
}

TEST_F(TlsRedirectTest, TheServerIsStillVerified) {
  // The system's authorities do not know the test certificate.
  auto untrusting = makeCurlHttpTransport();
  const Outcome outcome = sendAndWait(*untrusting, post(tls.url("/landing"), "{}"));
  EXPECT_FALSE(outcome.response);
  EXPECT_EQ(outcome.errorCode(), -1202) << "a certificate failure, reported as one";
  EXPECT_TRUE(tlsLandedBody.empty());
}

}  // namespace
}  // namespace orvane
