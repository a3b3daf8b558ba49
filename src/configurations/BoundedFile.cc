#include "configurations/BoundedFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "qelss/platform/ErrorCode.h"

namespace QelSS {
namespace {

class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  ~Descriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

}  // namespace

std::error_code ReadBoundedFile(const std::string& path, size_t limit, std::string& contents) {
  Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
  if (file.get() < 0) {
    return make_error_code(errno == ENOENT || errno == ENOTDIR ? kNotFound : kFileReadError);
  }
  struct stat info {};
  if (::fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode) ||
      static_cast<size_t>(info.st_size) > limit) {
    return make_error_code(kFileReadError);
  }
  // The size is checked again while reading: the file may grow meanwhile.
  std::string text;
  char buffer[16384];
  for (;;) {
    const ssize_t n = ::read(file.get(), buffer, sizeof buffer);
    if (n == 0) break;
    if (n < 0) {
      if (errno == EINTR) continue;
      return make_error_code(kFileReadError);
    }
    if (text.size() + static_cast<size_t>(n) > limit) return make_error_code(kFileReadError);
    text.append(buffer, static_cast<size_t>(n));
  }
  contents = std::move(text);
  return make_error_code(kSuccess);
}

}  // namespace QelSS
