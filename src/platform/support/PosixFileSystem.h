#pragma once

#include "platform/support/FileSystem.h"

namespace QelSS::platform {

// IFileSystem on the POSIX calls themselves. Stateless.
class PosixFileSystem final : public IFileSystem {
 public:
  bool Exists(const std::string& path) override;
  std::error_code Stat(const std::string& path, uint64_t& size) override;
  std::error_code KindOf(const std::string& path, FileKind& kind) override;
  std::error_code Open(const std::string& path, OpenMode mode, int& fd) override;
  std::error_code Seek(int fd, int64_t offset, SeekFrom from, uint64_t& position) override;
  std::error_code Read(int fd, std::span<uint8_t> buffer, size_t& count) override;
  std::error_code Write(int fd, std::span<const uint8_t> data, size_t& count) override;
  std::error_code Sync(int fd) override;
  std::error_code Close(int fd) override;
  std::error_code Remove(const std::string& path) override;
  std::error_code Rename(const std::string& from, const std::string& to) override;
  std::error_code SyncDirectory(const std::string& path) override;
  std::error_code SetPermissions(const std::string& path, unsigned mode, uid_t owner,
                                 gid_t group) override;
  std::error_code Link(const std::string& from, const std::string& to) override;
  std::error_code LockFile(const std::string& path, std::chrono::milliseconds wait,
                           int& fd) override;
};

}  // namespace QelSS::platform
