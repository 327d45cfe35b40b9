#include <gtest/gtest.h>

#include <filesystem>

#include "models/ModelDownloader.h"
#include "testutil/Fixtures.h"
#include "testutil/RecordingHttpTransport.h"

namespace orvane {
namespace {

using Answer = testing::RecordingHttpTransport::Answer;

class ModelDownloaderTest : public ::testing::Test {
 protected:
  std::shared_ptr<testing::RecordingHttpTransport> http =
      std::make_shared<testing::RecordingHttpTransport>();
  std::string dir = ::testing::TempDir() + "orvane-downloader";
  std::shared_ptr<ModelDownloader> downloader =
      std::make_shared<ModelDownloader>(http, makePortableModelRuntime(), dir);

  Result<ModelDownloader::Downloaded> fetch(Answer answer) {
    http->script({std::move(answer)});
    return downloader->downloadAndCompileModel("http://127.0.0.1:1/flow.mlmodel");
  }
  static HttpResponse status(int code) { return HttpResponse{code, {}, {}}; }
};

TEST_F(ModelDownloaderTest, CompilesASuccessfulDownloadIntoALoadableFolder) {
  for (int code : {200, 299}) {
    auto result =
        fetch({status(code), std::nullopt, testing::readFixture("coreml/logistic_binary.mlmodel")});
    ASSERT_TRUE(result.ok()) << result.error().description;
    EXPECT_EQ(result->response.statusCode, code);
    EXPECT_TRUE(makePortableModelRuntime()->loadCompiledModel(result->compiledModelPath).ok());
    std::filesystem::remove_all(result->compiledModelPath);
  }
}

TEST_F(ModelDownloaderTest, FailuresCarryTheirOwnTexts) {
  struct Case {
    Answer answer;
    const char* domain;
    const char* description;
  };
  const Case cases[] = {
      {{status(199), std::nullopt, "x"}, DownloadError::kDomain, "Unexpected status code: 199"},
      {{status(300), std::nullopt, "x"}, DownloadError::kDomain, "Unexpected status code: 300"},
      {{status(404), PlatformError{kUrlErrorDomain, -1001, "timed out"}, "x"},
       kUrlErrorDomain,
       "timed out"},  // a transport error wins over the status
      {{std::nullopt, std::nullopt, "x"}, DownloadError::kDomain, "No response received."},
      {{status(200), std::nullopt, std::nullopt},
       DownloadError::kDomain,
       "Unknown download error."},
  };
  for (const auto& c : cases) {
    auto result = fetch(c.answer);
    ASSERT_FALSE(result.ok());
    EXPECT_EQ(result.error().domain, c.domain);
    EXPECT_EQ(result.error().description, c.description);
  }
  auto garbage = fetch({status(200), std::nullopt, "not a model"});
  ASSERT_FALSE(garbage.ok());
  EXPECT_EQ(garbage.error().code, DownloadError::kCompilationFailed);
  EXPECT_EQ(garbage.error().description.rfind("Failed to compile model: ", 0), 0u);
}

}  // namespace
}  // namespace orvane
