#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

#include "PersistenceTestSupport.h"
#include "StorageTestSupport.h"
#include "persistence/Envelope.h"
#include "platform/report/CaptureSink.h"

namespace QelSS {
namespace {

using testing::FaultyFileSystem;
using testing::FileCall;
using testing::MakeTree;
using testing::SameTree;

[[maybe_unused]] ::testing::Environment* const kKeyHome =
    ::testing::AddGlobalTestEnvironment(new testing::KeyHome);

class StorageTest : public testing::SettingsFolderTest {
 protected:
  testing::ReadResult Read() { return testing::Read(*storage_, path()); }
  std::error_code Write(const std::shared_ptr<IHash>& tree) {
    return testing::Write(*storage_, path(), tree);
  }

  // A file of `size` bytes that takes no room: the size checks never look inside.
  void MakeSparse(const std::string& file, off_t size) {
    const int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0640);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::ftruncate(fd, size), 0);
    ::close(fd);
  }

  std::shared_ptr<Storage> storage_ = std::make_shared<Storage>();
};

TEST_F(StorageTest, WrittenTreeReadsBackWhole) {
  const auto first = MakeTree(1, 200);
  ASSERT_EQ(Write(first), make_error_code(kSuccess));
  auto read = Read();
  EXPECT_EQ(read.calls, 1);
  ASSERT_EQ(read.code, make_error_code(kSuccess));
  EXPECT_TRUE(SameTree(read.tree, first));
  EXPECT_FALSE(Exists(temporary()));

  // A second storage (another process, later) sees the same tree, and a
  // rewrite replaces it entirely.
  const auto second = MakeTree(2, 3);
  ASSERT_EQ(Write(second), make_error_code(kSuccess));
  read = testing::Read(*std::make_shared<Storage>(), path());
  ASSERT_EQ(read.code, make_error_code(kSuccess));
  EXPECT_TRUE(SameTree(read.tree, second));
  EXPECT_FALSE(SameTree(read.tree, first));
}

// A bare file name lives in the working folder, which is then the folder synced.
TEST_F(StorageTest, BareFileNameIsRelativeToWorkingFolder) {
  char previous[4096];
  ASSERT_NE(::getcwd(previous, sizeof previous), nullptr);
  ASSERT_EQ(::chdir(dir_.path().c_str()), 0);
  const auto tree = MakeTree(3, 4);
  const std::error_code written = testing::Write(*storage_, "bare", tree);
  const auto read = testing::Read(*storage_, "bare");
  ASSERT_EQ(::chdir(previous), 0);
  EXPECT_EQ(written, make_error_code(kSuccess));
  ASSERT_EQ(read.code, make_error_code(kSuccess));
  EXPECT_TRUE(SameTree(read.tree, tree));
  EXPECT_TRUE(Exists(dir_ / "bare"));
}

