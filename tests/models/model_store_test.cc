#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "config/RemoteConfiguration.h"
#include "coreml/proto/coreml_model.pb.h"
#include "models/CoreMLModelManager.h"
#include "testutil/FakePlatform.h"
#include "testutil/Fixtures.h"
#include "testutil/ManagerHelpers.h"
#include "testutil/RecordingHttpTransport.h"

namespace orvane {
namespace {

namespace fs = std::filesystem;
using Answer = testing::RecordingHttpTransport::Answer;
using Flows = std::map<std::string, ServerModelInfo>;

constexpr const char* kFixtureVersion = "upsell-demo-2024.06.1";

std::string fixtureBytes() { return testing::readFixture("coreml/upsell_signals.mlmodel"); }

// The delivered model under another version: the version string has the same length, so
// only its last character changes in the file.
std::string modelWithVersion(const std::string& version) {
  std::string bytes = fixtureBytes();
  const size_t at = bytes.find(kFixtureVersion);
  EXPECT_NE(at, std::string::npos);
  EXPECT_EQ(version.size(), std::string(kFixtureVersion).size());
  bytes.replace(at, version.size(), version);
  return bytes;
}

// The delivered model as a converter's defaults leave it, under `version`: `change` turns it
// into a form the decision cannot read or the runtime never runs.
std::string convertedModel(const std::string& version,
                           const std::function<void(coreml::schema::Model&)>& change) {
  coreml::schema::Model m;
  EXPECT_TRUE(m.ParseFromString(fixtureBytes()));
  m.mutable_description()->mutable_metadata()->set_versionstring(version);
  change(m);
  return m.SerializeAsString();
}
void integerLabels(coreml::schema::Model& m) {
  auto* labels = m.mutable_treeensembleclassifier()->mutable_int64classlabels();
  labels->add_vector(0);
  labels->add_vector(1);
  for (auto& output : *m.mutable_description()->mutable_output()) {
    if (output.name() == "classLabel") output.mutable_type()->mutable_int64type();
    if (output.name() == "classProbability") {
      output.mutable_type()->mutable_dictionarytype()->mutable_int64keytype();
    }
  }
}

// The local file system with a free-space reading the test chooses.
class SizedFileSystem : public FileSystem {
 public:
  explicit SizedFileSystem(std::string root) : root_(root), local_(makeLocalFileSystem(root)) {}
  std::optional<uint64_t> capacity = uint64_t{1} << 40;

  std::string applicationSupportDirectory() const override {
    return local_->applicationSupportDirectory();
  }
  // Under the test's own root: the process-wide folder is named by process id, and a folder an
  // earlier process of the same id left there would look like this test's leftover.
  std::string temporaryDirectory() const override {
    const std::string folder = root_ + "/tmp";
    local_->createDirectories(folder);
    return folder;
  }
  bool exists(const std::string& p) const override { return local_->exists(p); }
  bool isDirectory(const std::string& p) const override { return local_->isDirectory(p); }
  bool createDirectories(const std::string& p) override { return local_->createDirectories(p); }
  bool copy(const std::string& a, const std::string& b) override { return local_->copy(a, b); }
  bool move(const std::string& a, const std::string& b) override { return local_->move(a, b); }
  bool remove(const std::string& p) override { return local_->remove(p); }
  bool createHardLink(const std::string& a, const std::string& b) override {
    return local_->createHardLink(a, b);
  }
  std::optional<double> modificationDate(const std::string& p) const override {
    return local_->modificationDate(p);
  }
  bool setModificationDate(const std::string& p, double t) override {
    return local_->setModificationDate(p, t);
  }
  std::optional<std::vector<std::string>> list(const std::string& p) const override {
    return local_->list(p);
  }
  std::optional<std::vector<uint8_t>> readFile(const std::string& p) const override {
    return local_->readFile(p);
  }
  bool writeFile(const std::string& p, const std::vector<uint8_t>& b) override {
    return local_->writeFile(p, b);
  }
  std::optional<uint64_t> availableCapacity(const std::string&) const override { return capacity; }

