#pragma once

// Shared pieces of the storage tests: a private key folder for the process,
// settings trees that can be rebuilt from their generation number alone (so
// that a reader can tell a whole tree from a damaged one), and a file system
// that fails the call a test chooses.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "persistence/Storage.h"
#include "platform/KeyHome.h"
#include "platform/ScopedTempDir.h"
#include "platform/support/FileSystemWrapper.h"
#include "qelss/values/ArrayFactory.h"
#include "qelss/values/DataFactory.h"
#include "qelss/values/DateFactory.h"
#include "qelss/values/HashFactory.h"
#include "qelss/values/NullFactory.h"
#include "qelss/values/NumberFactory.h"
#include "qelss/values/StringFactory.h"
#include "qelss/values/UUIDFactory.h"

namespace QelSS::testing {

// A test with a folder of its own, where the domain file is "settings".
class SettingsFolderTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_FALSE(dir_.path().empty()); }

  std::string path() const { return dir_ / "settings"; }
  std::string temporary() const { return path() + "xyzzyx"; }
  bool Exists(const std::string& file) const { return ::access(file.c_str(), F_OK) == 0; }

  ScopedTempDir dir_;
};

template <typename T>
std::shared_ptr<IValue> Must(std::error_code code, const std::shared_ptr<T>& value) {
  EXPECT_EQ(code, make_error_code(kSuccess));
  return value;
}

inline std::shared_ptr<IValue> Number(long long value) {
  std::shared_ptr<INumber> out;
  return Must(NumberFactory::Create(out, value), out);
}

inline std::shared_ptr<IValue> Text(const std::string& value) {
  std::shared_ptr<IString> out;
  return Must(StringFactory::Create(out, value), out);
}

// One entry of every kind, chosen by `i`, with content that depends on both
// numbers so that trees of neighbouring generations differ everywhere.
inline std::shared_ptr<IValue> Entry(long long generation, size_t i) {
  const long long n = generation * 1000003 + static_cast<long long>(i);
  switch (i % 10) {
    case 0:
      return Number(n);
    case 1: {
      std::shared_ptr<INumber> out;
      return Must(NumberFactory::Create(out, n * 0.5), out);
    }
    case 2: {
      std::shared_ptr<INumber> out;
      return Must(NumberFactory::Create(out, n % 2 == 0), out);
    }
    case 3:
      return Text("value " + std::to_string(n) + " \xc3\xa9 <&>");
    case 4: {
      std::vector<unsigned char> bytes(40 + i % 50);
      for (size_t b = 0; b < bytes.size(); ++b) bytes[b] = static_cast<unsigned char>(n + b);
      std::shared_ptr<IData> out;
      return Must(DataFactory::Create(out, bytes.data(), bytes.size()), out);
    }
    case 5: {
      std::shared_ptr<IDate> out;
      return Must(DateFactory::Create(out, static_cast<long>(1600000000 + n)), out);
    }
    case 6: {
      UUIDBytes bytes{};
      for (size_t b = 0; b < bytes.size(); ++b) bytes[b] = static_cast<uint8_t>(n >> (b % 8));
      std::shared_ptr<IUUID> out;
      return Must(UUIDFactory::Create(out, bytes), out);
    }
    case 7: {
      std::shared_ptr<INull> out;
      return Must(NullFactory::Create(out), out);
    }
    case 8: {
      std::shared_ptr<IArray> out;
      EXPECT_EQ(ArrayFactory::Create(out), make_error_code(kSuccess));
      for (int k = 0; k < 3; ++k) EXPECT_EQ(out->Append(Number(n + k)), make_error_code(kSuccess));
      return out;
    }
    default: {
      std::shared_ptr<IHash> out;
      EXPECT_EQ(HashFactory::Create(out), make_error_code(kSuccess));
      EXPECT_EQ(out->Set("inner", Number(n)), make_error_code(kSuccess));
      EXPECT_EQ(out->Set("label", Text(std::to_string(n))), make_error_code(kSuccess));
      return out;
    }
  }
}

// A tree that says which generation it is and can be rebuilt from that alone.
inline std::shared_ptr<IHash> MakeTree(long long generation, size_t entries) {
  std::shared_ptr<IHash> tree;
  EXPECT_EQ(HashFactory::Create(tree), make_error_code(kSuccess));
  EXPECT_EQ(tree->Set("generation", Number(generation)), make_error_code(kSuccess));
  EXPECT_EQ(tree->Set("entries", Number(static_cast<long long>(entries))),
            make_error_code(kSuccess));
  for (size_t i = 0; i < entries; ++i) {
    const std::string key = "key" + std::to_string(i);
    EXPECT_EQ(tree->Set(key.c_str(), Entry(generation, i)), make_error_code(kSuccess));
  }
  return tree;
}

// The generation a tree claims, or -1.
inline long long GenerationOf(const std::shared_ptr<IHash>& tree) {
  std::shared_ptr<IValue> value;
  if (!tree || tree->Get("generation", value) != kSuccess) return -1;
  auto number = std::dynamic_pointer_cast<INumber>(value);
  int64_t generation = -1;
  if (!number || number->GetInt64(generation) != kSuccess) return -1;
  return generation;
}

struct ReadResult {
  std::error_code code;
  std::shared_ptr<IHash> tree;
  int calls = 0;
};

inline ReadResult Read(IStorage& storage, const std::string& path) {
  ReadResult result;
  storage.ReadSettings(path, [&](std::error_code code, std::shared_ptr<IHash> tree) {
    result.code = code;
    result.tree = std::move(tree);
    ++result.calls;
  });
  return result;
}

