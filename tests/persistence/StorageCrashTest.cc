// Whatever stops a write half way (a failing call, or the writer being killed)
// the next read finds one whole tree: the old one or the new one.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <iostream>
#include <random>
#include <thread>

#include "PersistenceTestSupport.h"
#include "StorageTestSupport.h"
#include "platform/report/CaptureSink.h"

namespace QelSS {
namespace {

using testing::Errno;
using testing::FaultyFileSystem;
using testing::FileCall;
using testing::MakeTree;
using testing::SameTree;

[[maybe_unused]] ::testing::Environment* const kKeyHome =
    ::testing::AddGlobalTestEnvironment(new testing::KeyHome);

class StorageFaultTest : public testing::SettingsFolderTest {
 protected:
  std::error_code FaultyWrite(const std::shared_ptr<IHash>& tree) {
    return testing::Write(faulty_, path(), tree);
  }
  // What a fresh storage on healthy files finds afterwards.
  testing::ReadResult ReadAfterwards() {
    Storage healthy;
    return testing::Read(healthy, path());
  }
  void ExpectReport(platform::ScopedCaptureSink& sink, const char* operation, const char* message,
                    std::error_code code) {
    const auto report = sink->FindFailureReport("QSST", operation);
    ASSERT_TRUE(report) << operation;
    EXPECT_EQ(report->Message(), message);
    EXPECT_EQ(report->Code(), code.value());
    EXPECT_EQ(report->ErrorDomain(), "QelSharedSettingsErrorDomain");
    EXPECT_TRUE(sink->HasTrace(message));
    EXPECT_TRUE(
        sink->HasTrace(std::string(operation) + " failed (" + std::to_string(code.value()) + ")"));
  }

