// What tools need beyond an application's reads and writes: the copy of a
// whole settings tree, which they list and export, and saving at once.

#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <memory>

#include <gtest/gtest.h>

#include "api/FacadeTestSupport.h"
#include "qelss/values/HashFactory.h"
#include "qelss/values/HashHelper.h"

namespace QelSS {
namespace {

using testing::Code;

[[maybe_unused]] ::testing::Environment* const kKeyHome =
    ::testing::AddGlobalTestEnvironment(new testing::KeyHome);

TEST(FacadeCopySettingsTest, CopyHoldsTheCommittedTreeOnlyAndIsIndependent) {
  testing::ScopedTempDir folder;
  std::shared_ptr<QSSDomain> facade;
  ASSERT_EQ(QSSDomain::Create(facade, "copies", "copy-test", folder.path().c_str(), true),
            Code(kSuccess));
  ASSERT_EQ(facade->SetCommit("/window/width", 3LL), Code(kSuccess));
  ASSERT_EQ(facade->CreateTransaction(), Code(kSuccess));
  ASSERT_EQ(facade->Set("/pending", true), Code(kSuccess));

  std::shared_ptr<IHash> copy;
  ASSERT_EQ(facade->CopySettings(copy), Code(kSuccess));
  ASSERT_TRUE(copy);
  // The settings alone: no uncommitted key, no generation count beside them.
  EXPECT_EQ(copy->GetCount(), 1u);
  std::shared_ptr<IHash> window;
  ASSERT_EQ(HashHelper::Get(copy, "window", window), Code(kSuccess));
  long long width = 0;
  ASSERT_EQ(HashHelper::Get(window, "width", width), Code(kSuccess));
  EXPECT_EQ(width, 3);

  ASSERT_EQ(HashHelper::Set(window, "width", 4LL), Code(kSuccess));
  ASSERT_EQ(facade->Get("/window/width", width), Code(kSuccess));
  EXPECT_EQ(width, 3);
}

TEST(FacadeCopySettingsTest, AFacadeWithoutADomainHasNothingToCopy) {
  testing::ScopedTempDir folder;
  std::ofstream(folder / "file") << "not a folder";
  std::shared_ptr<QSSDomain> facade;
  ASSERT_EQ(QSSDomain::Create(facade, "copies", "copy-test", (folder / "file/sub").c_str(), true),
            Code(kDirectoryError));
  std::shared_ptr<IHash> copy;
  ASSERT_EQ(HashFactory::Create(copy), Code(kSuccess));
  const std::shared_ptr<IHash> before = copy;
  EXPECT_EQ(facade->CopySettings(copy), Code(kDomainNotOpen));
  EXPECT_EQ(copy, before);
}

TEST(FacadeSaveTest, SaveWritesCommitsAtOnceAndReportsAWriteThatFails) {
  testing::ScopedTempDir folder;
  const std::string file = folder / "com.qelvarin.saves";
  std::shared_ptr<QSSDomain> facade;
  ASSERT_EQ(QSSDomain::Create(facade, "saves", "save-test", folder.path().c_str(), true),
            Code(kSuccess));
  ASSERT_EQ(facade->SetCommit("/n", 1LL), Code(kSuccess));
  EXPECT_FALSE(std::filesystem::exists(file)) << "written before the quiet period ended";
  ASSERT_EQ(facade->Save(), Code(kSuccess));
  ASSERT_TRUE(std::filesystem::exists(file));
  EXPECT_EQ(facade->Save(), Code(kSuccess)) << "nothing left to write";

  // The temporary file's place is taken: the write cannot start.
  const std::string blocked = file + "xyzzyx";
  ASSERT_EQ(::mkdir(blocked.c_str(), 0700), 0);
  std::ofstream(blocked + "/inside") << "x";
  const auto before = std::filesystem::last_write_time(file);
  ASSERT_EQ(facade->SetCommit("/n", 2LL), Code(kSuccess));
  EXPECT_EQ(facade->Save(), Code(kFileWriteError));
  EXPECT_EQ(std::filesystem::last_write_time(file), before);

  // Still pending, so the next save writes it.
  ASSERT_EQ(std::filesystem::remove_all(blocked), 2u);
  EXPECT_EQ(facade->Save(), Code(kSuccess));
  EXPECT_NE(std::filesystem::last_write_time(file), before);

  std::shared_ptr<QSSDomain> unopened;
  std::ofstream(folder / "plain") << "not a folder";
  ASSERT_EQ(QSSDomain::Create(unopened, "saves", "save-test", (folder / "plain/sub").c_str(), true),
            Code(kDirectoryError));
  EXPECT_EQ(unopened->Save(), Code(kDomainNotOpen));
}

}  // namespace
}  // namespace QelSS
