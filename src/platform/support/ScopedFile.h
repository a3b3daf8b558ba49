#pragma once

#include <system_error>

#include "platform/support/FileSystem.h"
#include "qelss/platform/ErrorCode.h"

namespace QelSS::platform {

// Owns one descriptor opened through a file system and closes it through the
// same one. Close() reports the result; the destructor closes what is left and
// ignores the result, for paths that have already failed.
class ScopedFile {
 public:
  ScopedFile(IFileSystem& files, int fd) : files_(files), fd_(fd) {}
  ~ScopedFile() {
    if (fd_ >= 0) (void)files_.Close(fd_);
  }
  ScopedFile(const ScopedFile&) = delete;
  ScopedFile& operator=(const ScopedFile&) = delete;

  int fd() const { return fd_; }

  [[nodiscard]] std::error_code Close() {
    const int fd = fd_;
    fd_ = -1;
    return fd >= 0 ? files_.Close(fd) : make_error_code(kSuccess);
  }

 private:
  IFileSystem& files_;
  int fd_;
};

}  // namespace QelSS::platform