 private:
  std::string root_;
  std::shared_ptr<FileSystem> local_;
};

ServerModelInfo modelEntry(const std::string& version) {
  return {false,   "http://127.0.0.1:9/models/" + version + ".mlmodel",
          version, 0.4,
          {},      {},
          0.1,     5,
          false,   {}};
}
ServerModelInfo controlEntry(double chance) {
  return {true, {}, {}, {}, {}, {}, chance, 3, true, {}};
}

Answer served(const std::string& bytes) { return {HttpResponse{200, {}, {}}, std::nullopt, bytes}; }

ServerUpdatePayload update(int64_t version, Flows flows) {
  ServerUpdatePayload payload;
  payload.version = version;
  payload.modelInfoPerFlow = std::move(flows);
  return payload;
}

class ModelStoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root = ::testing::TempDir() + "orvane-store-" +
           ::testing::UnitTest::GetInstance()->current_test_info()->name();
    fs::remove_all(root);
    files = std::make_shared<SizedFileSystem>(root);
    remote = std::make_unique<RemoteConfiguration>(
        defaults, [this]() -> ErrorReporter& { return reporter; }, nullptr);
    store = makeStore();
  }

  // With `runtime`, updates run inline on the caller's thread.
  std::unique_ptr<CoreMLModelManager> makeStore(std::map<std::string, FlowInfo> builtIn = {},
                                                std::string bundled = "",
                                                std::shared_ptr<ModelRuntime> runtime = nullptr) {
    CoreMLModelManager::Dependencies deps;
    deps.defaults = defaults;
    deps.fileSystem = files;
    deps.modelRuntime = runtime ? runtime : makePortableModelRuntime();
    deps.http = http;
    deps.crypto = fake.platform.crypto;
    deps.dateProvider = date;
    deps.log = fake.log;
    if (!runtime) deps.updatingQueue = fake.executors->makeSerialQueue("models");
    deps.errorReporter = [this]() -> ErrorReporter& { return reporter; };
    deps.remoteConfiguration = [this]() -> RemoteConfiguration& { return *remote; };
    deps.bundleIdentifier = "com.example.host";
    deps.sdkVersion = "5.13.0";
    deps.bundledModelsFolder = std::move(bundled);
    deps.builtInFlows = std::move(builtIn);
    return std::make_unique<CoreMLModelManager>(std::move(deps));
  }

  void apply(ServerUpdatePayload payload) {
    store->applyModelUpdates(std::move(payload));
    fake.drain();
  }
  std::string models() const { return root + "/Application Support/ctx_models"; }
  // Compile folders a download left behind.
  std::vector<std::string> leftoverCompileFolders() const {
    std::vector<std::string> left;
    for (const auto& e : fs::directory_iterator(files->temporaryDirectory())) {
      if (e.path().filename().string().starts_with("compiled-")) left.push_back(e.path());
    }
    return left;
  }
  std::optional<int64_t> stored(const char* key) const { return defaults->integer(key); }

  testing::FakePlatform fake;
  std::string root;
  std::shared_ptr<SizedFileSystem> files;
  std::shared_ptr<testing::RecordingHttpTransport> http =
      std::make_shared<testing::RecordingHttpTransport>();
  testing::RecordingErrorReporter reporter;
  std::shared_ptr<UserDefaultsProvider> defaults = std::make_shared<UserDefaultsProvider>(
      fake.platform.keyValueStores->openSuite("com.orvane.ads"));
  std::shared_ptr<StubDateProvider> date = std::make_shared<StubDateProvider>(Date{1.7e9});
  std::unique_ptr<RemoteConfiguration> remote;
  std::unique_ptr<CoreMLModelManager> store;
};

