#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "api/Engine.h"
#include "logging/LogDictionaries.h"
#include "logging/LogEncoder.h"
#include "logging/OrvaneLogSender.h"
#include "orvane/Log.h"
#include "testutil/FakePlatform.h"
#include "util/Base64.h"

namespace orvane {
namespace {

class LogRecordTest : public ::testing::Test {
 protected:
  testing::FakePlatform fake;
  std::unique_ptr<Engine> manager = std::make_unique<Engine>(fake.platform);

  std::shared_ptr<Log> makeLog(SignalList signals, CustomSignalList custom = {},
                               CustomSignalList global = {}, CustomSignalList outcome = {},
                               Bytes encoded = {}) {
    return makeEngineLog(std::move(signals), std::move(custom), std::move(global),
                         std::move(outcome), std::move(encoded), manager->weakHandle());
  }
};

TEST_F(LogRecordTest, SendRoutesCreationRecordsAndOutcomes) {
  OrvaneLogSender& sender = manager->orvaneLogSender();
  makeLog({SignalInt(SignalEnum::id(3), -101), SignalString(SignalEnum::id(29), "ctx-a")})->send();
  makeLog({SignalInt(SignalEnum::id(3), -101), SignalString(SignalEnum::id(29), "ctx-b")})->send();
  fake.drain();
  EXPECT_EQ(sender.unloggedQueue().size(), 2u);
  EXPECT_TRUE(sender.mainQueue().empty());

  // An outcome moves its context out of the unlogged queue.
  makeLog({SignalInt(SignalEnum::id(3), 1), SignalString(SignalEnum::id(29), "ctx-a")})->send();
  fake.drain();
  EXPECT_EQ(sender.mainQueue().size(), 1u);
  ASSERT_EQ(sender.unloggedQueue().size(), 1u);
  EXPECT_EQ(sender.unloggedQueue()[0].at("ctx_29"), PlistValue("ctx-b"));

  makeLog({SignalInt(SignalEnum::id(3), -1)})->send();  // no context UUID: no removal
  fake.drain();
  EXPECT_EQ(sender.mainQueue().size(), 2u);
  EXPECT_EQ(sender.unloggedQueue().size(), 1u);

  auto orphan = makeLog({SignalInt(SignalEnum::id(3), 1)});
  manager.reset();
  orphan->send();  // the manager is gone: nothing happens, nothing faults
}

TEST_F(LogRecordTest, AnalyticsPiecesCoverTheBase64Text) {
  Bytes encoded(200);
  for (size_t i = 0; i < encoded.size(); ++i) encoded[i] = static_cast<uint8_t>(i * 7);
  auto log = makeLog({SignalString(SignalEnum::id(1), "5.13.0")}, {}, {}, {}, encoded);
  const std::string b64 = base64Encode(encoded);
  ASSERT_EQ(b64.size(), 268u);

  PlistDictionary dict = log->dictionary();
  EXPECT_EQ(dict.size(), 5u);
  EXPECT_EQ(dict.at("ctx_1"), PlistValue("5.13.0"));
  EXPECT_EQ(dict.at("ctx_400"), PlistValue(int64_t{3}));
  EXPECT_EQ(dict.at("ctx_401"), PlistValue("0_" + b64.substr(0, 96)));
  EXPECT_EQ(dict.at("ctx_402"), PlistValue("1_" + b64.substr(96, 96)));
  EXPECT_EQ(dict.at("ctx_403"), PlistValue("2_" + b64.substr(192)));
  EXPECT_EQ(log->dictionaryWithStaticColumns(), dict);

  auto firebase = log->forFirebase();
  ASSERT_EQ(firebase.size(), 3u);
  EXPECT_EQ(firebase.at("c_sdk_param_0"), "0_" + b64.substr(0, 97));
  EXPECT_EQ(firebase.at("c_sdk_param_2").size(), 2u + 74u);
  EXPECT_EQ(log->toBase64(), b64);
  EXPECT_EQ(log->toData(), encoded);

  auto json = nlohmann::json::parse(log->toJSONString());
  EXPECT_EQ(json["ctx_400"], 3);
  EXPECT_EQ(json["ctx_401"], "0_" + b64.substr(0, 96));

  auto bare = makeLog({});
  EXPECT_EQ(bare->dictionary(), (PlistDictionary{{"ctx_1", "0.0.0"}, {"ctx_400", int64_t{0}}}));
  EXPECT_TRUE(bare->forFirebase().empty());
}

TEST_F(LogRecordTest, FlatFormsResolveRepeatedIdsDifferently) {
  auto log = makeLog({SignalInt(SignalEnum::id(3), 2), SignalFloat(SignalEnum::id(100), 0.5f)},
                     {CustomSignalString("x", "first"), CustomSignalString("x", "second")},
                     {CustomSignalInt("x", 9)}, {CustomSignalBool("o", true)});
  PlistDictionary stored = rawDictionaryWithStaticColumns(*log);
  EXPECT_EQ(stored.at("ctx_3"), PlistValue(int64_t{2}));
  EXPECT_EQ(stored.at("ctx_100"), PlistValue(0.5f));
  EXPECT_EQ(stored.at("ctx_custom_signals"),
            PlistValue(PlistDictionary{{"f_x", "second"}, {"g_x", int64_t{9}}}));
  EXPECT_EQ(stored.at("ctx_outcome_metadata"), PlistValue(PlistDictionary{{"o_o", true}}));

  PlistDictionary flat = rawDictionary(*log, fake.log.get());
  EXPECT_EQ(flat.at("f_x"), PlistValue("first"));
  EXPECT_EQ(flat.at("g_x"), PlistValue(int64_t{9}));
  EXPECT_EQ(flat.at("o_o"), PlistValue(true));
  auto plain = makeLog({SignalInt(SignalEnum::id(3), 2)});
  EXPECT_EQ(rawDictionaryWithStaticColumns(*plain).at("ctx_custom_signals"),
            PlistValue(PlistDictionary{}));
  EXPECT_EQ(rawDictionaryWithStaticColumns(*plain).at("ctx_outcome_metadata"),
            PlistValue(PlistDictionary{}));

  // Each group names itself when an id repeats.
  rawDictionary(*makeLog({}, {}, {CustomSignalInt("g", 1), CustomSignalFloat("g", 2.5f)},
                         {CustomSignalInt("m", 3), CustomSignalInt("m", 4)}),
                fake.log.get());
  for (const char* line :
       {"[Orvane] Custom signal with id x is already set. We're proceeding with the value "
        "'first' for this signal.",
        "[Orvane] Global signal with id g is already set. We're proceeding with the value '1' "
        "for this signal.",
        "[Orvane] Outcome metadata with id m is already set. We're proceeding with the value "
        "'3' for this signal."}) {
    EXPECT_EQ(fake.log->count(line), 1u) << line;
  }
}

TEST_F(LogRecordTest, ManagerDerivesTheLogKeyAtSetup) {
  EXPECT_FALSE(manager->logEncryptionKey());
  manager->setupWith("0123456789abcdef0123456789abcdef", nullptr, std::nullopt, Configuration{});
  EXPECT_EQ(manager->logEncryptionKey(), "0123456789abcdef");
  auto encoded = manager->logEncoder().encodeLog({SignalInt(SignalEnum::id(3), 1)}, {}, {});
  EXPECT_TRUE(encoded.ok());
  const char* kBadKeyLine = "[Orvane] The app key passed to setup cannot be used";
  EXPECT_EQ(fake.log->countContaining(kBadKeyLine), 0u);
  manager->setupWith("short", nullptr, std::nullopt, Configuration{});
  EXPECT_FALSE(manager->logEncoder().encodeLog({}, {}, {}).ok());
  EXPECT_EQ(fake.log->countContaining(kBadKeyLine), 1u);
  // 16 characters, but the first 16 take 17 bytes: as unusable as a short key.
  manager->setupWith(
      "\xC3\xA9"
      "0123456789abcdeXYZ",
      nullptr, std::nullopt, Configuration{});
  EXPECT_FALSE(manager->logEncoder().encodeLog({}, {}, {}).ok());
  EXPECT_EQ(fake.log->countContaining(kBadKeyLine), 2u);
}

}  // namespace
}  // namespace orvane
