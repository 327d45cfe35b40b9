// Upload bodies go gzip-coded only while the service's configuration says it takes them, and a
// service that then refuses one gets the same records as plain JSON.
#include <gtest/gtest.h>

#include "config/RemoteConfiguration.h"
#include "logging/Compression.h"
#include "logging/UploadQueueFixture.h"

namespace orvane::testing {
namespace {

class UploadCompressionTest : public EstablishedAppUploadTest {
 protected:
  void announce(std::optional<std::string> coding) {
    ServerConfiguration configuration;
    configuration.uploadContentEncoding = std::move(coding);
    manager->remoteConfiguration().applyConfigurationUpdate(configuration);
    fake.drain();
  }
  // The uploads posted since the last call: their content coding and decoded events.
  struct Sent {
    std::optional<std::string> coding;
    nlohmann::json events;
  };
  std::vector<Sent> sent() {
    std::vector<Sent> out;
    const auto all = http->requests();
    for (size_t i = requestsBefore; i < all.size(); ++i) {
      if (!isUpload(all[i])) continue;
      Sent entry;
      for (const auto& [name, value] : all[i].headers) {
        if (name == "Content-Encoding") entry.coding = value;
      }
      Bytes body = all[i].body;
      if (entry.coding == "gzip") {
        auto decoded = gzipDecompress(body);
        EXPECT_TRUE(decoded) << "not a gzip body";
        if (decoded) body = *decoded;
      }
      entry.events = nlohmann::json::parse(body.begin(), body.end())["events"];
      out.push_back(std::move(entry));
    }
    requestsBefore = all.size();
    return out;
  }
};

TEST_F(UploadCompressionTest, BodiesAreGzipCodedOnlyWhileTheServiceTakesThem) {
  const struct {
    std::optional<std::string> announced;
    std::optional<std::string> sentAs;
  } cases[] = {{std::nullopt, std::nullopt}, {"gzip", "gzip"}, {"br", std::nullopt}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.announced.value_or("nothing announced"));
    announce(c.announced);
    add(3);
    trigger(UploadQueueKind::kMain, true);
    const auto uploads = sent();
    ASSERT_EQ(uploads.size(), 1u);
    EXPECT_EQ(uploads[0].coding, c.sentAs);
    EXPECT_EQ(uploads[0].events.size(), 3u);
    EXPECT_TRUE(sender().mainQueue().empty());
  }
}

TEST_F(UploadCompressionTest, ARefusedGzipBodyGoesAgainAsPlainJsonForTheRestOfTheSession) {
  announce("gzip");
  add(2);
  http->script({status(415), status(200)});
  trigger(UploadQueueKind::kMain, true);
  auto uploads = sent();
  ASSERT_EQ(uploads.size(), 2u);
  EXPECT_EQ(uploads[0].coding, "gzip");
  EXPECT_EQ(uploads[1].coding, std::nullopt);
  EXPECT_EQ(uploads[1].events, uploads[0].events);
  EXPECT_TRUE(sender().mainQueue().empty());
  EXPECT_EQ(fake.log->countContaining("refused a gzip upload body (415)"), 1u);

  add(1);
  trigger(UploadQueueKind::kMain, true);
  uploads = sent();
  ASSERT_EQ(uploads.size(), 1u);
  EXPECT_EQ(uploads[0].coding, std::nullopt);
}

}  // namespace
}  // namespace orvane::testing
