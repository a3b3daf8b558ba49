#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include <filesystem>

#include "PersistenceTestSupport.h"
#include "StorageTestSupport.h"
#include "persistence/Envelope.h"
#include "persistence/HostKeyFile.h"
#include "persistence/Key.h"
#include "persistence/KeyDerivation.h"
#include "platform/ScopedTempDir.h"
#include "platform/report/CaptureSink.h"
#include "platform/support/Base64.h"
#include "qelss/platform/ErrorCode.h"

namespace QelSS {
namespace {

using Bytes = std::vector<uint8_t>;
using testing::ScopedTempDir;

Bytes Counting(size_t size, uint8_t start = 0) {
  Bytes out(size);
  for (size_t i = 0; i < size; ++i) out[i] = static_cast<uint8_t>(start + i);
  return out;
}

std::string Hex(std::span<const uint8_t> bytes) {
  static const char* digits = "0123456789abcdef";
  std::string out;
  for (uint8_t b : bytes) {
    out += digits[b >> 4];
    out += digits[b & 15];
  }
  return out;
}

// The key file of host key 00 01 .. 1f and the file key it yields. They pin the
// mask table, the salt table and the derivation parameters: if either changes,
// existing key files stop working, and so does this test. Both were computed
// independently of this code (Python's hashlib and base64).
constexpr const char* kGoldenKeyFile =
    "kWMd4Mb2IjgIv5O3pfCdOXE/oQ/HeraoBRqk4SuG9/DYgdl/jXzk9o4Lkvd/02CmNm4cgqFNp3rUcOSZ5h5gyQ==";
constexpr const char* kGoldenFileKey =
    "7023bcb90035150022f2b50de468372c767bb2aec22ec0c2090172a01ce162ca";

class HostKeyFileTest : public ::testing::Test {
 protected:
  std::error_code Read(Bytes& key) { return ReadHostKeyFile(path_, key); }
  void Corrupt(size_t position, char replacement) {
    std::string text = testing::ReadText(path_);
    text[position] = replacement;
    testing::WriteText(path_, text);
  }

