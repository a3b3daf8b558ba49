#include "FileText.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <system_error>

#include "qelss/platform/ErrorCode.h"

namespace QelSS::Qss {
namespace {

class FileDescriptor {
 public:
  explicit FileDescriptor(int fd) : fd_(fd) {}
  ~FileDescriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  int get() const { return fd_; }
  // Closes now so that a failing close (a full disk on some file systems) is
  // seen before the file is renamed into place.
  bool Close() {
    const int fd = fd_;
    fd_ = -1;
    return ::close(fd) == 0;
  }

 private:
  int fd_;
};

std::string SystemText(int error) { return std::strerror(error); }

Status ReadFailure(const std::string& path, int error) {
  return Status::Failure("cannot read " + path + " (" + SystemText(error) + ")",
                         make_error_code(kFileReadError),
                         "check the file name and its permissions");
}

Status WriteFailure(const std::string& path, int error) {
  return Status::Failure("cannot write " + path + " (" + SystemText(error) + ")",
                         make_error_code(kFileWriteError),
                         "check that the folder exists, is writable and has room");
}

bool WriteAll(int fd, const std::string& text) {
  size_t written = 0;
  while (written < text.size()) {
    const ssize_t n = ::write(fd, text.data() + written, text.size() - written);
    if (n < 0 && errno == EINTR) continue;
    if (n == 0) errno = EIO;
    if (n <= 0) return false;
    written += static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

Status ReadTextFile(const std::string& path, size_t limit, std::string& out) {
  FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (file.get() < 0) return ReadFailure(path, errno);
  struct stat info;
  if (::fstat(file.get(), &info) != 0) return ReadFailure(path, errno);
  if (S_ISDIR(info.st_mode)) return ReadFailure(path, EISDIR);
  std::string text;
  char buffer[65536];
  for (;;) {
    const ssize_t n = ::read(file.get(), buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return ReadFailure(path, errno);
    if (n == 0) break;
    if (text.size() + static_cast<size_t>(n) > limit) {
      return Status::Failure(path + " is larger than " + std::to_string(limit) + " bytes",
                             make_error_code(kFileReadError),
                             "give the file that `qss export` wrote");
    }
    text.append(buffer, static_cast<size_t>(n));
  }
  out.swap(text);
  return Status::Ok();
}

Status WriteTextFile(const std::string& path, const std::string& text) {
  std::string temporary = path + ".XXXXXX";
  FileDescriptor file(::mkostemp(temporary.data(), O_CLOEXEC));
  if (file.get() < 0) return WriteFailure(path, errno);
  int error = 0;
  if (!WriteAll(file.get(), text) || ::fsync(file.get()) != 0) error = errno;
  if (!file.Close() && error == 0) error = errno;
  if (error == 0 && ::rename(temporary.c_str(), path.c_str()) != 0) error = errno;
  if (error != 0) {
    ::unlink(temporary.c_str());
    return WriteFailure(path, error);
  }
  return Status::Ok();
}

}  // namespace QelSS::Qss
