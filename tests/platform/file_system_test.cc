#include <unistd.h>

#include <filesystem>

#include <gtest/gtest.h>

#include "orvane/platform/FileSystem.h"

namespace orvane {
namespace {

namespace fs = std::filesystem;

class LocalFileSystemTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root = fs::path(::testing::TempDir()) /
           ("orvane-fs-" + std::to_string(::getpid()) + "-" +
            ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove_all(root);
    fs::create_directories(root);
    files = makeLocalFileSystem((root / "data").string());
  }
  void TearDown() override { fs::remove_all(root); }
  std::string at(const std::string& relative) const { return (root / relative).string(); }

  fs::path root;
  std::shared_ptr<FileSystem> files;
  const std::vector<uint8_t> bytes{1, 2, 3, 0, 255};
};

TEST_F(LocalFileSystemTest, WriteReplacesWholeFilesAndLeavesNoTemporaries) {
  const std::string file = at("model.bin");
  ASSERT_TRUE(files->writeFile(file, bytes));
  ASSERT_TRUE(files->writeFile(file, {9}));
  EXPECT_EQ(files->readFile(file), std::vector<uint8_t>{9});
  EXPECT_EQ(files->list(root.string()), std::vector<std::string>{"model.bin"});
  ASSERT_TRUE(files->writeFile(file, {}));
  EXPECT_EQ(files->readFile(file), std::vector<uint8_t>{});
  EXPECT_FALSE(files->writeFile(at("missing/model.bin"), bytes));
  EXPECT_FALSE(files->readFile(at("missing.bin")));
  EXPECT_FALSE(files->readFile(root.string()));
}

TEST_F(LocalFileSystemTest, CopyMoveAndRemoveRefuseToClobberOrInvent) {
  ASSERT_TRUE(files->createDirectories(at("src/nested")));
  ASSERT_TRUE(files->writeFile(at("src/nested/a"), bytes));
  ASSERT_TRUE(files->writeFile(at("other"), {7}));
  EXPECT_FALSE(files->createDirectories(at("other/sub")));

  EXPECT_TRUE(files->copy(at("src"), at("copy")));
  EXPECT_EQ(files->readFile(at("copy/nested/a")), bytes);
  EXPECT_FALSE(files->copy(at("other"), at("copy")));
  EXPECT_FALSE(files->copy(at("nothing"), at("x")));

  EXPECT_FALSE(files->move(at("other"), at("src/nested/a")));
  EXPECT_EQ(files->readFile(at("src/nested/a")), bytes);
  EXPECT_TRUE(files->move(at("other"), at("moved")));
  EXPECT_FALSE(files->exists(at("other")));

  EXPECT_TRUE(files->remove(at("copy")));
  EXPECT_FALSE(files->exists(at("copy")));
  EXPECT_FALSE(files->remove(at("copy")));
}

TEST_F(LocalFileSystemTest, ModificationDatesAndCapacity) {
  const std::string file = files->applicationSupportDirectory() + "/dated";
  EXPECT_EQ(file, at("data/Application Support/dated"));
  ASSERT_TRUE(files->writeFile(file, bytes));
  ASSERT_TRUE(files->setModificationDate(file, 1'600'000'000.25));
  ASSERT_TRUE(files->modificationDate(file));
  EXPECT_NEAR(*files->modificationDate(file), 1'600'000'000.25, 1e-3);
  EXPECT_FALSE(files->modificationDate(at("nothing")));
  EXPECT_FALSE(files->setModificationDate(at("nothing"), 0));
  const auto capacity = files->availableCapacity(root.string());
  ASSERT_TRUE(capacity);
  EXPECT_GT(*capacity, 0u);
  EXPECT_FALSE(files->availableCapacity(at("nothing")));
  EXPECT_TRUE(files->isDirectory(files->temporaryDirectory()));
}

}  // namespace
}  // namespace orvane