TEST_F(ModelStoreTest, AppliedPayloadPlacesSharedModelAndServesIt) {
  ServerUpdatePayload payload =
      update(3, {{"upsell", modelEntry(kFixtureVersion)}, {"paywall", controlEntry(0.25)}});
  payload.generationId = "gen-3";
  payload.assignmentId = "assign-a";
  payload.configuration = ServerConfiguration{};
  payload.configuration->automaticEntryPointPollingIntervalSeconds = 77;
  http->script({served(fixtureBytes())});
  apply(payload);

  EXPECT_TRUE(reporter.reports().empty()) << reporter.reports()[0].message;
  EXPECT_EQ(stored("ota_last_applied_version"), 3);
  EXPECT_EQ(stored("ota_last_attempted_version"), 3);
  EXPECT_EQ(defaults->string("ota_last_applied_generation_id"), "gen-3");
  EXPECT_EQ(remote->getConfiguration().automaticEntryPointPollingIntervalSeconds, 77);

  // One copy on disk, reachable from the flow and from the shared folder.
  const std::string own = models() + "/upsell/" + kFixtureVersion + ".mlmodelc/model.mlmodel";
  const std::string shared =
      models() + "/__shared_models__/" + kFixtureVersion + ".mlmodelc/model.mlmodel";
  ASSERT_TRUE(fs::exists(own));
  EXPECT_TRUE(fs::equivalent(own, shared));

  CustomModelInfo upsell = store->getModelInfoForFlow("upsell");
  EXPECT_FALSE(upsell.isControl);
  EXPECT_EQ(upsell.modelVersion, kFixtureVersion);
  EXPECT_EQ(upsell.supportedDuration, 5);  // from the model's own metadata
  auto* execution =
      dynamic_cast<const CoreMLModelExecutionInformation*>(upsell.executionInformation.get());
  ASSERT_NE(execution, nullptr);
  EXPECT_DOUBLE_EQ(execution->modelThresholds().upsellThreshold, 0.4);
  EXPECT_DOUBLE_EQ(execution->randomUpsellChance(), 0.1);
  ASSERT_TRUE(execution->coreMLModelMetadata().mappings);

  CustomModelInfo paywall = store->getModelInfoForFlow("paywall");
  EXPECT_TRUE(paywall.isControl && paywall.useInstantContext);
  EXPECT_EQ(paywall.supportedDuration, 3);
  EXPECT_DOUBLE_EQ(paywall.executionInformation->randomUpsellChance(), 0.25);

  EXPECT_EQ(store->allSignals(),
            (SignalList{SignalInt(SignalEnum::id(402), 3), SignalInt(SignalEnum::id(406), 3),
                        SignalString(SignalEnum::id(403), "gen-3"),
                        SignalString(SignalEnum::id(427), "assign-a"),
                        SignalBool(SignalEnum::id(503), true)}));

  // A second flow on the same version uses the shared copy: nothing is downloaded.
  apply(update(4, {{"home", modelEntry(kFixtureVersion)}}));
  EXPECT_EQ(http->requests().size(), 1u);
  EXPECT_TRUE(
      fs::equivalent(models() + "/home/" + kFixtureVersion + ".mlmodelc/model.mlmodel", shared));
  EXPECT_EQ(store->getCurrentAppliedGenerationId(), "ota-4");  // the key was removed
  EXPECT_EQ(store->getCurrentAppliedAssignmentId(), "");

  // An erase removes every downloaded model, shared copies included.
  store->eraseAll();
  fake.drain();
  EXPECT_FALSE(fs::exists(models() + "/upsell"));
  EXPECT_FALSE(fs::exists(models() + "/home"));
  EXPECT_FALSE(fs::exists(shared));
}

TEST_F(ModelStoreTest, NothingNewerChangesNothing) {
  defaults->set("ota_last_applied_version", int64_t{5});
  apply(update(5, {{"upsell", controlEntry(1)}}));
  EXPECT_FALSE(defaults->object("ota_last_attempted_version"));
  EXPECT_FALSE(defaults->object("model_info_for_flow_upsell"));
  // Installations from before attempts were recorded report the applied version.
  EXPECT_EQ(store->getCurrentAttemptedVersion(), 5);
  EXPECT_EQ(stored("ota_last_attempted_version"), 5);
}

