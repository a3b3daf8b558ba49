// The facade's copy of a whole settings tree, which tools list and export.

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

}  // namespace
}  // namespace QelSS
