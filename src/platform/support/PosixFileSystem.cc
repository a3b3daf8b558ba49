#include "platform/support/PosixFileSystem.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <thread>

#include "platform/support/FilePermissions.h"
#include "qelss/platform/ErrorCode.h"

namespace QelSS::platform {
namespace {

// New files are the owner's alone until their permissions are set
// explicitly, so that nothing is ever readable by more than intended.
constexpr mode_t kNewFileMode = 0600;
constexpr unsigned kLockFileMode = 0640;
constexpr gid_t kLockFileGroup = 0;
// A lock is held for one read or write of a domain file: milliseconds. The
// poll starts short and backs off so that a long wait costs little.
constexpr std::chrono::microseconds kFirstLockPoll{200};
constexpr std::chrono::microseconds kLongestLockPoll{20'000};

std::error_code Result(bool ok) {
  return ok ? make_error_code(kSuccess) : std::error_code(errno, std::system_category());
}

int OpenRetrying(const char* path, int flags, mode_t mode) {
  int fd;
  do {
    fd = ::open(path, flags, mode);
  } while (fd < 0 && errno == EINTR);
  return fd;
}

}  // namespace

IFileSystem::~IFileSystem() = default;

std::shared_ptr<IFileSystem> DefaultFileSystem() {
  static const std::shared_ptr<IFileSystem> instance = std::make_shared<PosixFileSystem>();
  return instance;
}

std::string ParentDirectory(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

bool PosixFileSystem::Exists(const std::string& path) { return ::access(path.c_str(), F_OK) == 0; }

std::error_code PosixFileSystem::Stat(const std::string& path, uint64_t& size) {
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0) return Result(false);
  size = static_cast<uint64_t>(info.st_size);
  return make_error_code(kSuccess);
}

std::error_code PosixFileSystem::KindOf(const std::string& path, FileKind& kind) {
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0) {
    if (errno != ENOENT && errno != ENOTDIR) return Result(false);
    kind = FileKind::kMissing;
  } else if (S_ISREG(info.st_mode)) {
    kind = FileKind::kRegular;
  } else {
    kind = S_ISDIR(info.st_mode) ? FileKind::kDirectory : FileKind::kOther;
  }
  return make_error_code(kSuccess);
}

// A directory opens, but reading it fails in ways (huge seek offsets) that would
// pass for other faults, so it is refused here.
std::error_code PosixFileSystem::Open(const std::string& path, OpenMode mode, int& fd) {
  const int flags =
      mode == OpenMode::kRead ? O_RDONLY | O_CLOEXEC : O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC;
  const int opened = OpenRetrying(path.c_str(), flags, kNewFileMode);
  if (opened < 0) return Result(false);
  struct stat info {};
  if (mode == OpenMode::kRead && (::fstat(opened, &info) != 0 || S_ISDIR(info.st_mode))) {
    ::close(opened);
    return std::error_code(EISDIR, std::system_category());
  }
  fd = opened;
  return make_error_code(kSuccess);
}

std::error_code PosixFileSystem::Seek(int fd, int64_t offset, SeekFrom from, uint64_t& position) {
  const off_t result = ::lseek(fd, offset, from == SeekFrom::kStart ? SEEK_SET : SEEK_END);
  if (result < 0) return Result(false);
  position = static_cast<uint64_t>(result);
  return make_error_code(kSuccess);
}

std::error_code PosixFileSystem::Read(int fd, std::span<uint8_t> buffer, size_t& count) {
  ssize_t n;
  do {
    n = ::read(fd, buffer.data(), buffer.size());
  } while (n < 0 && errno == EINTR);
  if (n < 0) return Result(false);
  count = static_cast<size_t>(n);
  return make_error_code(kSuccess);
}

std::error_code PosixFileSystem::Write(int fd, std::span<const uint8_t> data, size_t& count) {
  ssize_t n;
  do {
    n = ::write(fd, data.data(), data.size());
  } while (n < 0 && errno == EINTR);
  if (n < 0) return Result(false);
  count = static_cast<size_t>(n);
  return make_error_code(kSuccess);
}

std::error_code PosixFileSystem::Sync(int fd) {
  int result;
  do {
    result = ::fsync(fd);
  } while (result != 0 && errno == EINTR);
  return Result(result == 0);
}

// On Linux the descriptor is gone even when close fails, so it is never
// retried: a retry could close a descriptor another thread just opened.
std::error_code PosixFileSystem::Close(int fd) {
  if (::close(fd) == 0 || errno == EINTR) return make_error_code(kSuccess);
  return Result(false);
}

std::error_code PosixFileSystem::Remove(const std::string& path) {
  return Result(std::remove(path.c_str()) == 0);
}

std::error_code PosixFileSystem::Rename(const std::string& from, const std::string& to) {
  return Result(std::rename(from.c_str(), to.c_str()) == 0);
}

// Some file systems refuse fsync on a directory (EINVAL): their entries are
// as durable as they will ever get, so that is not a failure.
std::error_code PosixFileSystem::SyncDirectory(const std::string& path) {
  const int fd = OpenRetrying(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC, 0);
  if (fd < 0) return Result(false);
  std::error_code result = Sync(fd);
  if (result == std::errc::invalid_argument) result = make_error_code(kSuccess);
  ::close(fd);
  return result;
}

std::error_code PosixFileSystem::SetPermissions(const std::string& path, unsigned mode, uid_t owner,
                                                gid_t group) {
  return SetFilePermissions(path, mode, owner, group);
}

}  // namespace QelSS::platform

namespace QelSS::platform {

std::error_code PosixFileSystem::Link(const std::string& from, const std::string& to) {
  return Result(::link(from.c_str(), to.c_str()) == 0);
}

// flock has no time-out of its own; polling keeps the wait bounded without a
// signal or a helper thread.
std::error_code PosixFileSystem::LockFile(const std::string& path, std::chrono::milliseconds wait,
                                          int& fd) {
  int opened = OpenRetrying(path.c_str(), O_RDONLY | O_CREAT | O_EXCL | O_CLOEXEC, kNewFileMode);
  const bool made = opened >= 0;
  if (!made && errno == EEXIST) opened = OpenRetrying(path.c_str(), O_RDONLY | O_CLOEXEC, 0);
  if (opened < 0) return Result(false);
  // Only its maker sets its mode; the lock works whatever the mode is.
  if (made) (void)SetFilePermissions(path, kLockFileMode, static_cast<uid_t>(-1), kLockFileGroup);
  const auto deadline = std::chrono::steady_clock::now() + wait;
  std::chrono::microseconds poll = kFirstLockPoll;
  while (::flock(opened, LOCK_EX | LOCK_NB) != 0) {
    const int error = errno;
    if (error == EINTR) continue;
    if (error != EWOULDBLOCK || std::chrono::steady_clock::now() >= deadline) {
      ::close(opened);
      return std::error_code(error == EWOULDBLOCK ? ETIMEDOUT : error, std::system_category());
    }
    std::this_thread::sleep_for(poll);
    poll = std::min(poll * 2, kLongestLockPoll);
  }
  fd = opened;
  return make_error_code(kSuccess);
}

}  // namespace QelSS::platform