TEST_F(ModelStoreTest, FailedFlowKeepsTheAppliedVersionUntilTheRetrySucceeds) {
  defaults->set("ota_last_applied_generation_id", std::string("gen-1"));
  ServerUpdatePayload payload =
      update(2, {{"a", controlEntry(0.5)}, {"b", modelEntry(kFixtureVersion)}});
  payload.generationId = "gen-2";
  http->script({{HttpResponse{404, {}, {}}, std::nullopt, "not found"}});
  apply(payload);

  EXPECT_EQ(stored("ota_last_attempted_version"), 2);
  EXPECT_FALSE(stored("ota_last_applied_version"));
  EXPECT_EQ(defaults->string("ota_last_applied_generation_id"), "gen-1");
  ASSERT_EQ(reporter.count("Failed to load recently downloaded CoreML model."), 1u);
  const testing::RecordedReport report = reporter.reports()[0];
  EXPECT_EQ(report.error->description, "Unexpected status code: 404");
  EXPECT_EQ(report.additionalData,
            (PlistDictionary{{"modelUrl", *modelEntry(kFixtureVersion).modelUrl},
                             {"flowName", "b"},
                             {"modelVersion", kFixtureVersion}}));
  EXPECT_TRUE(store->getModelInfoForFlow("b").isControl);  // nothing stored for b

  http->script({served(fixtureBytes())});
  apply(payload);
  EXPECT_EQ(stored("ota_last_applied_version"), 2);
  EXPECT_EQ(defaults->string("ota_last_applied_generation_id"), "gen-2");
  EXPECT_FALSE(store->getModelInfoForFlow("b").isControl);  // the cache entry was dropped
}

TEST_F(ModelStoreTest, EntriesThatAreNeitherModelNorControl) {
  ServerModelInfo badUrlControl = controlEntry(0.5);
  badUrlControl.modelUrl = "not a url";
  badUrlControl.modelVersion = "v";
  ServerModelInfo noVersion = modelEntry("x");
  noVersion.modelVersion.reset();
  apply(update(1, {{"control", badUrlControl}, {"empty", {}}, {"half", noVersion}}));

  EXPECT_TRUE(store->getModelInfoForFlow("control").executionInformation);
  EXPECT_EQ(store->getModelInfoForFlow("control").modelVersion, "v");
  ASSERT_EQ(reporter.count("Received neither a valid model nor control."), 2u);
  EXPECT_EQ(reporter.reports()[0].additionalData,
            (PlistDictionary{{"modelUrl", "no url"}, {"isControl", false}, {"modelVersion", ""}}));
  EXPECT_EQ((*reporter.reports()[1].additionalData)["modelUrl"], PlistValue(*noVersion.modelUrl));
  EXPECT_TRUE(http->requests().empty());
  EXPECT_FALSE(stored("ota_last_applied_version"));
}

TEST_F(ModelStoreTest, DownloadNeedsAHundredMebibytesFree) {
  files->capacity = 104857599;
  apply(update(1, {{"upsell", modelEntry(kFixtureVersion)}}));
  ASSERT_EQ(reporter.reports().size(), 1u);
  EXPECT_EQ(reporter.reports()[0].error->domain, "CoreMLModelManager");
  EXPECT_EQ(reporter.reports()[0].error->code, 123);
  EXPECT_TRUE(http->requests().empty());

  files->capacity = 104857600;
  http->script({served(fixtureBytes())});
  apply(update(2, {{"upsell", modelEntry(kFixtureVersion)}}));
  EXPECT_EQ(stored("ota_last_applied_version"), 2);

  // An unreadable free space is reported and does not block the update.
  files->capacity.reset();
  http->script({served(modelWithVersion("upsell-demo-2024.06.2"))});
  apply(update(3, {{"other", modelEntry("upsell-demo-2024.06.2")}}));
  EXPECT_EQ(reporter.count("Failed to get free space"), 1u);
  EXPECT_EQ(stored("ota_last_applied_version"), 3);
}

TEST_F(ModelStoreTest, MismatchedOrBrokenDownloadsAreRejectedAndRemoved) {
  std::string noMetadata = modelWithVersion("upsell-demo-2024.06.9");
  noMetadata.replace(noMetadata.find("supportedDuration"), 17, "supportedDuratiox");
  http->script({served(fixtureBytes()), served(noMetadata), served("garbage")});
  for (const char* expected : {"Version stored in Model does not match reported version.",
                               "supportedDuration", "Failed to compile model: "}) {
    reporter.clear();
    apply(update(1, {{"upsell", modelEntry("upsell-demo-2024.06.9")}}));
    ASSERT_EQ(reporter.reports().size(), 1u);
    EXPECT_NE(reporter.reports()[0].error->description.find(expected), std::string::npos)
        << reporter.reports()[0].error->description;
    EXPECT_FALSE(fs::exists(models() + "/upsell/upsell-demo-2024.06.9.mlmodelc"));
    EXPECT_FALSE(fs::exists(models() + "/__shared_models__/upsell-demo-2024.06.9.mlmodelc"));
  }
}

