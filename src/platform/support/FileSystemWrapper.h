#pragma once

#include <memory>
#include <utility>

#include "platform/support/FileSystem.h"

namespace QelSS::platform {

// Forwards every call to another file system, so that a subclass overrides only
// the calls it wants to change (a test failing the rename, say).
class FileSystemWrapper : public IFileSystem {
 public:
  explicit FileSystemWrapper(std::shared_ptr<IFileSystem> target) : target_(std::move(target)) {}

  bool Exists(const std::string& path) override { return target_->Exists(path); }
  std::error_code Stat(const std::string& path, uint64_t& size) override {
    return target_->Stat(path, size);
  }
  std::error_code KindOf(const std::string& path, FileKind& kind) override {
    return target_->KindOf(path, kind);
  }
  std::error_code Open(const std::string& path, OpenMode mode, int& fd) override {
    return target_->Open(path, mode, fd);
  }
  std::error_code Seek(int fd, int64_t offset, SeekFrom from, uint64_t& position) override {
    return target_->Seek(fd, offset, from, position);
  }
  std::error_code Read(int fd, std::span<uint8_t> buffer, size_t& count) override {
    return target_->Read(fd, buffer, count);
  }
  std::error_code Write(int fd, std::span<const uint8_t> data, size_t& count) override {
    return target_->Write(fd, data, count);
  }
  std::error_code Sync(int fd) override { return target_->Sync(fd); }
  std::error_code Close(int fd) override { return target_->Close(fd); }
  std::error_code Remove(const std::string& path) override { return target_->Remove(path); }
  std::error_code Rename(const std::string& from, const std::string& to) override {
    return target_->Rename(from, to);
  }
  std::error_code SyncDirectory(const std::string& path) override {
    return target_->SyncDirectory(path);
  }
  std::error_code SetPermissions(const std::string& path, unsigned mode, uid_t owner,
                                 gid_t group) override {
    return target_->SetPermissions(path, mode, owner, group);
  }
  std::error_code Link(const std::string& from, const std::string& to) override {
    return target_->Link(from, to);
  }
  std::error_code LockFile(const std::string& path, std::chrono::milliseconds wait,
                           int& fd) override {
    return target_->LockFile(path, wait, fd);
  }

  IFileSystem& target() { return *target_; }

 private:
  std::shared_ptr<IFileSystem> target_;
};

}  // namespace QelSS::platform