  ScopedTempDir folder_;
  std::string path_ = folder_ / "com.qelvarin.QSS";
};

TEST_F(HostKeyFileTest, WrittenKeyReadsBackFromAMaskedEightyEightCharacterFile) {
  const Bytes key = Counting(32);
  ASSERT_EQ(WriteHostKeyFile(path_, key), make_error_code(kSuccess));
  const std::string text = testing::ReadText(path_);
  EXPECT_EQ(text, kGoldenKeyFile);
  EXPECT_EQ(testing::FileMode(path_), 0640u);

  std::vector<uint8_t> decoded;
  ASSERT_EQ(QelBase64Decode(text.data(), text.size(), decoded), 0);
  EXPECT_EQ(std::search(decoded.begin(), decoded.end(), key.begin() + 4, key.begin() + 12),
            decoded.end())
      << "the key must not stand in the file in clear";

  Bytes back;
  ASSERT_EQ(Read(back), make_error_code(kSuccess));
  EXPECT_EQ(back, key);
}

TEST_F(HostKeyFileTest, AcceptsLongerKeysWhoseDigestMatches) {
  const Bytes key = Counting(33, 7);
  ASSERT_EQ(WriteHostKeyFile(path_, key), make_error_code(kSuccess));
  Bytes back;
  ASSERT_EQ(Read(back), make_error_code(kSuccess));
  EXPECT_EQ(back, key);
}

TEST_F(HostKeyFileTest, MissingUnreadableAndOversizedFilesAreTellApart) {
  Bytes key = {1, 2, 3};
  EXPECT_EQ(Read(key), make_error_code(kNotFound));
  ASSERT_EQ(::mkdir(path_.c_str(), 0700), 0);
  EXPECT_EQ(Read(key), make_error_code(kFileReadError));
  ::rmdir(path_.c_str());
  testing::WriteText(path_, std::string(2 << 20, 'A'));
  EXPECT_EQ(Read(key), make_error_code(kFileReadError));
  EXPECT_EQ(key, (Bytes{1, 2, 3})) << "output touched on failure";
}

TEST_F(HostKeyFileTest, DamagedContentFailsDecodingOrTheDigestCheck) {
  ASSERT_EQ(WriteHostKeyFile(path_, Counting(32)), make_error_code(kSuccess));
  const std::string good = testing::ReadText(path_);
  Bytes key;

  Corrupt(10, '*');
  EXPECT_EQ(Read(key), make_error_code(kKeyDecodeError));

  // Padding followed by data is not base64.
  testing::WriteText(path_, good);
  Corrupt(good.size() - 1, 'A');
  EXPECT_EQ(Read(key), make_error_code(kKeyDecodeError));

  // The last character that carries data ("yQ==" -> "yg=="): still valid
  // base64, but the key's last byte changes.
  testing::WriteText(path_, good);
  Corrupt(good.size() - 3, 'g');
  EXPECT_EQ(Read(key), make_error_code(kKeyChecksumMismatch));

  testing::WriteText(path_, good);
  Corrupt(60, good[60] == 'B' ? 'C' : 'B');
  EXPECT_EQ(Read(key), make_error_code(kKeyChecksumMismatch));

  for (size_t length : {0u, 4u, 40u, 44u, 84u}) {
    testing::WriteText(path_, good.substr(0, length));
    EXPECT_EQ(Read(key), make_error_code(kKeyChecksumMismatch)) << length;
  }
  EXPECT_TRUE(key.empty());
}

TEST_F(HostKeyFileTest, WriteRefusesAnEmptyKeyAndAMissingFolder) {
  EXPECT_EQ(WriteHostKeyFile(path_, Bytes{}), make_error_code(kInvalidArgument));
  EXPECT_EQ(WriteHostKeyFile(folder_ / "absent/key", Counting(32)),
            make_error_code(kFileWriteError));
}

// Regression: a full disk when the key was first made left an empty key file,
// after which every domain failed its checksum for good. Whichever step fails,
// the key file is what it was before (here: absent, then an older key) and no
// temporary file is left behind.
TEST_F(HostKeyFileTest, AFailedWriteLeavesTheOldKeyFileOrNone) {
  using testing::FileCall;
  const std::vector<std::pair<FileCall, int>> faults = {
      {FileCall::kOpenTemporary, EACCES}, {FileCall::kWriteTemporary, ENOSPC},
      {FileCall::kSyncTemporary, EIO},    {FileCall::kCloseTemporary, EIO},
      {FileCall::kSetPermissions, EPERM}, {FileCall::kRename, EXDEV},
  };
  for (const bool existing : {false, true}) {
    if (existing) {
      ASSERT_EQ(WriteHostKeyFile(path_, Counting(32, 7)), make_error_code(kSuccess));
    }
    const std::string before = existing ? testing::ReadText(path_) : "";
    for (const auto& [call, error] : faults) {
      SCOPED_TRACE(static_cast<int>(call));
      testing::FaultyFileSystem faulty;
      faulty.Fail(call, error, 0, call == FileCall::kWriteTemporary ? 10 : 0);
      EXPECT_NE(WriteHostKeyFile(faulty, path_, Counting(32)), make_error_code(kSuccess));
      EXPECT_EQ(std::filesystem::exists(path_), existing);
      if (existing) {
        EXPECT_EQ(testing::ReadText(path_), before);
      }
      EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder_.path()), {}),
                existing ? 1 : 0);
    }
  }
  // Once the new key has its name, only the folder's sync can still fail.
  testing::FaultyFileSystem faulty;
  faulty.Fail(FileCall::kSyncDirectory, EIO);
  EXPECT_EQ(WriteHostKeyFile(faulty, path_, Counting(32)), make_error_code(kFileWriteError));
  Bytes key;
  EXPECT_EQ(Read(key), make_error_code(kSuccess));
  EXPECT_EQ(key, Counting(32));
}