TEST_F(ModelStoreTest, CleanupKeepsTheThreeNewestOfEachFolder) {
  const std::string flow = models() + "/upsell";
  const double ages[] = {40, 20, 50, 10, 30};  // v3 is the newest, then v1, v4, v0, v2
  for (int i = 0; i < 5; ++i) {
    const std::string entry = flow + "/v" + std::to_string(i) + ".mlmodelc";
    fs::create_directories(entry);
    files->setModificationDate(entry, 1.7e9 - ages[i]);
  }
  fs::create_directories(models() + "/small/a.mlmodelc");
  store->files().cleanupOldModels();
  std::set<std::string> left;
  for (const auto& e : fs::directory_iterator(flow)) left.insert(e.path().filename().string());
  EXPECT_EQ(left, (std::set<std::string>{"v3.mlmodelc", "v1.mlmodelc", "v4.mlmodelc"}));
  EXPECT_TRUE(fs::exists(models() + "/small/a.mlmodelc"));
}

TEST_F(ModelStoreTest, HourlyTableMustBeSevenByTwentyFour) {
  std::vector<std::vector<double>> table(7, std::vector<double>(24, 0.5));
  EXPECT_TRUE(store->validateHourlyUpsellThreshold(table));
  table[3].pop_back();
  EXPECT_FALSE(store->validateHourlyUpsellThreshold(table));
  table[3].resize(30, 0.5);  // longer rows are fine as long as the shortest has 24
  EXPECT_TRUE(store->validateHourlyUpsellThreshold(table));
  table.pop_back();
  EXPECT_FALSE(store->validateHourlyUpsellThreshold(table));
  ASSERT_EQ(reporter.count("Failed to parse hourly upsell thresholds."), 2u);
  EXPECT_EQ(reporter.reports()[0].additionalData,
            (PlistDictionary{{"days", int64_t{7}}, {"hours", int64_t{23}}}));
  EXPECT_EQ(reporter.reports()[1].additionalData,
            (PlistDictionary{{"days", int64_t{6}}, {"hours", int64_t{24}}}));
}

TEST_F(ModelStoreTest, DisabledDecisionsTurnEveryFlowIntoAControlOfItsOwnVersion) {
  // SHA-1("com.example.hostupsell5false"), first 16 bytes, the first two set to 0xCC.
  EXPECT_EQ(store->controlModelVersion("upsell", 5, false), "CCCCA554-8802-0B63-FBE4-00BA850AEED5");
  http->script({served(fixtureBytes())});
  apply(update(1, {{"upsell", modelEntry(kFixtureVersion)}, {"paywall", controlEntry(0.25)}}));
  ASSERT_FALSE(store->getModelInfoForFlow("upsell").isControl);

  store->setDecisionsEnabled(false);
  for (const char* flow : {"upsell", "paywall"}) {
    CustomModelInfo info = store->getModelInfoForFlow(flow);
    EXPECT_TRUE(info.isControl) << flow;
    EXPECT_DOUBLE_EQ(info.executionInformation->randomUpsellChance(), 1.0) << flow;
    EXPECT_TRUE(info.modelVersion.starts_with("CCCC")) << info.modelVersion;
  }
  EXPECT_EQ(store->getModelInfoForFlow("upsell").modelVersion,
            store->controlModelVersion("upsell", 5, false));
  EXPECT_EQ(store->allSignals().back(), SignalBool(SignalEnum::id(503), false));
}

