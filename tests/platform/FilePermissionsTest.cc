#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <string>

#include "platform/ChildProcess.h"
#include "platform/ScopedTempDir.h"
#include "platform/support/FilePermissions.h"
#include "qelss/platform/ErrorCode.h"

namespace QelSS::platform {
namespace {

using QelSS::testing::ChildExit;
using QelSS::testing::RunInChild;
using QelSS::testing::ScopedTempDir;

constexpr uid_t kKeepOwner = static_cast<uid_t>(-1);

struct stat StatOf(const std::string& path) {
  struct stat st {};
  EXPECT_EQ(stat(path.c_str(), &st), 0) << path;
  return st;
}

class FilePermissions : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(temp_.path().empty());
    std::ofstream(file_) << "content";
  }

  ScopedTempDir temp_;
  const std::string file_ = temp_ / "file";
};

TEST_F(FilePermissions, EmptyPathIsADirectoryError) {
  EXPECT_EQ(SetFilePermissions("", 0640, kKeepOwner, 0), make_error_code(kDirectoryError));
}

TEST_F(FilePermissions, MissingFileGivesTheSystemError) {
  const std::error_code enoent(ENOENT, std::system_category());
  EXPECT_EQ(SetFilePermissions(temp_ / "missing", 0640, kKeepOwner, 0), enoent);
  EXPECT_EQ(SetFilePermissions(temp_ / "missing", kKeepMode, kKeepOwner, 0), enoent);
}

TEST_F(FilePermissions, RootSetsModeAndGroupZero) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  ASSERT_EQ(chown(file_.c_str(), 0, 4321), 0);
  ASSERT_EQ(chmod(file_.c_str(), 0604), 0);

  EXPECT_EQ(SetFilePermissions(file_, 0640, kKeepOwner, 0), make_error_code(kSuccess));
  EXPECT_EQ(StatOf(file_).st_mode & 07777, 0640u);
  EXPECT_EQ(StatOf(file_).st_gid, 0u);
  EXPECT_EQ(StatOf(file_).st_uid, 0u);

  ASSERT_EQ(chown(file_.c_str(), 0, 4321), 0);
  EXPECT_EQ(SetFilePermissions(file_, kKeepMode, kKeepOwner, 0), make_error_code(kSuccess));
  EXPECT_EQ(StatOf(file_).st_mode & 07777, 0640u);
  EXPECT_EQ(StatOf(file_).st_gid, 0u);
}

// An ordinary user cannot give its file to group 0; that is not a failure, and
// the file is then the owner's alone rather than its own group's. Giving the
// file away to another owner still fails.
TEST_F(FilePermissions, OrdinaryUserKeepsItsGroup) {
  ASSERT_EQ(chmod(temp_.path().c_str(), 0777), 0);
  const std::string own = temp_ / "own";

  const auto result = RunInChild(
      [&] {
        if (!QelSS::testing::BecomeUnprivileged()) return 77;
        std::ofstream(own) << "content";
        if (SetFilePermissions(own, 0640, kKeepOwner, 0) != make_error_code(kSuccess)) return 1;
        if ((StatOf(own).st_mode & 07777) != 0600) return 3;
        if (SetFilePermissions(own, 0600, 0, 0) != std::error_code(EPERM, std::system_category())) {
          return 2;
        }
        return 0;
      },
      ChildExit::kImmediate);
  if (result.exitCode == 77) GTEST_SKIP() << "cannot drop privileges here";
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(StatOf(own).st_gid, 65534u);
  EXPECT_EQ(StatOf(own).st_uid, 65534u);
  EXPECT_EQ(StatOf(own).st_mode & 07777, 0600u);
}

}  // namespace
}  // namespace QelSS::platform