TEST_F(HostKeyFileTest, GetHostKeyCreatesOnceAndNeverReplacesADamagedFile) {
  Bytes first, second;
  ASSERT_EQ(GetHostKey(path_, first), make_error_code(kSuccess));
  EXPECT_EQ(first.size(), kHostKeySize);
  EXPECT_EQ(testing::ReadText(path_).size(), 88u);
  ASSERT_EQ(GetHostKey(path_, second), make_error_code(kSuccess));
  EXPECT_EQ(first, second);

  Corrupt(0, '!');
  const std::string damaged = testing::ReadText(path_);
  Bytes third;
  EXPECT_EQ(GetHostKey(path_, third), make_error_code(kKeyDecodeError));
  EXPECT_EQ(testing::ReadText(path_), damaged);
}

TEST_F(HostKeyFileTest, UnusableFilesAreReportedWithTheirOwnTexts) {
  constexpr const char* kMismatch = "SHA Mismatch (calculatedHostKeySHA != SHA256HostKey)";
  ASSERT_EQ(WriteHostKeyFile(path_, Counting(32)), make_error_code(kSuccess));
  const std::string good = testing::ReadText(path_);
  Bytes key;
  {
    platform::ScopedCaptureSink capture;
    Corrupt(10, '*');
    EXPECT_EQ(GetHostKey(path_, key), make_error_code(kKeyDecodeError));
    const auto decode = capture->FindFailureReport("SSKC", "base64decode");
    ASSERT_TRUE(decode);
    EXPECT_EQ(decode->Message(), kMismatch);
    EXPECT_EQ(decode->Code(), 373);
    EXPECT_EQ(decode->ErrorDomain(), "QelSharedSettingsErrorDomain");
    EXPECT_TRUE(capture->HasTrace("base64decode failed (373)"));
    const auto readfile = capture->FindFailureReport("SSKC", "readfile");
    ASSERT_TRUE(readfile);
    EXPECT_EQ(readfile->Message(), "file not found");
    EXPECT_EQ(readfile->Code(), 373);
  }
  {
    platform::ScopedCaptureSink capture;
    testing::WriteText(path_, good.substr(0, 44));
    EXPECT_EQ(Read(key), make_error_code(kKeyChecksumMismatch));
    const auto mismatch = capture->FindFailureReport("SSKC", "SHAMismatch");
    ASSERT_TRUE(mismatch);
    EXPECT_EQ(mismatch->Message(), kMismatch);
    EXPECT_EQ(mismatch->Code(), 374);
    EXPECT_TRUE(capture->HasTrace("SHAMismatch failed (374)"));
  }
  {
    // Absence is not a failure of reading: nothing is reported.
    platform::ScopedCaptureSink capture;
    std::remove(path_.c_str());
    EXPECT_EQ(Read(key), make_error_code(kNotFound));
    EXPECT_TRUE(capture->FailureReports().empty());
  }
}

TEST(DeriveFileKey, UsesOnlyTheFirstSixteenBytesOfTheHostKey) {
  Bytes golden;
  ASSERT_EQ(DeriveFileKey(Counting(32), golden), make_error_code(kSuccess));
  EXPECT_EQ(Hex(golden), kGoldenFileKey);

  Bytes sameStart = Counting(32);
  sameStart[16] ^= 0xff;
  sameStart[31] ^= 0xff;
  Bytes derived;
  ASSERT_EQ(DeriveFileKey(sameStart, derived), make_error_code(kSuccess));
  EXPECT_EQ(derived, golden);
  ASSERT_EQ(DeriveFileKey(std::span(sameStart).first(16), derived), make_error_code(kSuccess));
  EXPECT_EQ(derived, golden);

  Bytes otherStart = Counting(32);
  otherStart[15] ^= 0x01;
  ASSERT_EQ(DeriveFileKey(otherStart, derived), make_error_code(kSuccess));
  EXPECT_NE(derived, golden);

  EXPECT_EQ(DeriveFileKey(Counting(15), derived), make_error_code(kKeyDerivationError));
}

// The process's key singleton, observed from child processes whose data
// folder is a temporary one. The child prints what it saw; the parent checks.
class KeySingletonTest : public ::testing::Test {
 protected:
  // "<result> <derived-key-hex>" as seen by a fresh process.
  testing::ChildOutcome DeriveInChild() {
    const std::string home = home_.path();
    return testing::RunInChildWithOutput([home](std::string& out) {
      ::setenv("XDG_DATA_HOME", home.c_str(), 1);
      const Key& key = Key::Instance();
      out = std::to_string(key.Result().value()) + " " + Hex(key.DerivedKey());
      return key.IsDerived() ? 0 : 1;
    });
  }
  std::string KeyFile() const { return home_.path() + "/qelvarin/DomainSettings/com.qelvarin.QSS"; }