TEST_F(ModelStoreTest, BrokenStoredStateFallsBackAndClearsTheFlow) {
  http->script({served(fixtureBytes())});
  apply(update(1, {{"upsell", modelEntry(kFixtureVersion)}}));
  ASSERT_EQ(stored("ota_last_applied_version"), 1);

  // Files gone while the record stays: the flow is cleared so the next payload restores it.
  store->setDecisionsEnabled(true);  // empties the cache
  fs::remove_all(models());
  CustomModelInfo info = store->getModelInfoForFlow("upsell");
  EXPECT_TRUE(info.isControl);
  EXPECT_FALSE(info.executionInformation);
  EXPECT_EQ(reporter.count("Couldn't find any working model files for flow with saved model info"),
            1u);
  EXPECT_FALSE(defaults->object("model_info_for_flow_upsell"));
  EXPECT_FALSE(defaults->object("ota_last_applied_version"));

  defaults->set("model_info_for_flow_a", Bytes{'{', 'x'});
  defaults->set("model_info_for_flow_b", std::string("{\"isControl\":false}"));  // not data
  testing::storeFlowRecord(*defaults, "c",
                           R"({"isControl":false,"modelVersion":"v","randomUpsellChance":1})");
  testing::storeFlowRecord(*defaults, "d", R"({"is_control":true,"supported_duration":3})");
  for (const char* flow : {"a", "b", "c", "d"}) {
    CustomModelInfo fallback = store->getModelInfoForFlow(flow);
    EXPECT_TRUE(fallback.isControl && !fallback.executionInformation) << flow;
  }
  EXPECT_EQ(reporter.count("Failed to parse stored JSON"), 1u);
  EXPECT_EQ(reporter.count("Stored JSON was missing required parameters"), 1u);
  EXPECT_EQ(reporter.count("Encountered information for control group with missing supported "
                           "duration or instant context."),
            1u);
}

TEST_F(ModelStoreTest, StoredAnswersAreCachedAndServedOnlyForTheirDuration) {
  testing::storeFlowRecord(*defaults, "f", testing::controlRecord(0.5, 3));
  EXPECT_EQ(store->getModelInfoForFlow("f").supportedDuration, 3);
  defaults->remove("model_info_for_flow_f");
  EXPECT_EQ(store->getModelInfoForFlow("f").supportedDuration, 3);  // from the cache
  EXPECT_EQ(
      store->getModelInfoForFlowValidatingDurationAndCallType("f", 3, false).supportedDuration, 3);

  // Another duration falls to always-upsell, with a pointer to optimize().
  CustomModelInfo other = store->getModelInfoForFlowValidatingDurationAndCallType("f", 5, false);
  EXPECT_FALSE(other.executionInformation);
  EXPECT_EQ(other.supportedDuration, 0);
  EXPECT_EQ(fake.log->count("[Orvane] You already have a custom model for f, you should use "
                            "ContextManager.optimize(\u2026) instead to act on Orvane's "
                            "recommendations:"),
            1u);
  EXPECT_EQ(fake.log->count("ContextManager.optimize(customModel: .[yourModelNameHere], ...)"), 1u);

  apply(update(1, {{"f", controlEntry(0.75)}}));  // rewriting the flow replaces the cached answer
  EXPECT_DOUBLE_EQ(store->getModelInfoForFlow("f").executionInformation->randomUpsellChance(),
                   0.75);
}

TEST_F(ModelStoreTest, FlowNamesFromTheNetworkStayInsideTheModelsFolder) {
  http->script({served(fixtureBytes())});
  apply(update(1, {{"../escape", modelEntry(kFixtureVersion)}}));
  EXPECT_EQ(reporter.count("Failed to load recently downloaded CoreML model."), 1u);
  EXPECT_EQ(reporter.reports()[0].error->domain, "copyCoreMLModel");
  EXPECT_FALSE(fs::exists(root + "/Application Support/escape"));
  EXPECT_FALSE(stored("ota_last_applied_version"));
}

TEST_F(ModelStoreTest, IdentifiersWithoutUpdatesAndBundledModels) {
  EXPECT_EQ(store->getCurrentAppliedGenerationId(), "calibration");
  EXPECT_EQ(store->getCurrentAttemptedVersion(), 0);
  EXPECT_FALSE(defaults->object("ota_last_attempted_version"));

  const std::string bundled = root + "/resources";
  std::ofstream(root + "/" + kFixtureVersion + ".mlmodel", std::ios::binary) << fixtureBytes();
  ASSERT_TRUE(makePortableModelRuntime()
                  ->compileModel(root + "/" + kFixtureVersion + ".mlmodel", bundled)
                  .ok());
  store = makeStore({{"builtin", FlowInfo{kFixtureVersion, 0.3, 0.0, {}, {}}},
                     {"missing", FlowInfo{"upsell-demo-2024.06.7", 0.3, 0.0, {}, {}}}},
                    bundled);
  EXPECT_EQ(store->getCurrentAppliedGenerationId(), "bundled-5.13.0");
  CustomModelInfo builtin = store->getModelInfoForFlow("builtin");
  EXPECT_FALSE(builtin.isControl);
  EXPECT_EQ(builtin.modelVersion, kFixtureVersion);
  EXPECT_TRUE(store->getModelInfoForFlow("missing").isControl);
  EXPECT_EQ(reporter.count("Failed to fetch CoreML model from bundle."), 1u);

  defaults = std::make_shared<UserDefaultsProvider>(nullptr);
  store = makeStore();
  EXPECT_EQ(store->getCurrentAppliedGenerationId(), "calibration");
  EXPECT_EQ(store->allSignals()[0], SignalInt(SignalEnum::id(402), 0));
  apply(ServerUpdatePayload{});  // nothing to store into: ignored
  EXPECT_TRUE(store->getModelInfoForFlow("x").isControl);
}

}  // namespace
}  // namespace orvane