TEST_F(StorageTest, WrittenFileIsPrivateToOwnerAndGroupZero) {
  ::umask(077);  // the mode must not depend on the writer's umask
  ASSERT_EQ(Write(MakeTree(1, 5)), make_error_code(kSuccess));
  ::umask(022);
  struct stat info {};
  ASSERT_EQ(::stat(path().c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0640u);
  if (::geteuid() == 0) {
    EXPECT_EQ(info.st_gid, 0u);
  }
  EXPECT_EQ(info.st_uid, ::geteuid());
}

TEST_F(StorageTest, BadArgumentsChangeNothingAndStaySilent) {
  platform::ScopedCaptureSink capture;
  auto read = testing::Read(*storage_, "");
  EXPECT_EQ(read.code, make_error_code(kInvalidArgument));
  EXPECT_EQ(read.tree, nullptr);
  EXPECT_EQ(read.calls, 1);
  EXPECT_EQ(testing::Write(*storage_, "", MakeTree(1, 1)), make_error_code(kInvalidArgument));
  EXPECT_EQ(Write(nullptr), make_error_code(kInvalidArgument));
  EXPECT_FALSE(Exists(path()));
  EXPECT_FALSE(Exists(temporary()));
  EXPECT_TRUE(capture->FailureReports().empty());
}

TEST_F(StorageTest, NeitherFileNorTemporaryMeansNoDataYet) {
  platform::ScopedCaptureSink capture;
  const auto read = Read();
  EXPECT_EQ(read.code, make_error_code(kDomainNotOpen));
  EXPECT_EQ(read.tree, nullptr);
  EXPECT_EQ(read.calls, 1);
  EXPECT_TRUE(capture->FailureReports().empty());
}

TEST_F(StorageTest, LoneTemporaryIsPromotedAndRead) {
  const auto tree = MakeTree(7, 20);
  ASSERT_EQ(Write(tree), make_error_code(kSuccess));
  ASSERT_EQ(::rename(path().c_str(), temporary().c_str()), 0);

  const auto read = Read();
  ASSERT_EQ(read.code, make_error_code(kSuccess));
  EXPECT_TRUE(SameTree(read.tree, tree));
  EXPECT_TRUE(Exists(path()));
  EXPECT_FALSE(Exists(temporary()));
}

TEST_F(StorageTest, FileBesideTemporaryWinsAndTemporaryIsReusedByNextWrite) {
  const auto old = MakeTree(1, 10);
  ASSERT_EQ(Write(old), make_error_code(kSuccess));
  testing::WriteText(temporary(), "left over from a crash before the remove");

  auto read = Read();
  ASSERT_EQ(read.code, make_error_code(kSuccess));
  EXPECT_TRUE(SameTree(read.tree, old));
  EXPECT_EQ(testing::ReadText(temporary()), "left over from a crash before the remove");

  const auto next = MakeTree(2, 10);
  ASSERT_EQ(Write(next), make_error_code(kSuccess));
  EXPECT_FALSE(Exists(temporary()));
  read = Read();
  ASSERT_EQ(read.code, make_error_code(kSuccess));
  EXPECT_TRUE(SameTree(read.tree, next));
}

TEST_F(StorageTest, SizeLimitIsCheckedBeforeOpening) {
  auto files = std::make_shared<FaultyFileSystem>();
  Storage storage(files);
  platform::ScopedCaptureSink capture;

  MakeSparse(path(), 32'000'001);
  auto read = testing::Read(storage, path());
  EXPECT_EQ(read.code, make_error_code(kStorageError));
  EXPECT_EQ(read.tree, nullptr);
  EXPECT_EQ(files->Count(FileCall::kOpenRead), 0);
  EXPECT_TRUE(capture->FailureReports().empty());

  // At the limit the file is read in full and only then refused, by the
  // envelope (zeros are no valid ciphertext). With a random key, one time in
  // a few hundred the zeros decrypt to valid padding and the MAC refuses them.
  MakeSparse(path(), 32'000'000);
  read = testing::Read(storage, path());
  EXPECT_TRUE(read.code == make_error_code(kCryptError) ||
              read.code == make_error_code(kVerificationError))
      << read.code;
  EXPECT_EQ(files->Count(FileCall::kOpenRead), 1);
  const auto report = capture->FindFailureReport("QSST", "ReadSettings");
  ASSERT_TRUE(report);
  EXPECT_EQ(report->Message(), "Failed to decrypt objectBytes");
}

TEST_F(StorageTest, EmptyFileFailsDecryptionWithBothReports) {
  testing::WriteText(path(), "");
  platform::ScopedCaptureSink capture;
  const auto read = Read();
  EXPECT_EQ(read.code, make_error_code(kCryptError));
  EXPECT_EQ(read.tree, nullptr);

  const auto envelope = capture->FindFailureReport("SSEH", "Input");
  ASSERT_TRUE(envelope);
  EXPECT_EQ(envelope->Message(), "Domain Filesize is 0");
  const auto storage = capture->FindFailureReport("QSST", "ReadSettings");
  ASSERT_TRUE(storage);
  EXPECT_EQ(storage->Message(), "Failed to decrypt objectBytes");
  EXPECT_EQ(storage->Code(), 370);
  EXPECT_EQ(storage->ErrorDomain(), "QelSharedSettingsErrorDomain");
  EXPECT_EQ(storage->severity, 1);
  EXPECT_TRUE(capture->HasTrace("Failed to decrypt objectBytes"));
  EXPECT_TRUE(capture->HasTrace("ReadSettings failed (370)"));
}

TEST_F(StorageTest, DamagedOrForeignContentIsRefusedAndReported) {
  ASSERT_EQ(Write(MakeTree(1, 30)), make_error_code(kSuccess));
  std::string bytes = testing::ReadText(path());
  bytes[bytes.size() / 2] ^= 0x20;
  testing::WriteText(path(), bytes);
  platform::ScopedCaptureSink capture;
  auto read = Read();
  EXPECT_EQ(read.code, make_error_code(kVerificationError));
  EXPECT_EQ(read.tree, nullptr);
  EXPECT_EQ(capture->CountFailureReports("QSST", "ReadSettings"), 1u);

  // A sound envelope around something that is not a hash's byte form.
  const std::string text = "<not a settings tree/>";
  std::vector<uint8_t> sealed;
  ASSERT_EQ(Encrypt(std::vector<uint8_t>(text.begin(), text.end()), sealed),
            make_error_code(kSuccess));
  testing::WriteText(path(), std::string(sealed.begin(), sealed.end()));
  capture->Clear();
  read = Read();
  EXPECT_NE(read.code, make_error_code(kSuccess));
  EXPECT_EQ(read.tree, nullptr);
  const auto report = capture->FindFailureReport("QSST", "ReadSettings");
  ASSERT_TRUE(report);
  EXPECT_EQ(report->Message(), "Error Deserializing bytes to IHash");
  EXPECT_EQ(report->Code(), read.code.value());
}

TEST_F(StorageTest, UnreadableFileIsAFileReadError) {
  ASSERT_EQ(::mkdir(path().c_str(), 0700), 0);  // exists, but is no file to read
  platform::ScopedCaptureSink capture;
  const auto read = Read();
  EXPECT_EQ(read.code, make_error_code(kFileReadError));
  const auto report = capture->FindFailureReport("QSST", "ReadSettings");
  ASSERT_TRUE(report);
  EXPECT_EQ(report->Message(), "Error reading File specified by inFilePath");
  EXPECT_EQ(report->Code(), 361);
  EXPECT_TRUE(capture->HasTrace("ReadSettings failed (361)"));
}

TEST_F(StorageTest, WriteIntoMissingFolderIsAFileWriteError) {
  platform::ScopedCaptureSink capture;
  EXPECT_EQ(testing::Write(*storage_, dir_ / "absent/settings", MakeTree(1, 1)),
            make_error_code(kFileWriteError));
  const auto report = capture->FindFailureReport("QSST", "WriteSettings");
  ASSERT_TRUE(report);
  EXPECT_EQ(report->Message(), "Error reading file specified by inFilePath");
  EXPECT_EQ(report->Code(), 362);
  EXPECT_TRUE(capture->HasTrace("WriteSettings failed (362)"));
}

TEST_F(StorageTest, ThrowingCompletionRanOnceAndIsContained) {
  ASSERT_EQ(Write(MakeTree(1, 1)), make_error_code(kSuccess));
  platform::ScopedCaptureSink capture;
  int calls = 0;
  storage_->ReadSettings(path(), [&](std::error_code, std::shared_ptr<IHash>) {
    ++calls;
    throw std::runtime_error("completion failed");
  });
  EXPECT_EQ(calls, 1);
  const auto report = capture->FindExceptionReport("QSST", "ReadSettings");
  ASSERT_TRUE(report);
  EXPECT_EQ(report->severity, 2);
  EXPECT_EQ(report->exceptionWhat, "completion failed");
  EXPECT_EQ(Read().code, make_error_code(kSuccess)) << "the queue stays usable";
}

// Calls from many threads run one at a time: every read sees one whole tree
// that some writer wrote, whatever the interleaving.
TEST_F(StorageTest, ConcurrentCallsAreSerialised) {
  ASSERT_EQ(Write(MakeTree(0, 40)), make_error_code(kSuccess));
  constexpr int kThreads = 4;
  constexpr int kRounds = 15;
  std::vector<std::shared_ptr<IHash>> trees;
  for (int g = 0; g <= kThreads; ++g) trees.push_back(MakeTree(g, 40));
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 1; t <= kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int round = 0; round < kRounds; ++round) {
        if (Write(trees[t]) != kSuccess) ++failures;
        const auto read = Read();
        const long long g = testing::GenerationOf(read.tree);
        if (read.code != kSuccess || g < 0 || g > kThreads || !SameTree(read.tree, trees[g])) {
          ++failures;
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(failures.load(), 0);
  EXPECT_FALSE(Exists(temporary()));
}

}  // namespace
}  // namespace QelSS
