#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <memory>
#include <optional>
#include <string>

#include "platform/ChildProcess.h"
#include "platform/ScopedTempDir.h"
#include "platform/support/SiloedPath.h"

namespace {

using QelSS::testing::ChildExit;
using QelSS::testing::RunInChild;
using QelSS::testing::ScopedTempDir;

constexpr const char* kBase = "/Library/Application Support/Qelvarin";

std::optional<std::string> Silo(const char* folder) {
  std::unique_ptr<char, decltype(&free)> path(QelCreateSiloedPath(kBase, folder, 0), &free);
  if (!path) return std::nullopt;
  return std::string(path.get());
}

// The permission bits of a directory, or -1 when it is not one.
int DirectoryMode(const std::string& path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return -1;
  return st.st_mode & 07777;
}

class SiloedPath : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(temp_.path().empty());
    if (const char* old = std::getenv("XDG_DATA_HOME")) saved_ = old;
    setenv("XDG_DATA_HOME", temp_.path().c_str(), 1);
    // A restrictive umask proves that the mode is set, not left to mkdir.
    savedMask_ = umask(077);
  }
  void TearDown() override {
    umask(savedMask_);
    if (saved_) {
      setenv("XDG_DATA_HOME", saved_->c_str(), 1);
    } else {
      unsetenv("XDG_DATA_HOME");
    }
  }

  ScopedTempDir temp_;
  std::optional<std::string> saved_;
  mode_t savedMask_ = 0;
};

TEST_F(SiloedPath, CreatesTheFolderUnderTheDataHomeForGroupAccess) {
  EXPECT_EQ(Silo("DomainSettings"), temp_ / "qelvarin/DomainSettings");
  EXPECT_EQ(DirectoryMode(temp_ / "qelvarin"), 0770);
  EXPECT_EQ(DirectoryMode(temp_ / "qelvarin/DomainSettings"), 0770);

  // A second resolution finds the same folder.
  EXPECT_EQ(Silo("DomainSettings"), temp_ / "qelvarin/DomainSettings");
}

TEST_F(SiloedPath, MissingDataHomeAndNestedFoldersAreCreated) {
  const std::string home = temp_ / "data/home/";
  setenv("XDG_DATA_HOME", home.c_str(), 1);
  EXPECT_EQ(Silo("a//b"), temp_ / "data/home/qelvarin/a/b");
  EXPECT_EQ(DirectoryMode(temp_ / "data/home"), 0700);
  EXPECT_EQ(DirectoryMode(temp_ / "data/home/qelvarin/a/b"), 0770);
}

TEST_F(SiloedPath, FailsWhenAFileIsInTheWayOrNoFolderIsGiven) {
  std::ofstream(temp_ / "qelvarin") << "not a directory";
  EXPECT_EQ(Silo("DomainSettings"), std::nullopt);
  EXPECT_EQ(Silo(nullptr), std::nullopt);
}

TEST_F(SiloedPath, OtherUsersFallBackToTheirHomeWhenDataHomeIsRelative) {
  const std::string home = temp_ / "home";
  ASSERT_EQ(chmod(temp_.path().c_str(), 0711), 0);
  ASSERT_EQ(mkdir(home.c_str(), 0700), 0);
  ASSERT_EQ(chown(home.c_str(), 65534, 65534), 0);

  const auto result = RunInChild(
      [&] {
        if (!QelSS::testing::BecomeUnprivileged()) return 77;
        setenv("HOME", home.c_str(), 1);
        setenv("XDG_DATA_HOME", "relative/data", 1);
        return Silo("Folder") == home + "/.local/share/qelvarin/Folder" ? 0 : 1;
      },
      ChildExit::kImmediate);
  if (result.exitCode == 77) GTEST_SKIP() << "cannot drop privileges here";
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(DirectoryMode(home + "/.local/share"), 0700);
  // Group 0 cannot be given, so the user's own group gets nothing.
  EXPECT_EQ(DirectoryMode(home + "/.local/share/qelvarin/Folder"), 0700);
}

}  // namespace