  std::shared_ptr<FaultyFileSystem> files_ = std::make_shared<FaultyFileSystem>();
  Storage faulty_{files_};
  const std::shared_ptr<IHash> old_ = MakeTree(1, 300);
  const std::shared_ptr<IHash> new_ = MakeTree(2, 300);
};

struct WriteFault {
  const char* name;
  FileCall call;
  int error;
  int skip;
  std::error_code code;  // the write's result
  const char* operation;
  const char* message;
  bool newTreeSurvives;  // false: the old tree does
};

const std::error_code kWriteError = make_error_code(kFileWriteError);
const char* const kDumping = "Error dumping contents to disk";

const WriteFault kWriteFaults[] = {
    {"open", FileCall::kOpenTemporary, EACCES, 0, kWriteError, "WriteSettings",
     "Error reading file specified by inFilePath", false},
    {"write", FileCall::kWriteTemporary, ENOSPC, 0, kWriteError, "WriteSettings", kDumping, false},
    {"fsync", FileCall::kSyncTemporary, EIO, 0, kWriteError, "WriteSettings", kDumping, false},
    {"close", FileCall::kCloseTemporary, EIO, 0, kWriteError, "WriteSettings", kDumping, false},
    {"folder sync before remove", FileCall::kSyncDirectory, EIO, 0, kWriteError, "WriteSettings",
     kDumping, false},
    {"remove", FileCall::kRemove, EACCES, 0, Errno(EACCES), "remove", "Failed to remove file.",
     false},
    {"rename", FileCall::kRename, EXDEV, 0, Errno(EXDEV), "rename", "Failed to rename file.", true},
    {"permissions", FileCall::kSetPermissions, EPERM, 0, Errno(EPERM), "SetFilePermissions failure",
     "Failed to set domain permissions", true},
    {"folder sync after rename", FileCall::kSyncDirectory, EIO, 1, kWriteError, "WriteSettings",
     kDumping, true},
};

TEST_F(StorageFaultTest, EveryFailedStepLeavesOneWholeTree) {
  for (const WriteFault& fault : kWriteFaults) {
    SCOPED_TRACE(fault.name);
    files_->Heal();
    ASSERT_EQ(FaultyWrite(old_), make_error_code(kSuccess));

    platform::ScopedCaptureSink capture;
    // Part of the envelope reaches the disk before a write fails.
    files_->Fail(fault.call, fault.error, fault.skip, /*writeBudget=*/1000);
    EXPECT_EQ(FaultyWrite(new_), fault.code);
    ExpectReport(capture, fault.operation, fault.message, fault.code);
    EXPECT_EQ(capture->FailureReports().size(), 1u);

    const auto read = ReadAfterwards();
    ASSERT_EQ(read.code, make_error_code(kSuccess));
    EXPECT_TRUE(SameTree(read.tree, fault.newTreeSurvives ? new_ : old_));
    EXPECT_FALSE(Exists(temporary()) && fault.call != FileCall::kRemove)
        << "only a failed remove leaves the (whole) temporary file beside the old one";
  }
}

// With no old file a half-written temporary file would be promoted by the next
// read; a first write that fails leaves the domain simply still missing, and
// the next write stores it.
TEST_F(StorageFaultTest, FailedFirstWriteLeavesNothingToPromote) {
  for (FileCall call : {FileCall::kWriteTemporary, FileCall::kSyncTemporary,
                        FileCall::kCloseTemporary, FileCall::kSyncDirectory, FileCall::kRename}) {
    files_->Fail(call, EIO, 0, /*writeBudget=*/100);
    EXPECT_NE(FaultyWrite(new_), make_error_code(kSuccess));
    EXPECT_FALSE(Exists(temporary()));
    EXPECT_EQ(ReadAfterwards().code, make_error_code(kDomainNotOpen));
  }
  files_->Heal();
  ASSERT_EQ(FaultyWrite(new_), make_error_code(kSuccess));
  const auto read = ReadAfterwards();
  ASSERT_EQ(read.code, make_error_code(kSuccess));
  EXPECT_TRUE(SameTree(read.tree, new_));
}

// A lone temporary file holds the last stored tree; a write that fails must
// not have truncated it first.
TEST_F(StorageFaultTest, FailedWriteKeepsTreeOfLoneTemporary) {
  ASSERT_EQ(FaultyWrite(old_), make_error_code(kSuccess));
  ASSERT_EQ(::rename(path().c_str(), temporary().c_str()), 0);
  files_->Fail(FileCall::kWriteTemporary, ENOSPC, 0, /*writeBudget=*/64);
  EXPECT_EQ(FaultyWrite(new_), make_error_code(kFileWriteError));
  const auto read = ReadAfterwards();
  ASSERT_EQ(read.code, make_error_code(kSuccess));
  EXPECT_TRUE(SameTree(read.tree, old_));
}

TEST_F(StorageFaultTest, ReadFailuresChangeNothingButThePromotion) {
  ASSERT_EQ(FaultyWrite(old_), make_error_code(kSuccess));
  platform::ScopedCaptureSink capture;

  files_->Fail(FileCall::kStat, EACCES);
  auto read = testing::Read(faulty_, path());
  EXPECT_EQ(read.code, Errno(EACCES));
  EXPECT_EQ(read.tree, nullptr);
  EXPECT_TRUE(capture->FailureReports().empty());

  files_->Fail(FileCall::kOpenRead, EACCES);
  EXPECT_EQ(testing::Read(faulty_, path()).code, make_error_code(kFileReadError));
  ExpectReport(capture, "ReadSettings", "Error reading File specified by inFilePath",
               make_error_code(kFileReadError));
  files_->Fail(FileCall::kRead, EIO);
  EXPECT_EQ(testing::Read(faulty_, path()).code, make_error_code(kFileReadError));

  capture->Clear();
  ASSERT_EQ(::rename(path().c_str(), temporary().c_str()), 0);
  files_->Fail(FileCall::kRename, EACCES);
  read = testing::Read(faulty_, path());
  EXPECT_EQ(read.code, Errno(EACCES));
  ExpectReport(capture, "rename", "Failed to rename file.", Errno(EACCES));
  EXPECT_TRUE(Exists(temporary()));

  read = ReadAfterwards();
  ASSERT_EQ(read.code, make_error_code(kSuccess));
  EXPECT_TRUE(SameTree(read.tree, old_));
}

// A power cut, unlike a killed process, loses what was not synced. The
// temporary file must be on disk (data and directory entry) before the old
// file's removal can be, and the rename must be on disk before success is
// claimed.
TEST_F(StorageFaultTest, SyncsPrecedeTheRemovalAndFollowTheRename) {
  ASSERT_EQ(FaultyWrite(old_), make_error_code(kSuccess));
  const size_t before = files_->log().size();
  ASSERT_EQ(FaultyWrite(new_), make_error_code(kSuccess));
  std::vector<FileCall> calls(files_->log().begin() + static_cast<long>(before),
                              files_->log().end());
  calls.erase(std::unique(calls.begin(), calls.end()), calls.end());
  EXPECT_EQ(calls,
            (std::vector<FileCall>{FileCall::kOpenTemporary, FileCall::kWriteTemporary,
                                   FileCall::kSyncTemporary, FileCall::kCloseTemporary,
                                   FileCall::kSyncDirectory, FileCall::kRemove, FileCall::kRename,
                                   FileCall::kSetPermissions, FileCall::kSyncDirectory}));
}

// ---- Killing the writer ----

// Sanitized writers are several times slower: fewer kills, spread wider.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kKills = 40;
constexpr long kMaxWindowMicroseconds = 80000;
#else
constexpr int kKills = 200;
constexpr long kMaxWindowMicroseconds = 15000;
#endif

// Trees alternate between sizes, so a kill finds files of every length.
size_t EntriesFor(long long generation) { return 20 + static_cast<size_t>(generation % 5) * 60; }

std::shared_ptr<IHash> TreeFor(long long generation) {
  return MakeTree(generation, EntriesFor(generation));
}

// The child writes generation after generation and tells the parent over
// `ack` each one it has stored. Exit codes name what went wrong.
[[noreturn]] void RunWriter(const std::string& path, int ack) {
  Storage storage;
  const auto current = testing::Read(storage, path);
  long long generation = testing::GenerationOf(current.tree);
  if (current.code != kSuccess || generation < 0) ::_exit(2);
  if (::write(ack, &generation, sizeof generation) != sizeof generation) ::_exit(3);
  for (;;) {
    ++generation;
    if (testing::Write(storage, path, TreeFor(generation)) != kSuccess) ::_exit(4);
    if (::write(ack, &generation, sizeof generation) != sizeof generation) ::_exit(3);
  }
}

// The last generation the child acknowledged; `from` when it sent nothing.
long long LastAcknowledged(int fd, long long from) {
  long long value = from, last = from;
  while (::read(fd, &value, sizeof value) == sizeof value) last = value;
  return last;
}

TEST(StorageKillTest, ReadAfterKillFindsTheLastOrTheNextTree) {
  testing::ScopedTempDir dir;
  const std::string path = dir / "settings";
  {
    Storage storage;
    ASSERT_EQ(testing::Write(storage, path, TreeFor(0)), make_error_code(kSuccess));
  }
  // Kill points spread over about three writes, within bounds that keep the
  // whole test to a few seconds on a slow disk too.
  const auto started = std::chrono::steady_clock::now();
  {
    Storage storage;
    ASSERT_EQ(testing::Write(storage, path, TreeFor(1)), make_error_code(kSuccess));
    ASSERT_EQ(testing::Write(storage, path, TreeFor(0)), make_error_code(kSuccess));
  }
  const long writeTime = std::chrono::duration_cast<std::chrono::microseconds>(
                             std::chrono::steady_clock::now() - started)
                             .count() /
                         2;
  const long window = std::clamp(3 * writeTime, 300L, kMaxWindowMicroseconds);
  std::uniform_int_distribution<long> delay(0, window);
  std::mt19937 random(std::random_device{}());

  long long stored = 0;
  int advanced = 0, midWrite = 0;
  for (int kill = 0; kill < kKills; ++kill) {
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    const pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      ::close(fds[0]);
      RunWriter(path, fds[1]);
    }
    ::close(fds[1]);
    long long ready = -1;
    ASSERT_EQ(::read(fds[0], &ready, sizeof ready), static_cast<ssize_t>(sizeof ready));
    ASSERT_EQ(ready, stored) << "the child starts from the last tree read back";
    std::this_thread::sleep_for(std::chrono::microseconds(delay(random)));
    ::kill(pid, SIGKILL);
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFSIGNALED(status)) << "writer stopped by itself with " << WEXITSTATUS(status);
    const long long acknowledged = LastAcknowledged(fds[0], stored);
    ::close(fds[0]);
    if (::access((path + "xyzzyx").c_str(), F_OK) == 0) ++midWrite;