inline std::error_code Write(IStorage& storage, const std::string& path,
                             const std::shared_ptr<IHash>& tree) {
  std::error_code result = make_error_code(kFailure);
  int calls = 0;
  storage.WriteSettings(path, tree, [&](std::error_code code) {
    result = code;
    ++calls;
  });
  EXPECT_EQ(calls, 1) << "the completion runs once, before WriteSettings returns";
  return result;
}

inline bool SameTree(const std::shared_ptr<IHash>& a, const std::shared_ptr<IHash>& b) {
  return a && b && *a == *b;
}

inline std::error_code Errno(int value) { return std::error_code(value, std::system_category()); }

// The calls a storage makes, by kind, for faults and for checking their order.
enum class FileCall {
  kOpenTemporary,
  kWriteTemporary,
  kSyncTemporary,
  kCloseTemporary,
  kSyncDirectory,
  kRemove,
  kRename,
  kSetPermissions,
  kStat,
  kOpenRead,
  kRead,
};

// Fails calls of one kind with `error`, after letting the first `skip` of them
// pass. A write fault first lets `writeBudget` bytes through, so that the
// temporary file is left half written as a full disk would leave it. Every
// call is logged by kind. Used from one storage queue at a time.
class FaultyFileSystem : public platform::FileSystemWrapper {
 public:
  FaultyFileSystem() : FileSystemWrapper(platform::DefaultFileSystem()) {}

  void Fail(FileCall call, int error, int skip = 0, size_t writeBudget = 0) {
    armed_ = true;
    fault_ = call;
    error_ = error;
    skip_ = skip;
    writeBudget_ = writeBudget;
  }
  // Instead of failing, the process ends at once (as if killed) at that call,
  // a write after letting `writeBudget` bytes through.
  void Die(FileCall call, int skip = 0, size_t writeBudget = 0) {
    Fail(call, EIO, skip, writeBudget);
    die_ = true;
  }
  void Heal() { armed_ = false; }
  const std::vector<FileCall>& log() const { return log_; }
  int Count(FileCall call) const {
    int n = 0;
    for (FileCall c : log_) n += c == call;
    return n;
  }

  std::error_code Stat(const std::string& path, uint64_t& size) override {
    if (Hit(FileCall::kStat)) return Errno(error_);
    return FileSystemWrapper::Stat(path, size);
  }
  std::error_code Open(const std::string& path, platform::OpenMode mode, int& fd) override {
    const bool temporary = mode == platform::OpenMode::kWriteTruncate;
    if (Hit(temporary ? FileCall::kOpenTemporary : FileCall::kOpenRead)) return Errno(error_);
    std::error_code code = FileSystemWrapper::Open(path, mode, fd);
    if (code == kSuccess && temporary) temporaryFd_ = fd;
    return code;
  }
  std::error_code Read(int fd, std::span<uint8_t> buffer, size_t& count) override {
    if (Hit(FileCall::kRead)) return Errno(error_);
    return FileSystemWrapper::Read(fd, buffer, count);
  }
  std::error_code Write(int fd, std::span<const uint8_t> data, size_t& count) override {
    log_.push_back(FileCall::kWriteTemporary);
    if (armed_ && fault_ == FileCall::kWriteTemporary) {
      if (writeBudget_ == 0) return Stop();
      data = data.first(std::min(data.size(), writeBudget_));
      std::error_code code = FileSystemWrapper::Write(fd, data, count);
      if (code == kSuccess) writeBudget_ -= count;
      return code;
    }
    return FileSystemWrapper::Write(fd, data, count);
  }
  std::error_code Sync(int fd) override {
    if (Hit(FileCall::kSyncTemporary)) return Errno(error_);
    return FileSystemWrapper::Sync(fd);
  }
  // The descriptor is gone either way, as with close itself.
  std::error_code Close(int fd) override {
    const bool temporary = fd == temporaryFd_;
    if (temporary) temporaryFd_ = -1;
    std::error_code code = FileSystemWrapper::Close(fd);
    if (temporary && Hit(FileCall::kCloseTemporary)) return Errno(error_);
    return code;
  }
  std::error_code Remove(const std::string& path) override {
    if (Hit(FileCall::kRemove)) return Errno(error_);
    return FileSystemWrapper::Remove(path);
  }
  std::error_code Rename(const std::string& from, const std::string& to) override {
    if (Hit(FileCall::kRename)) return Errno(error_);
    return FileSystemWrapper::Rename(from, to);
  }
  std::error_code SyncDirectory(const std::string& path) override {
    if (Hit(FileCall::kSyncDirectory)) return Errno(error_);
    return FileSystemWrapper::SyncDirectory(path);
  }
  std::error_code SetPermissions(const std::string& path, unsigned mode, uid_t owner,
                                 gid_t group) override {
    if (Hit(FileCall::kSetPermissions)) return Errno(error_);
    return FileSystemWrapper::SetPermissions(path, mode, owner, group);
  }

 private:
  // Logs the call; true when it is to fail.
  bool Hit(FileCall call) {
    log_.push_back(call);
    if (!armed_ || call != fault_) return false;
    if (skip_ > 0) {
      --skip_;
      return false;
    }
    if (die_) ::_exit(kDiedExitCode);
    return true;
  }
  std::error_code Stop() {
    if (die_) ::_exit(kDiedExitCode);
    return Errno(error_);
  }

 public:
  static constexpr int kDiedExitCode = 86;

 private:
  bool armed_ = false;
  bool die_ = false;
  FileCall fault_ = FileCall::kStat;
  int error_ = EIO;
  int skip_ = 0;
  size_t writeBudget_ = 0;
  int temporaryFd_ = -1;
  std::vector<FileCall> log_;
};

}  // namespace QelSS::testing