  ScopedTempDir home_;
};

TEST_F(KeySingletonTest, FirstProcessCreatesTheFileAndASecondDerivesTheSameKey) {
  const testing::ChildOutcome first = DeriveInChild();
  ASSERT_EQ(first.exitCode, 0) << first.output;
  EXPECT_EQ(first.output.size(), 4u + 64u);
  EXPECT_EQ(first.output.substr(0, 4), "100 ");
  EXPECT_EQ(testing::ReadText(KeyFile()).size(), 88u);
  EXPECT_EQ(testing::FileMode(KeyFile()), 0640u);

  const testing::ChildOutcome second = DeriveInChild();
  ASSERT_EQ(second.exitCode, 0);
  EXPECT_EQ(second.output, first.output);
}

TEST_F(KeySingletonTest, DerivesTheGoldenKeyFromAnExistingFile) {
  ::mkdir((home_.path() + "/qelvarin").c_str(), 0770);
  ::mkdir((home_.path() + "/qelvarin/DomainSettings").c_str(), 0770);
  testing::WriteText(KeyFile(), kGoldenKeyFile);
  const testing::ChildOutcome child = DeriveInChild();
  ASSERT_EQ(child.exitCode, 0);
  EXPECT_EQ(child.output, std::string("100 ") + kGoldenFileKey);
}

TEST_F(KeySingletonTest, ADamagedFileFailsForTheWholeProcessAndStopsTheEnvelope) {
  ::mkdir((home_.path() + "/qelvarin").c_str(), 0770);
  ::mkdir((home_.path() + "/qelvarin/DomainSettings").c_str(), 0770);
  std::string text = kGoldenKeyFile;
  text[text.size() - 3] = 'g';  // the last character that carries data
  testing::WriteText(KeyFile(), text);

  const std::string home = home_.path();
  const testing::ChildOutcome child = testing::RunInChildWithOutput([home](std::string& out) {
    ::setenv("XDG_DATA_HOME", home.c_str(), 1);
    platform::ScopedCaptureSink capture;
    Bytes sealed, opened;
    out = std::to_string(Key::Instance().Result().value()) + " " +
          std::to_string(Encrypt(Bytes{1, 2, 3}, sealed).value()) + " " +
          std::to_string(Decrypt(Bytes(48, 1), opened).value()) + " " +
          std::to_string(Key::Instance().DerivedKey().size());
    const auto report = capture->FindFailureReport("SSKC", "GetKey");
    if (!report || report->Message() != "Failed to get host key" || report->Code() != 374 ||
        capture->CountFailureReports("SSKC", "GetKey") != 1) {
      out += " (no single GetKey report)";
    }
    return 0;
  });
  ASSERT_EQ(child.exitCode, 0);
  EXPECT_EQ(child.output, "374 374 374 0");
  EXPECT_EQ(testing::ReadText(KeyFile()), text);
}

TEST_F(KeySingletonTest, ConcurrentFirstUsersShareOneDerivation) {
  const std::string home = home_.path();
  const testing::ChildOutcome child = testing::RunInChildWithOutput([home](std::string& out) {
    ::setenv("XDG_DATA_HOME", home.c_str(), 1);
    const Key* seen[4] = {};
    std::vector<std::thread> threads;
    for (auto& slot : seen) threads.emplace_back([&slot] { slot = &Key::Instance(); });
    for (auto& thread : threads) thread.join();
    for (const Key* key : seen) {
      if (key != seen[0] || !key->IsDerived()) return 1;
    }
    out = Hex(seen[0]->DerivedKey());
    return 0;
  });
  ASSERT_EQ(child.exitCode, 0);
  EXPECT_EQ(child.output.size(), 64u);
  EXPECT_EQ(DeriveInChild().output, "100 " + child.output);
}

}  // namespace
}  // namespace QelSS