    Storage reader;
    const auto read = testing::Read(reader, path);
    ASSERT_EQ(read.code, make_error_code(kSuccess)) << "kill " << kill;
    const long long found = testing::GenerationOf(read.tree);
    ASSERT_TRUE(found == acknowledged || found == acknowledged + 1)
        << "kill " << kill << ": found " << found << ", acknowledged " << acknowledged;
    ASSERT_TRUE(SameTree(read.tree, TreeFor(found))) << "kill " << kill;
    advanced += found > stored;
    stored = found;
  }
  std::cout << kKills << " kills within " << window << " us of the writer's start, " << midWrite
            << " with a temporary file present, " << stored << " trees written, " << advanced
            << " kills after progress\n";
  EXPECT_GT(stored, 0) << "the writer never got a tree stored";
}

// The first tree of a domain has no old file to fall back on: a writer that
// dies at any step finds the domain still missing or whole, never damaged.
TEST(StorageKillTest, FirstWriteCutShortAnywhereLeavesTheDomainMissingOrWhole) {
  struct Death {
    FileCall call;
    int skip;
    size_t writeBudget;
  };
  const Death deaths[] = {
      {FileCall::kOpenTemporary, 0, 0},    {FileCall::kWriteTemporary, 0, 0},
      {FileCall::kWriteTemporary, 0, 100}, {FileCall::kSyncTemporary, 0, 0},
      {FileCall::kCloseTemporary, 0, 0},   {FileCall::kSyncDirectory, 0, 0},
      {FileCall::kRename, 0, 0},           {FileCall::kSetPermissions, 0, 0},
      {FileCall::kSyncDirectory, 1, 0},
  };
  const std::shared_ptr<IHash> tree = TreeFor(4);
  int missing = 0;
  for (const Death& death : deaths) {
    testing::ScopedTempDir dir;
    const std::string path = dir / "settings";
    const pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      auto files = std::make_shared<FaultyFileSystem>();
      files->Die(death.call, death.skip, death.writeBudget);
      Storage storage(files);
      (void)testing::Write(storage, path, tree);
      ::_exit(0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == FaultyFileSystem::kDiedExitCode)
        << "call " << static_cast<int>(death.call) << " was never reached";

    Storage reader;
    const auto read = testing::Read(reader, path);
    if (read.code == make_error_code(kDomainNotOpen)) {
      ++missing;
      ASSERT_EQ(testing::Write(reader, path, tree), make_error_code(kSuccess));
      ASSERT_TRUE(SameTree(testing::Read(reader, path).tree, tree));
      continue;
    }
    ASSERT_EQ(read.code, make_error_code(kSuccess)) << "call " << static_cast<int>(death.call);
    EXPECT_TRUE(SameTree(read.tree, tree));
  }
  EXPECT_EQ(missing, 7) << "dying up to the rename leaves nothing; after it, the whole tree";
}

}  // namespace
}  // namespace QelSS
