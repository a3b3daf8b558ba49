// Several processes on one domain file take turns: a reader never sees the
// moment between a writer's removal of the old file and its rename of the new
// one, and so never promotes a temporary file under a writer.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <thread>

#include "StorageTestSupport.h"

namespace QelSS {
namespace {

using testing::MakeTree;
using testing::SameTree;

constexpr int kRounds = 500;  // per process: 1,000 operations in all
constexpr size_t kEntries = 12;

// Exit codes of the children, so that a failure says what went wrong.
constexpr int kReadFailed = 2;
constexpr int kTreeDamaged = 3;
constexpr int kWriteFailed = 4;

int ExitCodeOf(pid_t pid) {
  int status = 0;
  for (int waited = 0; waited < 120'000; waited += 5) {
    if (::waitpid(pid, &status, WNOHANG) == pid) return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  ::kill(pid, SIGKILL);
  ::waitpid(pid, &status, 0);
  return -2;
}

template <typename Body>
pid_t Spawn(Body body) {
  const pid_t pid = ::fork();
  if (pid == 0) ::_exit(body());
  return pid;
}

// Regression: a reader in another process found neither the file nor, a
// moment later, the temporary file, and said the domain did not exist; or it
// promoted the temporary file itself, so that the writer's rename failed
// although its tree had landed, and a second writer could then lose the domain.
TEST(StorageLockTest, ReaderInAnotherProcessNeverPromotesUnderAWriter) {
  testing::ScopedTempDir dir;
  const std::string path = dir / "settings";
  {
    Storage storage;  // also makes the key file before the children need it
    ASSERT_EQ(testing::Write(storage, path, MakeTree(0, kEntries)), make_error_code(kSuccess));
  }
  const pid_t writer = Spawn([&] {
    Storage storage;
    for (long long generation = 1; generation <= kRounds; ++generation) {
      if (testing::Write(storage, path, MakeTree(generation, kEntries)) != kSuccess) {
        return kWriteFailed;
      }
    }
    return 0;
  });
  const pid_t reader = Spawn([&] {
    Storage storage;
    for (int i = 0; i < kRounds; ++i) {
      const auto read = testing::Read(storage, path);
      if (read.code != kSuccess) return kReadFailed;
      const long long generation = testing::GenerationOf(read.tree);
      if (!SameTree(read.tree, MakeTree(generation, kEntries))) return kTreeDamaged;
    }
    return 0;
  });
  EXPECT_EQ(ExitCodeOf(writer), 0);
  EXPECT_EQ(ExitCodeOf(reader), 0);
  Storage storage;
  const auto last = testing::Read(storage, path);
  ASSERT_EQ(last.code, make_error_code(kSuccess));
  EXPECT_TRUE(SameTree(last.tree, MakeTree(kRounds, kEntries)));
  EXPECT_FALSE(::access((path + "xyzzyx").c_str(), F_OK) == 0);
}

// Stops its process at its first read of a domain file, inside the lock.
class StopInsideRead : public platform::FileSystemWrapper {
 public:
  StopInsideRead() : FileSystemWrapper(platform::DefaultFileSystem()) {}
  std::error_code Read(int fd, std::span<uint8_t> buffer, size_t& count) override {
    if (!stopped_) {
      stopped_ = true;
      ::raise(SIGSTOP);
    }
    return FileSystemWrapper::Read(fd, buffer, count);
  }

 private:
  bool stopped_ = false;
};

// Waits for the lock a short while only, so that the test need not sit out
// the real wait.
class ImpatientLocks : public platform::FileSystemWrapper {
 public:
  ImpatientLocks() : FileSystemWrapper(platform::DefaultFileSystem()) {}
  std::error_code LockFile(const std::string& path, std::chrono::milliseconds,
                           int& fd) override {
    return FileSystemWrapper::LockFile(path, std::chrono::milliseconds(200), fd);
  }
};

bool WaitUntilStopped(pid_t pid) {
  for (int waited = 0; waited < 60'000; waited += 5) {
    int status = 0;
    if (::waitpid(pid, &status, WNOHANG | WUNTRACED) == pid) return WIFSTOPPED(status);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return false;
}

// A reader held up in the middle of its read (stopped, swapped out) keeps
// writers waiting: they give up with kTimeout and change nothing, and once the
// reader goes on it gets the tree it started on, and writers get through.
TEST(StorageLockTest, ReaderStoppedInsideItsReadKeepsWritersOutWithoutLoss) {
  testing::ScopedTempDir dir;
  const std::string path = dir / "settings";
  const auto old = MakeTree(1, kEntries);
  const auto next = MakeTree(2, kEntries);
  {
    Storage storage;
    ASSERT_EQ(testing::Write(storage, path, old), make_error_code(kSuccess));
  }
  const pid_t reader = Spawn([&] {
    Storage storage(std::make_shared<StopInsideRead>());
    const auto read = testing::Read(storage, path);
    if (read.code != kSuccess) return kReadFailed;
    return SameTree(read.tree, old) ? 0 : kTreeDamaged;
  });
  ASSERT_TRUE(WaitUntilStopped(reader));

  Storage impatient(std::make_shared<ImpatientLocks>());
  EXPECT_EQ(testing::Write(impatient, path, next), make_error_code(kTimeout));
  EXPECT_EQ(testing::Read(impatient, path).code, make_error_code(kTimeout));
  EXPECT_FALSE(::access((path + "xyzzyx").c_str(), F_OK) == 0);

  ::kill(reader, SIGCONT);
  EXPECT_EQ(ExitCodeOf(reader), 0);
  EXPECT_EQ(testing::Write(impatient, path, next), make_error_code(kSuccess));
  EXPECT_TRUE(SameTree(testing::Read(impatient, path).tree, next));
}

}  // namespace
}  // namespace QelSS
