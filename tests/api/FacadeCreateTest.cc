// Opening domains through the facade: the folder, the name, persistence across
// reopening, configurations, and what a failed opening hands out.

#include <stdlib.h>
#include <sys/stat.h>

#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "api/FacadeTestSupport.h"
#include "api/FolderLevels.h"
#include "platform/report/CaptureSink.h"

namespace QelSS {
namespace {

using testing::Code;

[[maybe_unused]] ::testing::Environment* const kKeyHome =
    ::testing::AddGlobalTestEnvironment(new testing::KeyHome);

mode_t ModeOf(const std::string& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 ? (info.st_mode & 07777) : 0;
}

bool IsDirectory(const std::string& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

void ExpectNoDomain(QSSDomain& facade) {
  long long value = 0;
  EXPECT_EQ(facade.Get("/k", value), Code(kDomainNotOpen));
  EXPECT_EQ(facade.SetCommit("/k", 1LL), Code(kDomainNotOpen));
}

class FacadeCreateTest : public ::testing::Test {
 protected:
  std::error_code Open(std::shared_ptr<QSSDomain>& facade, const std::string& name,
                       const std::string& folder) {
    return QSSDomain::Create(facade, name.c_str(), "create-test", folder.c_str(), true);
  }

  testing::ScopedTempDir temp_;
};

TEST_F(FacadeCreateTest, MissingFolderLevelsAreMadeWithMode0770WhateverTheUmask) {
  const mode_t saved = ::umask(022);
  std::shared_ptr<QSSDomain> facade;
  const std::error_code rc = Open(facade, "levels", temp_ / "a/b/c");
  ::umask(saved);
  ASSERT_EQ(rc, Code(kSuccess));
  for (const char* level : {"a", "a/b", "a/b/c"}) {
    EXPECT_EQ(ModeOf(temp_ / level), 0770u) << level;
  }
  EXPECT_EQ(facade->SetCommit("/k", 1LL), Code(kSuccess));
}

TEST_F(FacadeCreateTest, FolderLevelThatIsAFileFailsWithAFacadeWithoutDomain) {
  std::ofstream(temp_ / "file") << "not a folder";
  std::shared_ptr<QSSDomain> facade;
  EXPECT_EQ(Open(facade, "blocked", temp_ / "file/below"), Code(kDirectoryError));
  ASSERT_TRUE(facade) << "a facade is handed out even when opening fails";
  ExpectNoDomain(*facade);
}

TEST_F(FacadeCreateTest, BlanksSeparateFolderLevelsAsSlashesDo) {
  ASSERT_EQ(MakeFolderLevels(temp_.path() + "/p q//r"), Code(kSuccess));
  EXPECT_TRUE(IsDirectory(temp_ / "p/q/r"));
  EXPECT_FALSE(IsDirectory(temp_ / "p q"));
}

TEST_F(FacadeCreateTest, NamesUpTo230BytesOpenAndLongerOrEmptyOnesFailCleanly) {
  std::shared_ptr<QSSDomain> longest;
  EXPECT_EQ(Open(longest, std::string(230, 'n'), temp_.path()), Code(kSuccess));
  EXPECT_EQ(longest->SetCommit("/k", 1LL), Code(kSuccess));

  // The factory reports the bad name and goes on opening: the facade takes the
  // first report and must not trip over the second.
  for (const std::string& name : {std::string(231, 'n'), std::string()}) {
    std::shared_ptr<QSSDomain> facade;
    EXPECT_EQ(Open(facade, name, temp_.path()), Code(kInvalidArgument)) << name.size();
    ASSERT_TRUE(facade);
    ExpectNoDomain(*facade);
  }
  std::shared_ptr<QSSDomain> facade;
  EXPECT_EQ(QSSDomain::Create(facade, nullptr, "create-test", temp_.path().c_str(), true),
            Code(kInvalidArgument));
}

TEST_F(FacadeCreateTest, CommittedSettingsSurviveReopening) {
  {
    std::shared_ptr<QSSDomain> facade;
    ASSERT_EQ(Open(facade, "Persisted", temp_.path()), Code(kSuccess));
    ASSERT_EQ(facade->SetCommit("/volume", 11LL), Code(kSuccess));
    ASSERT_EQ(facade->SetCommit("/station", std::string("north")), Code(kSuccess));
  }
  std::shared_ptr<QSSDomain> reopened;
  ASSERT_EQ(Open(reopened, "persisted", temp_.path()), Code(kSuccess));
  long long volume = 0;
  std::string station;
  EXPECT_EQ(reopened->Get("/volume", volume), Code(kSuccess));
  EXPECT_EQ(volume, 11);
  EXPECT_EQ(reopened->Get("/station", station), Code(kSuccess));
  EXPECT_EQ(station, "north");
}

TEST_F(FacadeCreateTest, EachConfigurationKeepsItsOwnCopy) {
  auto open = [this](std::shared_ptr<QSSDomain>& facade, unsigned int configuration) {
    return QSSDomain::Create(facade, "alerts", "create-test", temp_.path().c_str(), configuration,
                             true);
  };
  {
    std::shared_ptr<QSSDomain> seven;
    ASSERT_EQ(open(seven, 7), Code(kSuccess));
    ASSERT_EQ(seven->SetCommit("/level", 7LL), Code(kSuccess));
  }
  long long level = 0;
  std::shared_ptr<QSSDomain> plain;
  ASSERT_EQ(open(plain, 0), Code(kSuccess));
  EXPECT_EQ(plain->Get("/level", level), Code(kNotFound));
  std::shared_ptr<QSSDomain> seven;
  ASSERT_EQ(open(seven, 7), Code(kSuccess));
  EXPECT_EQ(seven->Get("/level", level), Code(kSuccess));
  EXPECT_EQ(level, 7);
}

TEST_F(FacadeCreateTest, RemoteDomainWithoutASettingsServiceFails) {
  // Any settings service would be looked for here, where there is none.
  ::setenv("QELSS_RUNTIME_DIR", temp_.path().c_str(), 1);
  std::shared_ptr<QSSDomain> facade;
  EXPECT_NE(QSSDomain::Create(facade, "remote", "create-test", nullptr, false), Code(kSuccess));
  ASSERT_TRUE(facade);
  ExpectNoDomain(*facade);
}

TEST_F(FacadeCreateTest, IdentifierFailureIsReportedAndMakesNoFacade) {
  platform::ScopedCaptureSink capture;
  std::shared_ptr<QSSDomain> facade;
  EXPECT_EQ(QSSDomain::Create(facade, "", "create-test", temp_.path().c_str(), 7, true),
            Code(kFailure));
  EXPECT_FALSE(facade);
  auto report = capture->FindFailureReport("SDOM", "DomainIdForDomain");
  ASSERT_TRUE(report);
  EXPECT_EQ(report->ErrorDomain(), "QSSDomainError");
  EXPECT_EQ(report->Message(), "Failed to get domain id");
  EXPECT_TRUE(capture->HasTrace("DomainIdForDomain failed (500)"));
}

}  // namespace
}  // namespace QelSS