namespace orvane {
namespace {

TEST_F(ModelStoreTest, RefusedVersionsAreRememberedAndNotDownloadedAgain) {
  const std::string refusedVersion = "converted-1";
  http->script({served(convertedModel(refusedVersion, integerLabels))});
  apply(update(1, {{"upsell", modelEntry(refusedVersion)}}));
  ASSERT_EQ(reporter.count("Failed to load recently downloaded CoreML model."), 1u);
  const PlatformError refusal = *reporter.reports()[0].error;
  EXPECT_EQ(refusal.domain, "CoreMLModelManager");
  EXPECT_EQ(refusal.code, 5);
  EXPECT_NE(refusal.description.find("integers"), std::string::npos) << refusal.description;
  EXPECT_FALSE(fs::exists(models() + "/upsell/converted-1.mlmodelc"));
  EXPECT_TRUE(leftoverCompileFolders().empty());
  EXPECT_TRUE(store->getModelInfoForFlow("upsell").isControl);

  // The next answers name the same version: nothing is fetched or reported, in this process
  // or the next, and the payload stays unapplied.
  reporter.clear();
  apply(update(1, {{"upsell", modelEntry(refusedVersion)}}));
  store = makeStore();
  apply(update(1, {{"upsell", modelEntry(refusedVersion)}}));
  EXPECT_EQ(http->requests().size(), 1u);
  EXPECT_TRUE(reporter.reports().empty());
  EXPECT_FALSE(stored("ota_last_applied_version"));
  // Another flow is not bound by this flow's refusals.
  EXPECT_FALSE(store->refusedVersions().isRefused("home", refusedVersion));

  // A different version is tried, and a good one installs.
  http->script({served(fixtureBytes())});
  apply(update(2, {{"upsell", modelEntry(kFixtureVersion)}}));
  EXPECT_EQ(stored("ota_last_applied_version"), 2);
  EXPECT_FALSE(store->getModelInfoForFlow("upsell").isControl);
  EXPECT_TRUE(leftoverCompileFolders().empty());
}

TEST_F(ModelStoreTest, ModelsTheRuntimeNeverRunsAreRefusedButBrokenDownloadsAreRetried) {
  const auto newer = [](coreml::schema::Model& m) { m.set_specificationversion(10); };
  const auto otherKind = [](coreml::schema::Model& m) { m.mutable_mlprogram(); };
  http->script({served(convertedModel("newer-1", newer)),
                served(convertedModel("kind-1", otherKind)), served("garbage"), served("garbage")});
  apply(update(
      1,
      {{"a", modelEntry("newer-1")}, {"b", modelEntry("kind-1")}, {"c", modelEntry("broken-1")}}));
  ASSERT_EQ(reporter.count("Failed to load recently downloaded CoreML model."), 3u);
  for (const auto& report : reporter.reports()) {
    EXPECT_EQ(report.error->domain, "ModelDownloader.DownloadError");
    EXPECT_TRUE(report.error->description.starts_with("Failed to compile model: "));
  }
  EXPECT_TRUE(store->refusedVersions().isRefused("a", "newer-1"));
  EXPECT_TRUE(store->refusedVersions().isRefused("b", "kind-1"));
  EXPECT_FALSE(store->refusedVersions().isRefused("c", "broken-1"));
  EXPECT_TRUE(leftoverCompileFolders().empty());

  apply(update(
      1,
      {{"a", modelEntry("newer-1")}, {"b", modelEntry("kind-1")}, {"c", modelEntry("broken-1")}}));
  ASSERT_EQ(http->requests().size(), 4u);  // only the broken file is fetched again
  EXPECT_NE(http->requests().back().url.find("broken-1"), std::string::npos);
}

TEST_F(ModelStoreTest, AStoredModelThatCannotDecideFallsToTheControlRule) {
  http->script({served(fixtureBytes())});
  apply(update(1, {{"upsell", modelEntry(kFixtureVersion)}}));
  ASSERT_FALSE(store->getModelInfoForFlow("upsell").isControl);

  // What an earlier install left: the same version with integer labels, in both places.
  const std::string source = root + "/" + kFixtureVersion + ".mlmodel";
  std::ofstream(source, std::ios::binary) << convertedModel(kFixtureVersion, integerLabels);
  auto runtime = makePortableModelRuntime();
  ASSERT_TRUE(runtime->compileModel(source, models() + "/upsell").ok());
  ASSERT_TRUE(runtime->compileModel(source, models() + "/__shared_models__").ok());
  store->setDecisionsEnabled(true);  // empties the cache

  CustomModelInfo info = store->getModelInfoForFlow("upsell");
  EXPECT_TRUE(info.isControl);
  EXPECT_FALSE(info.executionInformation);
  // Refused once, with its reason; the shared copy of the same version is not tried.
  ASSERT_EQ(reporter.count("Failed to load CoreML Model"), 1u);
  EXPECT_NE(reporter.reports()[0].error->description.find("integers"), std::string::npos);
  EXPECT_TRUE(store->refusedVersions().isRefused("upsell", kFixtureVersion));

  // The flow was cleared so that the payload applies again, and it does, without a download.
  apply(update(1, {{"upsell", modelEntry(kFixtureVersion)}}));
  EXPECT_EQ(http->requests().size(), 1u);
  EXPECT_TRUE(store->getModelInfoForFlow("upsell").isControl);
}

// A runtime that runs `beforeLoad` once, as the next model load begins.
class HookedRuntime : public ModelRuntime {
 public:
  std::function<void()> beforeLoad;
  coreml::Result<std::string> compileModel(const std::string& file,
                                           const std::string& folder) override {
    return inner_->compileModel(file, folder);
  }
  coreml::Result<std::shared_ptr<const LoadedModel>> loadCompiledModel(
      const std::string& folder) override {
    if (auto hook = std::exchange(beforeLoad, nullptr)) hook();
    return inner_->loadCompiledModel(folder);
  }

