#include <gtest/gtest.h>

#include "logging/NanoIDGenerator.h"
#include "testutil/FakePlatform.h"

namespace orvane {
namespace {

using testing::FakeRandomSource;

// A source whose secure bytes follow a script: a value, or -1 for a failed call.
class ScriptedSecureSource : public FakeRandomSource {
 public:
  explicit ScriptedSecureSource(std::vector<int> script) : script_(std::move(script)) {}
  bool secureBytes(std::span<uint8_t> out) override {
    const int next = position_ < script_.size() ? script_[position_++] : script_.back();
    if (next < 0) return false;
    for (auto& b : out) b = static_cast<uint8_t>(next);
    return true;
  }

 private:
  std::vector<int> script_;
  size_t position_ = 0;
};

bool inAlphabet(const std::string& id) {
  return id.find_first_not_of(NanoIDGenerator::kAlphabet) == std::string::npos;
}

TEST(NanoIDTest, HealthySourceGivesSeventeenAlphabetCharactersWithoutReports) {
  testing::RecordingErrorReporter reporter;
  auto random = makeSystemRandomSource();
  for (int i = 0; i < 50; ++i) {
    const std::string id = NanoIDGenerator::generateTavelNanoID(*random, reporter);
    EXPECT_EQ(id.size(), 17u);
    EXPECT_TRUE(inAlphabet(id)) << id;
  }
  EXPECT_TRUE(reporter.reports().empty());
}

TEST(NanoIDTest, RejectedDrawsAreRedrawnAndLowBitsPickTheCharacter) {
  testing::RecordingErrorReporter reporter;
  ScriptedSecureSource random({200, 255, 191, 0, 63, 64, 65});
  EXPECT_EQ(NanoIDGenerator::generateSecureUnbiasedByte(random, reporter), 191);
  const std::string id = NanoIDGenerator::generateTavelNanoID(random, reporter);
  EXPECT_EQ(id.substr(0, 4), "A-AB");  // 0, 63, 64 % 64, 65 % 64
  EXPECT_TRUE(reporter.reports().empty());
}

TEST(NanoIDTest, AllOnesSourceFallsBackCryptographicallyPerCharacter) {
  testing::RecordingErrorReporter reporter;
  FakeRandomSource random;
  random.setSecureMode(FakeRandomSource::SecureMode::kAllOnes);
  EXPECT_EQ(NanoIDGenerator::generateTavelNanoID(random, reporter), std::string(17, '-'));
  const auto reports = reporter.reports();
  ASSERT_EQ(reports.size(), 17u);
  for (const auto& r : reports) {
    EXPECT_EQ(r.message, "NanoID rejection sampling exceeded max retries, used crypto fallback");
    EXPECT_FALSE(r.error);
    EXPECT_EQ(*r.additionalData,
              (PlistDictionary{{"retryCount", "10"}, {"fallbackMethod", "cryptographic"}}));
  }
}

TEST(NanoIDTest, FailingSourceReportsEachStage) {
  testing::RecordingErrorReporter reporter;
  ScriptedSecureSource onceFailing({-1, 7});  // first call fails, the fallback draw succeeds
  EXPECT_EQ(NanoIDGenerator::generateSecureUnbiasedByte(onceFailing, reporter), 7);
  auto reports = reporter.reports();
  ASSERT_EQ(reports.size(), 2u);
  EXPECT_EQ(reports[0].message, "SecRandomCopyBytes failed during nano ID generation");
  EXPECT_EQ(*reports[0].additionalData, (PlistDictionary{{"errorCode", "-1"}}));
  EXPECT_EQ(reports[1].additionalData->at("retryCount"), PlistValue("0"));

  testing::RecordingErrorReporter always;
  FakeRandomSource broken;
  broken.setSecureMode(FakeRandomSource::SecureMode::kFail);
  broken.scriptUniform({0.0, 0.999});
  const std::string id = NanoIDGenerator::generateTavelNanoID(broken, always);
  EXPECT_EQ(id.size(), 17u);
  EXPECT_TRUE(inAlphabet(id));
  EXPECT_EQ(always.count("SecRandomCopyBytes failed during nano ID generation"), 17u);
  EXPECT_EQ(always.count("Critical: SecRandomCopyBytes failed in fallback, using pseudorandom"),
            17u);
  EXPECT_EQ(always.reports()[1].additionalData->at("securityImpact"), PlistValue("degraded"));
}

}  // namespace
}  // namespace orvane
