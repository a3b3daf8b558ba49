#include "predefine/DroppedFile.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "qelss/platform/ErrorCode.h"

namespace QelSS::predefine {
namespace {

DroppedFile Refused(ErrorCode code, std::string message, UniqueFd fd = UniqueFd()) {
  DroppedFile file;
  file.state = DroppedFile::State::kRefused;
  file.code = make_error_code(code);
  file.message = std::move(message);
  file.fd = std::move(fd);
  return file;
}

DroppedFile Left(ErrorCode code, std::string message) {
  DroppedFile file;
  file.state = DroppedFile::State::kLeft;
  file.code = make_error_code(code);
  file.message = std::move(message);
  return file;
}

bool SameFile(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

std::string Octal(mode_t mode) {
  char text[8];
  std::snprintf(text, sizeof text, "%04o", static_cast<unsigned>(mode & 07777));
  return text;
}

// A read lease is granted only while no descriptor anywhere has the file open
// for writing, which is exactly "the writer has not finished". The lease is
// given back at once; a writer opening the file in that instant breaks it with
// SIGURG, whose default action is to ignore it (the default SIGIO would end
// the process). When no lease can be had (another user's file without the
// capability, or a file system without leases) this cannot be told.
bool StillOpenForWriting(int fd) {
  if (::fcntl(fd, F_SETSIG, SIGURG) != 0) return false;
  if (::fcntl(fd, F_SETLEASE, F_RDLCK) == 0) {
    (void)::fcntl(fd, F_SETLEASE, F_UNLCK);
    return false;
  }
  return errno == EAGAIN;
}

// Reads at most `limit` bytes; true when the whole file fitted.
bool ReadAtMost(int fd, uint64_t limit, std::vector<uint8_t>& bytes, int& error) {
  bytes.clear();
  uint8_t chunk[1 << 16];
  while (true) {
    const ssize_t got = ::read(fd, chunk, sizeof chunk);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) {
      error = errno;
      return false;
    }
    if (got == 0) return true;
    if (bytes.size() + static_cast<size_t>(got) > limit) return false;
    bytes.insert(bytes.end(), chunk, chunk + got);
  }
}

}  // namespace

UniqueFd::~UniqueFd() {
  if (fd_ >= 0) ::close(fd_);
}

UniqueFd& UniqueFd::operator=(UniqueFd&& other) noexcept {
  if (this != &other) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = other.fd_;
    other.fd_ = -1;
  }
  return *this;
}

DroppedFile OpenDroppedFile(int folderFd, const std::string& name, uint64_t maxSize) {
  struct stat seen {};
  if (::fstatat(folderFd, name.c_str(), &seen, AT_SYMLINK_NOFOLLOW) != 0) {
    if (errno == ENOENT) return Left(kNotFound, "no longer there");
    return Refused(kFileReadError, std::string("cannot be looked at: ") + std::strerror(errno));
  }
  if (S_ISLNK(seen.st_mode)) return Refused(kPredefineError, "a symbolic link");
  if (!S_ISREG(seen.st_mode)) return Refused(kPredefineError, "not a regular file");

  UniqueFd fd(
      ::openat(folderFd, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!fd) {
    if (errno == ENOENT) return Left(kNotFound, "no longer there");
    if (errno == ELOOP) return Refused(kPredefineError, "a symbolic link");
    return Refused(kFileReadError, std::string("cannot be opened: ") + std::strerror(errno));
  }
  struct stat st {};
  if (::fstat(fd.get(), &st) != 0 || !SameFile(st, seen)) {
    return Left(kNotFound, "replaced while it was opened");
  }
  // The lock marks the import under way; the importer that holds it moves the
  // file away before letting go, so an importer that waited finds it gone.
  if (::flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
    return Left(kOperationRefused, "being imported by another process");
  }
  struct stat now {};
  if (::fstatat(folderFd, name.c_str(), &now, AT_SYMLINK_NOFOLLOW) != 0 || !SameFile(now, st)) {
    return Left(kNotFound, "imported by another process");
  }
  if (StillOpenForWriting(fd.get())) return Left(kOperationRefused, "still open for writing");

  const uid_t user = ::geteuid();
  if (st.st_uid != 0 && st.st_uid != user) {
    return Refused(kPredefineError,
                   "owned by uid " + std::to_string(st.st_uid) + ", neither root nor uid " +
                       std::to_string(user),
                   std::move(fd));
  }
  if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    return Refused(kPredefineError,
                   "writable by its group or by others (mode " + Octal(st.st_mode) + ")",
                   std::move(fd));
  }
  const std::string limit = "the limit of " + std::to_string(maxSize) + " bytes";
  if (static_cast<uint64_t>(st.st_size) > maxSize) {
    return Refused(kPredefineError, std::to_string(st.st_size) + " bytes, over " + limit,
                   std::move(fd));
  }
  DroppedFile file;
  int error = 0;
  if (!ReadAtMost(fd.get(), maxSize, file.bytes, error)) {
    if (error != 0) {
      return Refused(kFileReadError, std::string("cannot be read: ") + std::strerror(error),
                     std::move(fd));
    }
    return Refused(kPredefineError, "grew over " + limit + " while it was read", std::move(fd));
  }
  file.state = DroppedFile::State::kReadable;
  file.code = make_error_code(kSuccess);
  file.fd = std::move(fd);
  return file;
}

}  // namespace QelSS::predefine