 private:
  std::shared_ptr<ModelRuntime> inner_ = makePortableModelRuntime();
};

TEST_F(ModelStoreTest, AReadThatRacedARewriteDoesNotCacheTheOldAnswer) {
  auto runtime = std::make_shared<HookedRuntime>();
  store = makeStore({}, "", runtime);
  http->script({served(fixtureBytes())});
  store->applyModelUpdates(update(1, {{"upsell", modelEntry(kFixtureVersion)}}));
  store->setDecisionsEnabled(true);  // empties the cache

  // The reader has read the model record and is loading its file when the flow turns into a
  // control flow.
  runtime->beforeLoad = [&] {
    store->applyModelUpdates(update(2, {{"upsell", controlEntry(0.5)}}));
  };
  EXPECT_FALSE(store->getModelInfoForFlow("upsell").isControl);  // read before the rewrite
  CustomModelInfo after = store->getModelInfoForFlow("upsell");
  EXPECT_TRUE(after.isControl);
  EXPECT_DOUBLE_EQ(after.executionInformation->randomUpsellChance(), 0.5);
}

TEST_F(ModelStoreTest, ConcurrentReadsNeverOutliveTheLastRewrite) {
  store = makeStore({}, "", makePortableModelRuntime());

  constexpr int kRewrites = 200;
  std::atomic<bool> done{false};
  std::thread reader([&] {
    while (!done.load()) store->getModelInfoForFlow("f");
  });
  for (int i = 1; i <= kRewrites; ++i) {
    store->applyModelUpdates(update(i, {{"f", controlEntry(i / 1000.0)}}));
  }
  done.store(true);
  reader.join();
  EXPECT_DOUBLE_EQ(store->getModelInfoForFlow("f").executionInformation->randomUpsellChance(),
                   kRewrites / 1000.0);
}

}  // namespace
}  // namespace orvane
