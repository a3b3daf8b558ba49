#pragma once

// The handful of file operations that the persistence layer makes, behind one
// interface: the POSIX implementation is the default, and tests wrap it
// (FileSystemWrapper.h) to make any single call fail.
//
// Every operation returns kSuccess or errno in the system category; none throws.
// Files are plain descriptors owned by the caller, who closes them with Close
// (ScopedFile.h does that). Implementations are thread-safe.

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <system_error>

#include "qelss/platform/ErrorCode.h"

namespace QelSS::platform {

enum class OpenMode {
  kRead,           // an existing file, read only; a directory is refused (EISDIR)
  kWriteTruncate,  // created when missing (mode 0600), emptied when present
};

enum class SeekFrom { kStart, kEnd };

enum class FileKind { kMissing, kRegular, kDirectory, kOther };

class IFileSystem {
 public:
  virtual ~IFileSystem();

  // True when something exists at `path` (access with F_OK).
  virtual bool Exists(const std::string& path) = 0;
  // The size in bytes of what is at `path`.
  [[nodiscard]] virtual std::error_code Stat(const std::string& path, uint64_t& size) = 0;
  // What is at `path`, symbolic links followed. kMissing when nothing is, or
  // a level on the way is not a folder; an error only when it cannot be told.
  [[nodiscard]] virtual std::error_code KindOf(const std::string& path, FileKind& kind) = 0;

  // On success `fd` is a new descriptor (close-on-exec).
  [[nodiscard]] virtual std::error_code Open(const std::string& path, OpenMode mode, int& fd) = 0;
  // Moves the file offset; `position` is the new offset from the start.
  [[nodiscard]] virtual std::error_code Seek(int fd, int64_t offset, SeekFrom from,
                                             uint64_t& position) = 0;
  // One read of at most `buffer.size()` bytes; `count` 0 means end of file.
  // Interrupted calls are retried.
  [[nodiscard]] virtual std::error_code Read(int fd, std::span<uint8_t> buffer, size_t& count) = 0;
  // One write of at most `data.size()` bytes; `count` may be short.
  // Interrupted calls are retried.
  [[nodiscard]] virtual std::error_code Write(int fd, std::span<const uint8_t> data,
                                              size_t& count) = 0;
  // Data and metadata of the file on stable storage (fsync).
  [[nodiscard]] virtual std::error_code Sync(int fd) = 0;
  // Releases the descriptor whatever the result; a failure reports a delayed
  // write error.
  [[nodiscard]] virtual std::error_code Close(int fd) = 0;

  [[nodiscard]] virtual std::error_code Remove(const std::string& path) = 0;
  [[nodiscard]] virtual std::error_code Rename(const std::string& from, const std::string& to) = 0;
  // Puts the entries of the directory (creations, removals, renames) on stable
  // storage. A file system that cannot sync directories counts as done.
  [[nodiscard]] virtual std::error_code SyncDirectory(const std::string& path) = 0;
  // As SetFilePermissions (FilePermissions.h).
  [[nodiscard]] virtual std::error_code SetPermissions(const std::string& path, unsigned mode,
                                                       uid_t owner, gid_t group) = 0;
  // A second name `to` for the file at `from` (a hard link); EEXIST when `to`
  // is taken.
  [[nodiscard]] virtual std::error_code Link(const std::string& from, const std::string& to) = 0;

  // Takes an exclusive advisory lock (flock) on the lock file at `path`, made
  // when missing with mode 0640 and group 0 (FilePermissions.h). Waits at most
  // `wait` for another holder, then gives ETIMEDOUT. On success `fd` holds the
  // lock until it is closed with Close; the file itself is never removed, as
  // removing it would let two holders lock two different files.
  [[nodiscard]] virtual std::error_code LockFile(const std::string& path,
                                                 std::chrono::milliseconds wait, int& fd) = 0;
};

// True when `path` is of kind `wanted`; false when it is not or cannot be told.
inline bool IsKind(IFileSystem& files, const std::string& path, FileKind wanted) {
  FileKind kind = FileKind::kMissing;
  return files.KindOf(path, kind) == kSuccess && kind == wanted;
}

// The process's POSIX implementation; shared, never null.
std::shared_ptr<IFileSystem> DefaultFileSystem();

// The folder that holds `path`: "." for a bare name, "/" for a top-level entry.
std::string ParentDirectory(const std::string& path);

}  // namespace QelSS::platform
